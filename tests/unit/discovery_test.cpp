#include "firmware/firmware_search.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/flash_test.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace {

/// The queries, on a device whose answers the test puts where a reader would.
class Discovery : public FlashTest {
  protected:
    static constexpr int slot = 2;

    Discovery() {
        entry.product_id = 0x4123;
        open_directly(device, slot);
        device.on_command = [this](const Bytes&) {
            std::memset(flash->last_status, 0, sizeof flash->last_status);
            std::memcpy(flash->last_status, status.data(), status.size());
        };
    }
    /// The empty debug lines beside those that end a dump.
    int empty_lines() const {
        return debugged("") - logged("Report written:") - logged("Status report read:") -
               logged("Feature report read:");
    }
    int plain_list(int length, const std::vector<Bytes>& entries) {
        device.data[wire::component_list_query] = list_answer(length, entries);
        return flash->add_components_to_table(&entry, slot);
    }
    int extended_list(int length, const std::vector<Bytes>& entries) {
        device.data[wire::extended_list_query] = list_answer(length, entries);
        return flash->read_extended_component_list(&entry, slot);
    }

    FlashPeripheral& device = bus.add(0x4123);
    flashEntry entry{};
    Bytes status{0x01};
};

}  // namespace

TEST_F(Discovery, TakesTheDeviceInformation) {
    status = {0x09, 0x11, 0x22, 0x33, 0xF0};
    EXPECT_EQ(flash->get_device_info(&entry, slot), 0);
    EXPECT_EQ(entry.dev_type, 0x11);
    EXPECT_EQ(entry.dev_id, 0x22);
    EXPECT_EQ(entry.command_set, 0x33);
    EXPECT_EQ(entry.features, 0xF0);
    EXPECT_NE(log.text().find("Device Information Response:\n"
                              "    Type:        11\n"
                              "    ID:          22\n"
                              "    Command set: 33\n"
                              "    Feature:     f0\n"
                              "                 - Multiple Components\n"
                              "                 - Extended versioning\n"
                              "                 - Systems management reporting\n"
                              "                 - Read all records supported\n"),
              std::string::npos);
    EXPECT_EQ(debugged("Get device information for ProductID 4123"), 1);
}

TEST_F(Discovery, NamesTheFeaturesThatTheDeviceHas) {
    status = {0x08, 0, 0, 0, 0x4F};
    flash->get_device_info(&entry, slot);
    EXPECT_EQ(log.count("                 - "), 1);
    EXPECT_EQ(logged("                 - Extended versioning"), 1);
}

TEST_F(Discovery, TakesNoInformationThatIsNotThere) {
    status = {0x01, 0x11, 0x22, 0x33, 0xF0};
    EXPECT_EQ(flash->get_device_info(&entry, slot), 0);
    EXPECT_EQ(entry.dev_type + entry.features, 0);
    EXPECT_EQ(log.count("Device Information Response"), 0);
    EXPECT_EQ(flash->get_ec_level(&entry, slot), 0);
    EXPECT_EQ(entry.current_ec_level, 0);
}

TEST_F(Discovery, KnowsARejectedQuery) {
    status = {0x8C};
    EXPECT_EQ(flash->get_device_info(&entry, slot), 17);
    EXPECT_EQ(debugged("Get device information command request not supported"), 1);
    EXPECT_EQ(flash->get_ec_level(&entry, slot), 17);
    EXPECT_EQ(debugged("EC Level command request not supported"), 1);
}

TEST_F(Discovery, TakesNothingFromAnEarlierReport) {
    device.on_command = nullptr;
    for (const auto query : {&ZELFLASH::get_device_info, &ZELFLASH::get_ec_level}) {
        std::memset(flash->last_status, 0x0C, sizeof flash->last_status);
        EXPECT_EQ((flash.get()->*query)(&entry, slot), 0);
        EXPECT_EQ(flash->last_status[0], 0);
    }
    EXPECT_EQ(entry.dev_type + entry.features, 0);
    EXPECT_EQ(entry.current_ec_level, 0);
}

TEST_F(Discovery, AnswersStayInTheLog) {
    const auto ask = [this] {
        status = {0x09, 0x11, 0x22, 0x33, 0xF0};
        EXPECT_EQ(flash->get_device_info(&entry, slot), 0);
        status = {0x05, 0x02, 0x0A, 0x01, 0x09, 0x77, 0x66};
        EXPECT_EQ(flash->get_ec_level(&entry, slot), 0);
        device.next_features = {{0, Bytes(8, 1)}};
        EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 1, slot), 0);
        device.next_write_results = {LIBUSB_ERROR_PIPE};
        EXPECT_EQ(flash->read_extended_component_list(&entry, slot), 6);
    };
    EXPECT_EQ(console_of(2, 1, ask), "");
    EXPECT_EQ(logged("    Feature:     f0"), 1);
    EXPECT_EQ(logged("    Previous Build:   66"), 1);
}

TEST_F(Discovery, QueriesPassFailuresOn) {
    device.next_write_results = {LIBUSB_ERROR_PIPE, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_TIMEOUT};
    EXPECT_EQ(flash->get_device_info(&entry, slot), 8);
    EXPECT_EQ(flash->get_ec_level(&entry, slot), 13);
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 1, slot), 8);
    EXPECT_EQ(debugged("Send of configuration command failed, rc=8"), 1);
}

TEST_F(Discovery, TakesTheLevelsLowByteFirst) {
    status = {0x04, 0x02, 0x0A, 0x01, 0x09, 0x77, 0x66};
    EXPECT_EQ(flash->get_ec_level(&entry, slot), 0);
    EXPECT_EQ(entry.current_ec_level, 0x0A02);
    EXPECT_EQ(entry.previous_ec_level, 0x0901);
    EXPECT_EQ(entry.current_build_level + entry.previous_build_level, 0);
    EXPECT_EQ(logged("EC Level:"), 1);
    EXPECT_EQ(logged("    Current Version:  0a.02"), 1);
    EXPECT_EQ(logged("    Previous Version: 09.01"), 1);
    EXPECT_EQ(log.count("Build:"), 0);
}

TEST_F(Discovery, TakesBuildLevelsWithExtendedVersioning) {
    entry.features = 0x40;
    status = {0x04, 0xFF, 0xFE, 0, 0, 0x77, 0xF6};
    EXPECT_EQ(flash->get_ec_level(&entry, slot), 0);
    EXPECT_EQ(entry.current_ec_level, 0xFEFF);
    EXPECT_EQ(entry.current_build_level, 0x77);
    EXPECT_EQ(entry.previous_build_level, 0xF6);
    EXPECT_EQ(logged("    Current Build:    77"), 1);
    EXPECT_EQ(logged("    Previous Build:   f6"), 1);
}

TEST_F(Discovery, TakesAPlainList) {
    EXPECT_EQ(plain_list(24, {{0, 0x02, 0x01, 0x02}, {1, 0x05, 0x04, 0x05}, {3, 7, 6, 0x0D}}), 0);
    EXPECT_EQ(entry.component_count, 3);
    EXPECT_EQ(entry.component[0].ec_level, 0x0102);
    EXPECT_EQ(entry.component[0].comp_type, 1);
    EXPECT_EQ(entry.component[0].version_method, 0);
    EXPECT_EQ(entry.component[1].comp_id, 1);
    EXPECT_EQ(entry.component[1].comp_type, 2);
    EXPECT_EQ(entry.component[1].version_method, 1);
    EXPECT_EQ(entry.component[3].comp_id, 3);
    EXPECT_EQ(entry.component[3].ec_level, 0x0607);
    // Only two bits of the type.
    EXPECT_EQ(entry.component[3].comp_type, 2);
    EXPECT_EQ(entry.component[3].build_level, 0);
    EXPECT_EQ(entry.component[2].comp_id, 0);
    EXPECT_EQ(empty_lines(), 1);
    EXPECT_EQ(debugged("Reading data, rc=0, buffer[]=01.00.18.00 (status[0]=00 "
                       "last_status[0]=01)"),
              1);
}

TEST_F(Discovery, SwapsThePlainListsLevelsWhenAsked) {
    sdv_dawu_hw = 1;
    EXPECT_EQ(plain_list(4, {{1, 0x02, 0x01, 0}}), 0);
    EXPECT_EQ(entry.component[1].ec_level, 0x0201);
    sdv_dawu_hw = 0;
    EXPECT_EQ(plain_list(4, {{1, 0x02, 0x01, 0}}), 0);
    EXPECT_EQ(entry.component[1].ec_level, 0x0102);
    sdv_dawu_hw = 1;
    EXPECT_EQ(extended_list(5, {{1, 0x02, 0x01, 0, 0}}), 0);
    EXPECT_EQ(entry.component[1].ec_level, 0x0102);
}

TEST_F(Discovery, RefusesAListWhoseLengthDoesNotFit) {
    EXPECT_EQ(plain_list(10, {{1, 2, 1, 0}, {2, 2, 1, 0}}), 6);
    EXPECT_EQ(debugged("Returned length 10 not mod 4; components not available"), 1);
    EXPECT_EQ(plain_list(255, {{1, 2, 1, 0}}), 6);
    EXPECT_EQ(extended_list(14, {{1, 2, 1, 0, 0}}), 6);
    EXPECT_EQ(debugged("Returned length 14 not mod 5; components not available"), 1);
    EXPECT_EQ(entry.component_count, 0);
    EXPECT_EQ(entry.component[1].comp_id, 0);
}

TEST_F(Discovery, TakesAnEmptyListAsAList) {
    EXPECT_EQ(plain_list(0, {{1, 2, 1, 0}}), 0);
    EXPECT_EQ(extended_list(0, {{1, 2, 1, 0, 0}}), 0);
    EXPECT_EQ(entry.component_count, 0);
    EXPECT_EQ(empty_lines(), 0);
}

TEST_F(Discovery, TakesTwentyEntriesAtMost) {
    EXPECT_EQ(plain_list(160, std::vector<Bytes>(40, {5, 2, 1, 0})), 0);
    EXPECT_EQ(entry.component_count, 20);
    entry = {};
    EXPECT_EQ(plain_list(252, std::vector<Bytes>(63, {5, 2, 1, 0})), 0);
    EXPECT_EQ(entry.component_count, 20);
    entry = {};
    EXPECT_EQ(extended_list(255, std::vector<Bytes>(51, {5, 2, 1, 0, 9})), 0);
    EXPECT_EQ(entry.component_count, 20);
}

TEST_F(Discovery, IgnoresComponentNumbersThatHaveNoRow) {
    EXPECT_EQ(plain_list(16, {{20, 2, 1, 0}, {255, 2, 1, 0}, {19, 2, 1, 0}, {128, 1, 1, 1}}), 0);
    EXPECT_EQ(entry.component_count, 1);
    EXPECT_EQ(entry.component[19].comp_id, 19);
    entry = {};
    EXPECT_EQ(extended_list(15, {{20, 2, 1, 0, 9}, {200, 2, 1, 0, 9}, {7, 2, 1, 0, 9}}), 0);
    EXPECT_EQ(entry.component_count, 1);
    EXPECT_EQ(entry.component[7].build_level, 9);
    EXPECT_EQ(debugged("Component 20 is above 19, ignored"), 2);
    EXPECT_EQ(debugged("Component 200 is above 19, ignored"), 1);
}

TEST_F(Discovery, EndsAListAtAnEmptyEntry) {
    EXPECT_EQ(plain_list(12, {{1, 2, 1, 0}, {0, 0, 0, 0}, {2, 2, 1, 0}}), 0);
    EXPECT_EQ(entry.component_count, 1);
    entry = {};
    // The build level does not make an entry.
    EXPECT_EQ(extended_list(15, {{1, 2, 1, 0, 0}, {0, 0, 0, 0, 9}, {2, 2, 1, 0, 0}}), 0);
    EXPECT_EQ(entry.component_count, 1);
    EXPECT_EQ(entry.component[2].comp_id, 0);
}

TEST_F(Discovery, AnUnknownRevisionEndsAPlainList) {
    EXPECT_EQ(plain_list(12, {{1, 2, 1, 0}, {2, 0xFF, 1, 0}, {3, 2, 1, 0}}), 6);
    EXPECT_EQ(logged("Revsion is 0xff, component list not correct"), 1);
    EXPECT_EQ(entry.component_count, 1);
    EXPECT_EQ(entry.component[2].comp_id, 0);
}

TEST_F(Discovery, AnUnknownRevisionIsTakenFromAnExtendedList) {
    EXPECT_EQ(extended_list(10, {{1, 0xFF, 1, 0, 0}, {2, 2, 1, 0, 0}}), 0);
    EXPECT_EQ(logged("Revision is 0xff, component list not correct"), 1);
    EXPECT_EQ(entry.component_count, 2);
    EXPECT_EQ(entry.component[1].ec_level, 0x01FF);
}

TEST_F(Discovery, TakesThreeBitsOfTypeFromAnExtendedList) {
    EXPECT_EQ(extended_list(5, {{1, 0xFE, 0xFD, 0x0D, 0xFC}}), 0);
    EXPECT_EQ(entry.component[1].comp_type, 6);
    EXPECT_EQ(entry.component[1].version_method, 1);
    EXPECT_EQ(entry.component[1].ec_level, 0xFDFE);
    EXPECT_EQ(entry.component[1].build_level, 0xFC);
}

TEST_F(Discovery, ReadsNothingBehindAShortAnswer) {
    device.data[wire::component_list_query] = {0x01, 0x00, 0x08};
    EXPECT_EQ(flash->add_components_to_table(&entry, slot), 0);
    EXPECT_EQ(entry.component_count, 0);
}

TEST_F(Discovery, AnExtendedListIsFetchedWhateverTheStatusFlags) {
    status = {0x00};
    device.other_answer = {{0x00}};
    EXPECT_EQ(extended_list(5, {{1, 2, 1, 0, 0}}), 0);
    EXPECT_EQ(entry.component_count, 1);
}

TEST_F(Discovery, ARefusedExtendedListIsNone) {
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(extended_list(5, {{1, 2, 1, 0, 0}}), 6);
    EXPECT_EQ(logged("Send of read extended configuration command failed, rc=8"), 1);
}

TEST_F(Discovery, TheCodeOfAFailedFetchIsPassedOn) {
    EXPECT_EQ(flash->read_extended_component_list(&entry, slot), 12);
    EXPECT_EQ(debugged("Reading data, rc=12, buffer[]=00.00.00.00"), 1);
    EXPECT_EQ(flash->add_components_to_table(&entry, slot), 12);
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 0, slot), 12);
    EXPECT_EQ(entry.component_count, 0);
}

TEST_F(Discovery, APlainListNeedsACompletedCommand) {
    status = {0x00};
    EXPECT_EQ(plain_list(4, {{1, 2, 1, 0}}), 6);
    EXPECT_EQ(logged("Send of configuration command failed, rc=0"), 1);
    EXPECT_EQ(device.feature_requests(), 0);
    status = {0x80};
    EXPECT_EQ(plain_list(4, {{1, 2, 1, 0}}), 6);
    status = {0x81};
    EXPECT_EQ(plain_list(4, {{1, 2, 1, 0}}), 6);
    EXPECT_EQ(debugged("configuration version request command not supported, rc=0, status=80"), 1);
    EXPECT_EQ(debugged("configuration version request command not supported, rc=0, status=81"), 1);
    status = {0x01};
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(plain_list(4, {{1, 2, 1, 0}}), 6);
    EXPECT_EQ(logged("Send of configuration command failed, rc=8"), 1);
    // An earlier reject counts for the cause that is told.
    device.on_command = nullptr;
    flash->last_status[0] = static_cast<char>(0x80);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(plain_list(4, {{1, 2, 1, 0}}), 6);
    EXPECT_EQ(debugged("configuration version request command not supported, rc=8, status=80"), 1);
}

TEST_F(Discovery, FailedListsAreToldWhenVerbose) {
    status = {0x00};
    const auto without_list = [this] { plain_list(4, {{1, 2, 1, 0}}); };
    EXPECT_EQ(console_of(1, 0, without_list), "");
    EXPECT_EQ(console_of(2, 1, without_list), "Send of configuration command failed, rc=0\n");
    status = {0x01};
    const auto with_unknown_revision = [this] { plain_list(4, {{1, 0xFF, 1, 0}}); };
    EXPECT_EQ(console_of(1, 0, with_unknown_revision), "");
    EXPECT_EQ(console_of(2, 1, with_unknown_revision),
              "Revsion is 0xff, component list not correct\n");
    EXPECT_EQ(console_of(2, 1, [this] { extended_list(5, {{1, 0xFF, 1, 0, 0}}); }), "");
}

TEST_F(Discovery, TakesTheVersionOfOneComponent) {
    device.data[wire::component_1_version_query] = {1, 0, 0, 0, 0, 0, 0x34, 0x92};
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 1, slot), 0);
    EXPECT_EQ(entry.component[1].comp_id, 1);
    EXPECT_EQ(entry.component[1].ec_level, 0x9234);
    EXPECT_EQ(entry.component[1].comp_type, 2);
    EXPECT_EQ(logged("component 1 version=9234"), 1);
    EXPECT_EQ(debugged("Reading data, rc=0, buffer[]=01.00.00.00.00.00.34.92"), 1);
    device.next_features = {{0, {1, 0, 0, 0, 0, 0, 2, 1}}};
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 4, 1, slot), 0);
    EXPECT_EQ(entry.component[4].comp_type, 1);
    EXPECT_EQ(entry.component[4].ec_level, 0x0102);
}

TEST_F(Discovery, StoresAVersionOnlyWhenAskedAndWhereThereIsARow) {
    device.other_answer = {{0x01}};
    device.next_features = {{0, Bytes(8, 1)}, {0, Bytes(8, 1)}, {0, Bytes(8, 1)}};
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 0, slot), 0);
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 20, 1, slot), 0);
    EXPECT_EQ(flash->add_component_x_version_info(&entry, -1, 1, slot), 0);
    for (const component_entry& component : entry.component) {
        EXPECT_EQ(component.ec_level, 0);
    }
}

TEST_F(Discovery, AVersionThatDoesNotComeCountsAsSuccess) {
    status = {0x00};
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 1, slot), 0);
    EXPECT_EQ(entry.component[1].comp_id, 0);
    EXPECT_EQ(debugged("Send of configuration command failed, rc=0"), 1);
}

TEST_F(Discovery, TheProbeOnlyWrites) {
    flash->hiddev->ProductID = 0x4123;
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    device.other_answer = {};
    EXPECT_EQ(flash->check_device_connection(slot), 0);
    EXPECT_EQ(flash->check_device_connection(slot), 13);
    EXPECT_EQ(debugged("Get device information for ProductID 4123"), 2);
    EXPECT_EQ(debugged("Device information request results for ProductID 4123, rc=13"), 1);
}

namespace {

/// Whole devices, with a reader.
class Processing : public FlashTest {
  protected:
    // The program's own 100 ms are short on a busy machine.
    Processing() { information_timeout = 3000; }

    int process(FlashPeripheral& device) { return process(device, device.path()); }
    int process(FlashPeripheral& device, const std::string& path) {
        flash->hiddev = std::make_unique<HIDDEVICE2>(
            device.usb().descriptor.idVendor, device.usb().descriptor.idProduct, path.c_str());
        return flash->process_device(path.c_str());
    }
    void expect_unchanged_table() {
        EXPECT_EQ(flash->numberOfFlashEntries, 0);
        EXPECT_EQ(flash->hiddev, nullptr);
        EXPECT_EQ(flash->CurrentIndex, 1);
        EXPECT_EQ(flash->ThreadTable[0].stopped, 1);
        EXPECT_EQ(flash->ThreadTable[0].device_closed, 1);
        EXPECT_EQ(usb.live_handles, 0);
    }
};

}  // namespace

TEST_F(Processing, ADeviceTellsItsComponents) {
    FlashPeripheral& device = bus.add(0x4123);
    device.answers[wire::device_information_query] = {{0x09, 1, 2, 3, 0x80}};
    device.answers[wire::ec_level_query] = {{0x05, 0x02, 0x01, 0x01, 0x01}};
    device.data[wire::component_list_query] =
        list_answer(8, {{0, 0x02, 0x01, 0x02}, {1, 0x05, 0x04, 0x04}});
    EXPECT_EQ(process(device), 1);
    const flashEntry& row = flash->fe[0];
    EXPECT_EQ(flash->numberOfFlashEntries, 1);
    EXPECT_EQ(row.DevicePath, device.path());
    EXPECT_STREQ(row.serialNumber, "SN-0042");
    EXPECT_EQ(row.ec_level, 0x0123);
    EXPECT_EQ(row.features, 0x80);
    EXPECT_EQ(row.current_ec_level, 0x0102);
    EXPECT_EQ(row.component_count, 2);
    EXPECT_EQ(row.component[1].ec_level, 0x0405);
    EXPECT_EQ(logged("Processing 7a01:4123:a000-1"), 1);
    EXPECT_EQ(device.count(wire::extended_list_query), 0);
    EXPECT_EQ(device.count(wire::component_1_version_query), 0);
    EXPECT_EQ(global_reading_information, 0);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(flash->CurrentIndex, 1);
    EXPECT_TRUE(threads.all_ended_within(10000));
    EXPECT_EQ(threads.unreclaimed(), 0);
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Processing, AnExtendedListIsEnough) {
    FlashPeripheral& device = bus.add(0x4123);
    device.answers[wire::device_information_query] = {{0x09, 1, 2, 3, 0xC0}};
    device.data[wire::extended_list_query] = list_answer(5, {{0, 0x02, 0x01, 0x02, 0x07}});
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(flash->fe[0].component_count, 1);
    EXPECT_EQ(flash->fe[0].component[0].build_level, 7);
    EXPECT_EQ(logged("Extended version information available"), 1);
    EXPECT_EQ(device.count(wire::component_list_query), 0);
    EXPECT_EQ(global_reading_information, 0);
}

TEST_F(Processing, WithoutListsTheMainComponentAndTheFirstAreAskedFor) {
    FlashPeripheral& device = bus.add(0x4123);
    device.answers[wire::device_information_query] = {{0x09, 1, 2, 3, 0x40}};
    device.answers[wire::ec_level_query] = {{0x05, 0x02, 0x01}};
    device.data[wire::extended_list_query] = list_answer(7, {});
    device.data[wire::component_list_query] = list_answer(10, {});
    device.data[wire::component_1_version_query] = {1, 0, 0, 0, 0, 0, 0x04, 0x03};
    EXPECT_EQ(process(device), 1);
    const flashEntry& row = flash->fe[0];
    EXPECT_EQ(row.component_count, 2);
    EXPECT_EQ(row.component[0].ec_level, 0x0102);
    EXPECT_EQ(row.component[0].comp_type, 1);
    EXPECT_EQ(row.component[1].ec_level, 0x0304);
    EXPECT_EQ(row.component[1].comp_type, 2);
    EXPECT_EQ(debugged("Extended and component information not available (Current EC=0102 HID "
                       "Version=0123, index=0)"),
              1);
    EXPECT_EQ(debugged("Two components on device (thread_index=0)"), 1);
    EXPECT_EQ(debugged("Device: 4123 component: 0, Version: 0102, current_ec: 0102 component "
                       "count: 2"),
              1);
    EXPECT_EQ(logged("    Component: ID: 00  Version: 01.02     Type: Firmware"), 1);
    EXPECT_EQ(logged("    Component: ID: 01  Version: 03.04     Type: Configuration"), 1);
    EXPECT_EQ(log.count("using interface version information"), 0);
}

TEST_F(Processing, ASilentDeviceIsListedWithItsDescriptorsVersion) {
    FlashPeripheral& device = bus.add(0x4123);
    device.other_answer = {{0x81}};
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(flash->fe[0].component_count, 1);
    EXPECT_EQ(flash->fe[0].component[0].ec_level, 0x0123);
    EXPECT_EQ(flash->fe[0].current_ec_level, 0x0123);
    EXPECT_EQ(debugged("EC not available from device response, using interface version "
                       "information (index=0)"),
              1);
    // Nothing is tried twice while information is gathered.
    EXPECT_EQ(device.count(wire::component_list_query), 1);
    EXPECT_EQ(sleeps.count(500), 0);
}

TEST_F(Processing, AVersionQueryThatGivesNothingCountsAsASecondComponent) {
    FlashPeripheral& device = bus.add(0x4123);
    device.answers[wire::ec_level_query] = {{0x05, 0x02, 0x01}};
    device.answers[wire::component_list_query] = {{0x00}};
    device.answers[wire::component_1_version_query] = {{0x00}};
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(device.feature_requests(), 0);
    EXPECT_EQ(flash->fe[0].component_count, 2);
    EXPECT_EQ(flash->fe[0].component[1].comp_id, 0);
    EXPECT_EQ(debugged("Two components on device (thread_index=0)"), 1);
    // The components end with an empty line.
    EXPECT_EQ(log.count("    Component: ID: 00  Version: 01.02     Type: Firmware\n\n"), 1);
    EXPECT_EQ(log.count("    Component: ID: 01"), 0);
}

TEST_F(Processing, AListWithAnUnknownRevisionIsReplacedByTheMainComponent) {
    FlashPeripheral& device = bus.add(0x4123);
    device.answers[wire::ec_level_query] = {{0x05, 0x02, 0x01}};
    device.answers[wire::component_1_version_query] = {{0x80}};
    device.data[wire::component_list_query] =
        list_answer(12, {{0, 0x09, 0x09, 0x02}, {3, 0x05, 0x04, 0x02}, {4, 0xFF, 0x04, 0x02}});
    EXPECT_EQ(process(device), 1);
    const flashEntry& row = flash->fe[0];
    EXPECT_EQ(device.count(wire::component_1_version_query), 1);
    EXPECT_EQ(row.component_count, 1);
    EXPECT_EQ(row.component[0].ec_level, 0x0102);
    // What stood before the revision stays.
    EXPECT_EQ(row.component[3].comp_id, 3);
    EXPECT_EQ(row.component[4].comp_id, 0);
    EXPECT_EQ(logged("    Component: ID: 03  Version: 04.05     Type: Firmware"), 1);
}

TEST_F(Processing, AListThatCantBeFetchedLeavesARowWithoutComponents) {
    FlashPeripheral& device = bus.add(0x4123);
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(flash->fe[0].component_count, 0);
    EXPECT_EQ(device.feature_requests(), 2);
    EXPECT_EQ(device.count(wire::component_1_version_query), 0);
    device.answers[wire::device_information_query] = {{0x09, 1, 2, 3, 0x40}};
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(flash->fe[1].component_count, 0);
    EXPECT_EQ(device.count(wire::component_list_query), 1);
}

TEST_F(Processing, ADeviceThatCantBeSetUpIsLeftOut) {
    FlashPeripheral& device = bus.add(0x4123);
    std::string path = device.path();
    path.replace(path.find("usage_a000"), 10, "usage_a010");
    EXPECT_EQ(process(device, path), 0);
    EXPECT_EQ(debugged("Could not setup device for reading (pid=4123, index=0)"), 1);
    EXPECT_EQ(threads.created(), 0);
    expect_unchanged_table();
}

TEST_F(Processing, ADeviceThatDoesNotTakeTheProbeIsLeftOut) {
    FlashPeripheral& device = bus.add(0x4123);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(process(device), 0);
    EXPECT_EQ(debugged("Device not responding to commands... HID information only (Device='" +
                       device.path() + "', index=0)"),
              1);
    EXPECT_EQ(threads.created(), 0);
    expect_unchanged_table();
}

TEST_F(Processing, ADeviceWithoutAReaderIsLeftOut) {
    FlashPeripheral& device = bus.add(0x4123);
    background_read = 0;
    EXPECT_EQ(process(device), 0);
    EXPECT_EQ(debugged("Background message reading thread starting for '" + device.path() +
                       "' timeout=2000, index=0"),
              1);
    EXPECT_EQ(debugged("Background message reading thread starting for '" + device.path() +
                       " could not start, rc=5, index=0"),
              1);
    expect_unchanged_table();
}

TEST_F(Processing, ADeviceWhoseThreadCantBeCreatedIsLeftOut) {
    FlashPeripheral& device = bus.add(0x4123);
    threads.fail_with(EAGAIN);
    EXPECT_EQ(process(device), 0);
    EXPECT_EQ(log.count(" could not start, rc=11, index=0\n"), 1);
    expect_unchanged_table();
}

TEST_F(Processing, DevicesAreDescribedInTheLogAlone) {
    FlashPeripheral& device = bus.add(0x4123);
    device.answers[wire::device_information_query] = {{0x09, 1, 2, 3, 0x40}};
    device.data[wire::extended_list_query] = list_answer(7, {});
    device.data[wire::component_list_query] = list_answer(10, {});
    EXPECT_EQ(console_of(2, 1, [&] { EXPECT_EQ(process(device), 1); }), "");
    EXPECT_EQ(logged("Extended version information available"), 1);
    EXPECT_EQ(log.count("    Component: ID: 00"), 1);
}

TEST_F(Processing, NothingIsSaidOfDevicesThatAreLeftOut) {
    FlashPeripheral& device = bus.add(0x4123);
    std::string other_interface = device.path();
    other_interface.replace(other_interface.find("usage_a000"), 10, "usage_a010");
    EXPECT_EQ(console_of(1, 0, [&] { EXPECT_EQ(process(device, other_interface), 0); }), "");
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(console_of(2, 1, [&] { EXPECT_EQ(process(device), 0); }), "");
    background_read = 0;
    EXPECT_EQ(console_of(2, 1, [&] { EXPECT_EQ(process(device), 0); }), "");
}

TEST_F(Processing, ADeviceWithoutAFileIsPassedOver) {
    FlashPeripheral& device = bus.add(0x4123);
    device_firmware_match_only = 1;
    EXPECT_EQ(process(device), 0);
    EXPECT_EQ(logged("Processing 7a01:4123:a000-1"), 1);
    EXPECT_EQ(flash->numberOfFlashEntries, 0);
    EXPECT_EQ(flash->CurrentIndex, 0);
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Processing, AnExcludedDeviceGetsNoCommand) {
    for (const int product : ExclusionList) {
        FlashPeripheral& device = bus.add(static_cast<uint16_t>(product));
        flash->numberOfFlashEntries = 0;
        flash->reset_device_list();
        flash->ThreadTable[0] = {.stopped = 0,
                                 .device_in_use = 1,
                                 .device_closed = 0,
                                 .read_hid_in_progress = 0,
                                 .hThread = 0};
        EXPECT_EQ(process(device), 1);
        EXPECT_EQ(flash->numberOfFlashEntries, 1);
        EXPECT_TRUE(device.commands().empty());
        EXPECT_EQ(flash->fe[0].component_count, 1);
        EXPECT_EQ(flash->fe[0].component[0].ec_level, 0x0123);
        EXPECT_EQ(flash->fe[0].current_ec_level, 0x0123);
        EXPECT_EQ(flash->fe[0].component[0].comp_type, 1);
        // Slot 0 is closed; none is taken.
        EXPECT_EQ(flash->ThreadTable[0].stopped, 1);
        EXPECT_EQ(flash->ThreadTable[0].device_closed, 1);
        EXPECT_EQ(flash->ThreadTable[0].device_in_use, 0);
        EXPECT_EQ(flash->CurrentIndex, 0);
        EXPECT_EQ(flash->hiddev, nullptr);
    }
    EXPECT_EQ(debugged("EC not available from device response, using interface version "
                       "information"),
              5);
}

TEST_F(Processing, AnExcludedDeviceKeepsALevelThatIsKnown) {
    FlashPeripheral& device = bus.add(0x3C77);
    flash->fe[0].current_ec_level = 0x0506;
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(flash->fe[0].component[0].ec_level, 0x0506);
    EXPECT_EQ(log.count("EC not available"), 0);
}

TEST_F(Processing, AFullTableTakesNoMore) {
    FlashPeripheral& device = bus.add(0x3C77);
    flash->numberOfFlashEntries = max_flash_entries;
    EXPECT_EQ(process(device), 0);
    EXPECT_EQ(flash->numberOfFlashEntries, max_flash_entries);
    EXPECT_EQ(
        debugged("The device table holds 128 devices already, '" + device.path() + "' is left out"),
        1);
}

TEST_F(Processing, SlotsStayInTheirTable) {
    FlashPeripheral& device = bus.add(0x4123);
    flash->CurrentIndex = max_reader_slots + 5;
    EXPECT_EQ(process(device), 1);
    EXPECT_EQ(log.count("starting read_hid_messages (index=2999)"), 1);
}
