// Firmware files that change between their listing and their update.
#include "support/failing_new.h"
#include "support/update_test.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace {

/// Files that change between their listing and their update.
class ChangedFile : public Flashing {
  protected:
    ChangedFile() : row(attach(device)) { add_file({.level = 0x0109}); }

    void replace(const FirmwareBytes& content) { directory.write("f0.dat", content); }
    /// Nothing reached the device, and the file counts as one that is not there.
    void expect_not_sent(const std::string& reason) {
        row.flashStatus = NOFLASHATTEMPT;
        const int told = logged("No flash file for PID: 4123 C COMP: 0");
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(row.flashStatus, NOFLASHFILE);
        EXPECT_TRUE(device.commands().empty());
        EXPECT_EQ(log.count("Starting firmware update"), 0);
        EXPECT_GE(logged("File '" + file_name() + "' is not sent: " + reason), 1) << reason;
        EXPECT_EQ(logged("No flash file for PID: 4123 C COMP: 0"), told + 1);
    }
    static constexpr char other_file[] = "it is not the file that was listed";

    FlashPeripheral& device = bus.add(flash_product);
    flashEntry& row;
};

}  // namespace

TEST_F(ChangedFile, OfAnotherProductIsNotSent) {
    replace(FirmwareBytes("41240109").record(0x10, 0, {1}).end());
    expect_not_sent(other_file);
}

TEST_F(ChangedFile, OfAnotherComponentIsNotSent) {
    replace(content_of({.component = 1, .level = 0x0109}));
    expect_not_sent(other_file);
}

TEST_F(ChangedFile, OfAnotherLevelBuildTypeOrControlIsNotSent) {
    replace(content_of({.level = 0x0108}));
    expect_not_sent(other_file);
    // The listed file has no list: build level 0, firmware, increasing.
    const std::vector<std::vector<std::uint8_t>> lists = {
        {0, 9, 1, 0x02, 7}, {0, 9, 1, 0x04, 0}, {0, 9, 1, 0x03, 0}};
    for (const auto& list : lists) {
        replace(FirmwareBytes("41230109").record(0xFF, 2, list).record(0x10, 0, {1}).end());
        expect_not_sent(other_file);
    }
}

TEST_F(ChangedFile, ThatIsEmptyIsNotSent) {
    replace(FirmwareBytes(""));
    expect_not_sent(other_file);
}

TEST_F(ChangedFile, OfEveryDeviceIsTakenAsItIsThen) {
    replace(FirmwareBytes("41230109").record(0x10, 0, {2}).end());
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.count({0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x02}), 1);
}

TEST_F(ChangedFile, IsSentAsItWasBeforeTheErase) {
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            std::filesystem::resize_file(file_name(), 9);
        }
    };
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(device.commands(), (std::vector<Bytes>{wire::erase, record_message, checksum_message,
                                                     wire::reset, wire::stop}));
}

TEST_F(ChangedFile, ThatIsHugeByNowIsNotSent) {
    std::filesystem::resize_file(file_name(), (64U << 20U) + 1);
    expect_not_sent("it is larger than 64 MiB");
}

TEST_F(ChangedFile, IsNotSentWithoutMemory) {
    fail_nothrow_new(true);
    expect_not_sent("there is no memory for a copy of it");
    fail_nothrow_new(false);
}

TEST_F(ChangedFile, KeepsItsMarker) {
    numberOfusbFlashFiles = 0;
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    replace(content_of({.component = 1, .level = 0x0101}));
    expect_not_sent(other_file);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(ChangedFile, MayNameAnyComponentWhenOneIsNamedForAll) {
    comp_update_id = 3;
    add_component(row, 3, 0x0102);
    replace(content_of({.component = 5, .level = 0x0109}));
    EXPECT_EQ(pass(1), 1);
    EXPECT_EQ(device.count(wire::erase), 1);
}

TEST_F(ChangedFile, IsComparedByItsRecordsLevelWhenThatIsAskedFor) {
    use_information_record_ec_level = 1;
    replace(
        FirmwareBytes("41230101").record(0xFF, 2, {0, 9, 1, 0x02, 0}).record(0x10, 0, {1}).end());
    files[0].ec_version = 1;
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.count(wire::erase), 1);
}
