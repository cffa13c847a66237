#include "journal/output.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/output_capture.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

class RmaLog : public testing::Test {
  protected:
    RmaLog() { reset_options(); }

    flashEntry& add_device(int product_id, int ec_level, int status) {
        const int row = session_->numberOfFlashEntries;
        session_->initialize_device_data(row, "path", "serial", product_id, ec_level);
        session_->numberOfFlashEntries = row + 1;
        session_->fe[row].flashStatus = status;
        return session_->fe[row];
    }
    static void select(const char* product_id, flashEntry* entry) {
        select_devices = 1;
        DeviceListEntry& selected = device_list[NumberOfDeviceListEntries++];
        std::snprintf(selected.PIDstr, sizeof(selected.PIDstr), "%s", product_id);
        selected.fe = entry;
    }
    std::string written() {
        session_->write_rma_log(directory_.path("rma").c_str());
        return read_file(directory_.path("rma"));
    }

    TemporaryDirectory directory_;
    std::unique_ptr<ZELFLASH> session_ = std::make_unique<ZELFLASH>();
};

}  // namespace

TEST_F(RmaLog, WithoutRowsIsZeroAndTheRestOfThePlaceholder) {
    EXPECT_EQ(written(), "0 \n");
    select_devices = 1;
    EXPECT_EQ(written(), "0 \n");
}

TEST_F(RmaLog, ListsEveryDeviceOfTheTable) {
    add_device(0x3C02, 0x0105, 0);
    add_device(0x12345, 0x12FE, 4);
    add_device(0x0F, 0x345678, 8);
    EXPECT_EQ(written(),
              "8 \n"
              "PID 3c02 EC level: 0001.05: Flash succeeded \n"
              "PID 12345 EC level: 0012.fe: Device EC version greather or equal than firmware file "
              "\n"
              "PID 000f EC level: 0056.78: Firmware file not found \n");
}

TEST_F(RmaLog, ListsSelectedProductIdsAsTyped) {
    flashEntry& entry = add_device(0x3C02, 0x01A5, 0);
    add_device(0x3C7A, 0x0201, 3);
    select("3c02", &entry);
    select("zz", nullptr);
    EXPECT_EQ(written(),
              "5 \n"
              "PID 3c02 EC level: 01.a5: Flash succeeded \n"
              "PID zz EC level: 00.00: Device is not attached to the system \n");
}

TEST_F(RmaLog, KeepsTheOrderOfTheCommandLine) {
    flashEntry& first = add_device(0x3C02, 0x0101, 0);
    flashEntry& second = add_device(0x3C7A, 0x0202, 0);
    select("3C7A", &second);
    select("3C02", &first);
    EXPECT_EQ(written(),
              "0 \n"
              "PID 3C7A EC level: 02.02: Flash succeeded \n"
              "PID 3C02 EC level: 01.01: Flash succeeded \n");
}

TEST_F(RmaLog, HasNoRowsForSelectedSerialNumbers) {
    flashEntry& entry = add_device(0x3C02, 0x0101, 3);
    select_devices = 1;
    NumberOfSerialNoListEntries = 1;
    serial_no_list[0].fe = &entry;
    EXPECT_EQ(written(), "0 \n");
}

TEST_F(RmaLog, StopsBehindADeviceThatMayNotBeUpdated) {
    add_device(0x3C02, 0x0101, 0);
    add_device(0x3C03, 0x0101, 9);
    add_device(0x3C04, 0x0101, 0);
    add_device(0x3C05, 0x0101, 3);
    EXPECT_EQ(written(),
              "9 \n"
              "PID 3c02 EC level: 0001.01: Flash succeeded \n"
              "PID 3c03 EC level: 0001.01:  \n");
}

TEST_F(RmaLog, StopsAmongSelectedDevicesToo) {
    flashEntry& forbidden = add_device(0x3C03, 0x0101, 9);
    select("3C03", &forbidden);
    select("3C04", nullptr);
    EXPECT_EQ(written(), "9 \nPID 3C03 EC level: 01.01:  \n");
}

namespace {

struct Overall {
    int status;
    const char* first_line;
    const char* text;
};

class RmaResult : public RmaLog, public testing::WithParamInterface<Overall> {};

}  // namespace

TEST_P(RmaResult, IsThatOfTheLastRow) {
    add_device(0x3C02, 0x0101, 2);
    add_device(0x3C03, 0x0101, GetParam().status);
    const std::string text = written();
    EXPECT_EQ(text.substr(0, text.find('\n') + 1), GetParam().first_line);
}

TEST_P(RmaResult, StandsBesideTheTextOfTheReturnCode) {
    add_device(0x3C03, 0x0101, GetParam().status);
    EXPECT_EQ(written(), std::string(GetParam().first_line) +
                             "PID 3c03 EC level: 0001.01: " + GetParam().text + " \n");
}

INSTANTIATE_TEST_SUITE_P(
    Each, RmaResult,
    testing::Values(Overall{0, "0 \n", "Flash succeeded"},
                    Overall{1, "1 \n", "Firmware file corrupt"},
                    Overall{2, "2 \n", "Error updating the device"},
                    Overall{3, "3 \n", "Device did not respond"},
                    Overall{4, "4 \n", "Device EC version greather or equal than firmware file"},
                    Overall{5, "5 \n", "Device is not attached to the system"},
                    Overall{6, "6 \n", "Error at device reset"},
                    Overall{7, "0 \n", "Reset succeeded"},
                    Overall{8, "8 \n", "Firmware file not found"}, Overall{9, "9 \n", ""},
                    Overall{10, "0 \n", "EC matched, firmware update forced"},
                    Overall{11, "11\n", "No Firmware update attempted"}, Overall{12, "12\n", ""},
                    Overall{13, "13\n", "Interface not avilable"}, Overall{14, "14\n", ""}),
    [](const auto& given) { return std::to_string(given.param.status); });

TEST_F(RmaLog, CountsAForcedUpdateOrAResetAsSuccess) {
    add_device(0x3C02, 0x0101, 3);
    add_device(0x3C03, 0x0101, 10);
    EXPECT_EQ(written().substr(0, 3), "0 \n");
    add_device(0x3C04, 0x0101, 3);
    add_device(0x3C05, 0x0101, 7);
    EXPECT_EQ(written().substr(0, 3), "0 \n");
}

TEST_F(RmaLog, ReplacesAnEarlierFile) {
    directory_.write("rma", std::string(1000, 'x'));
    EXPECT_EQ(written(), "0 \n");
}

TEST_F(RmaLog, ThatCannotBeMadeIsSilent) {
    OutputCapture capture;
    session_->write_rma_log(directory_.path("none/rma").c_str());
    session_->write_rma_log("");
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.console + output.log, "");
    EXPECT_FALSE(std::filesystem::exists(directory_.path("none")));
}

TEST_F(RmaLog, TakesAProductIdAsText) {
    select("%s%n%x", nullptr);
    EXPECT_EQ(written(), "5 \nPID %s%n%x EC level: 00.00: Device is not attached to the system \n");
}

TEST_F(RmaLog, HoldsAFullTable) {
    for (int i = 0; i < 128; ++i) {
        add_device(0x3C00 + i, 0x0101, 0);
    }
    const std::string text = written();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 129);
    EXPECT_NE(text.find("PID 3c7f EC level: 0001.01: "), std::string::npos);
}
