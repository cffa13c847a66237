#include "firmware/firmware_search.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/flash_test.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

constexpr unsigned short own_vendors[] = {0x7A01, 0x7A02, 0x7A03};

class Session : public FlashTest {};

}  // namespace

TEST_F(Session, StartsWithEverySlotStoppedAndNothingFound) {
    EXPECT_EQ(flash->sleep_time, 15);
    EXPECT_EQ(flash->numberOfFlashEntries, 0);
    EXPECT_EQ(flash->ThreadIndex, 0);
    EXPECT_EQ(flash->CurrentIndex, 0);
    EXPECT_EQ(flash->hiddev, nullptr);
    for (const thread_table& slot : flash->ThreadTable) {
        ASSERT_EQ(slot.stopped, 1);
        ASSERT_EQ(slot.device_in_use, 0);
        ASSERT_EQ(slot.device_closed, 1);
        ASSERT_EQ(slot.read_hid_in_progress, 0);
        ASSERT_EQ(slot.hThread, pthread_t{0});
    }
}

TEST_F(Session, LogsItsStartWithSeparatorAndTime) {
    EXPECT_EQ(szEquals, std::string(50, '='));
    EXPECT_EQ(logged(szEquals), 1);
    EXPECT_EQ(log.count("USB Flash Started at "), 1);
    // The time text ends its line, and the message another one.
    EXPECT_EQ(log.text().substr(log.text().size() - 2), "\n\n");
}

TEST_F(Session, StartAndEndStayOffTheConsole) {
    EXPECT_EQ(console_of(1, 0, [] { ZELFLASH().finish(); }), "");
}

TEST_F(Session, LogsItsEndOnceWithTheSeparatorLast) {
    EXPECT_TRUE(flash->finish());
    EXPECT_TRUE(flash->finish());
    flash.reset();
    EXPECT_EQ(log.count("USB Flash ended at "), 1);
    EXPECT_EQ(logged(szEquals), 2);
    const std::string text = log.text();
    EXPECT_EQ(text.substr(text.size() - 51), std::string(szEquals) + "\n");
    EXPECT_EQ(text.find("\n\n", text.find("USB Flash ended at ")), std::string::npos);
}

TEST_F(Session, TakesTheTraceWithIt) {
    trace = std::make_unique<Trace>("", 0, 0);
    flash.reset();
    EXPECT_EQ(trace, nullptr);
}

TEST_F(Session, DescribesEveryReturnCode) {
    const char* const texts[] = {"Flash succeeded",
                                 "Firmware file corrupt",
                                 "Error updating the device",
                                 "Device did not respond",
                                 "Device EC version greather or equal than firmware file",
                                 "Device is not attached to the system",
                                 "Error at device reset",
                                 "Reset succeeded",
                                 "Firmware file not found",
                                 "",
                                 "EC matched, firmware update forced",
                                 "No Firmware update attempted",
                                 "",
                                 "Interface not avilable"};
    for (int code = 0; code < 14; ++code) {
        EXPECT_STREQ(flash_code_description[code], texts[code]) << code;
        EXPECT_STREQ(flash_code_text(code), texts[code]) << code;
    }
}

TEST_F(Session, DescribesNoCodeOutsideTheTable) {
    EXPECT_STREQ(flash_code_text(FILECORRUPTED), "");
    EXPECT_STREQ(flash_code_text(-1), "");
    EXPECT_STREQ(flash_code_text(query_not_supported), "");
}

TEST_F(Session, ForgetsAllRowsButKeepsTheSlots) {
    std::memset(&flash->fe[127], 0x55, sizeof flash->fe[127]);
    flash->fe[0].flashStatus = FLASHFORCED;
    flash->numberOfFlashEntries = 128;
    flash->CurrentIndex = 7;
    flash->ThreadTable[6].device_closed = 0;
    flash->ThreadTable[6].stopped = 0;

    flash->reset_device_list();

    EXPECT_EQ(flash->numberOfFlashEntries, 0);
    EXPECT_EQ(flash->fe[0].flashStatus, 0);
    const flashEntry& last = flash->fe[127];
    EXPECT_EQ(last.DevicePath[0], '\0');
    EXPECT_EQ(last.serialNumber[0], '\0');
    EXPECT_EQ(last.product_id, 0);
    EXPECT_EQ(last.ec_level, 0);
    EXPECT_EQ(last.dev_type + last.dev_id + last.command_set + last.features, 0);
    EXPECT_EQ(last.current_ec_level + last.previous_ec_level, 0);
    EXPECT_EQ(last.current_build_level + last.previous_build_level, 0);
    EXPECT_EQ(last.resetDevice, 0);
    EXPECT_EQ(last.flashStatus, 0);
    EXPECT_EQ(last.component_count, 0);
    for (const component_entry& component : last.component) {
        EXPECT_EQ(component.comp_id + component.ec_level + component.build_level +
                      component.comp_type + component.version_method,
                  0);
    }
    EXPECT_EQ(flash->CurrentIndex, 7);
    EXPECT_EQ(flash->ThreadTable[6].device_closed, 0);
    EXPECT_EQ(flash->ThreadTable[6].stopped, 0);
}

TEST_F(Session, ForgetsWhichRowsTheFiltersHadFound) {
    device_list[3].fe = &flash->fe[0];
    serial_no_list[255].fe = &flash->fe[1];
    flash->reset_device_list();
    EXPECT_EQ(device_list[3].fe, nullptr);
    EXPECT_EQ(serial_no_list[255].fe, nullptr);
}

TEST_F(Session, MakesARowOfADevice) {
    flashEntry& row = flash->fe[5];
    row.features = 0xC0;
    row.current_ec_level = 0x0203;
    row.component_count = 9;
    row.component[19].comp_id = 19;

    flash->initialize_device_data(5, "//?/hid#vid_7a01", "SN-1", 0x4123, 0x0105);

    EXPECT_STREQ(row.DevicePath, "//?/hid#vid_7a01");
    EXPECT_STREQ(row.serialNumber, "SN-1");
    EXPECT_EQ(row.product_id, 0x4123);
    EXPECT_EQ(row.ec_level, 0x0105);
    EXPECT_EQ(row.flashStatus, NOFLASHATTEMPT);
    EXPECT_EQ(row.component_count, 0);
    EXPECT_EQ(row.component[19].comp_id, 0);
    // What a query found is not this call's business.
    EXPECT_EQ(row.features, 0xC0);
    EXPECT_EQ(row.current_ec_level, 0x0203);
}

TEST_F(Session, CutsPathAndSerialNumberToTheirFields) {
    const std::string path(400, 'p');
    const std::string serial(400, 's');
    flash->initialize_device_data(0, path.c_str(), serial.c_str(), 0x4123, 0);
    EXPECT_EQ(flash->fe[0].DevicePath, std::string(255, 'p'));
    EXPECT_EQ(flash->fe[0].serialNumber, std::string(49, 's'));
    EXPECT_EQ(flash->fe[0].product_id, 0x4123);
}

TEST_F(Session, MakesNoRowOutsideTheTable) {
    flash->initialize_device_data(-1, "p", "s", 0x4123, 0);
    flash->initialize_device_data(max_flash_entries, "p", "s", 0x4123, 0);
    for (const flashEntry& entry : flash->fe) {
        ASSERT_EQ(entry.product_id, 0);
    }
    EXPECT_EQ(flash->installedPath[0], '\0');
}

TEST_F(Session, ForgetsAWaitingStatus) {
    flash->status_ready = 1;
    flash->reset_ready_status();
    EXPECT_EQ(flash->status_ready, 0);
}

TEST_F(Session, SupportsTheFlashInterfacesOfThreeVendors) {
    for (const unsigned short vendor : own_vendors) {
        EXPECT_EQ(flash->IsFlashDeviceSupported(vendor, 0xA000), 1);
    }
    EXPECT_EQ(flash->IsFlashDeviceSupported(0x7A00, 0xA000), 0);
    EXPECT_EQ(flash->IsFlashDeviceSupported(0x7A04, 0xA000), 0);
}

TEST_F(Session, SupportsNoOtherInterfaceWhateverTheVendor) {
    oem_vendor = 1;
    for (const unsigned short vendor : own_vendors) {
        EXPECT_EQ(flash->IsFlashDeviceSupported(vendor, 0xA001), 0);
        EXPECT_EQ(flash->IsFlashDeviceSupported(vendor, 0), 0);
    }
    EXPECT_EQ(flash->IsFlashDeviceSupported(0x7AFF, 0xA001), 0);
}

TEST_F(Session, SupportsOtherVendorsOnlyWhenAsked) {
    oem_vendor = 0;
    EXPECT_EQ(flash->IsFlashDeviceSupported(0x7AFF, 0xA000), 0);
    oem_vendor = 1;
    EXPECT_EQ(flash->IsFlashDeviceSupported(0x7AFF, 0xA000), 1);
    oem_vendor = 2;
    EXPECT_EQ(flash->IsFlashDeviceSupported(0x7AFF, 0xA000), 0);
}

TEST_F(Session, AsksForAFirmwareFileOnlyWhenFilesDecide) {
    device_firmware_match_only = 0;
    EXPECT_EQ(flash->is_there_a_firmware_file_for_device(0x4123), 1);
    device_firmware_match_only = 1;
    EXPECT_EQ(flash->is_there_a_firmware_file_for_device(0x4123), 0);
    // The last row of the table counts, whatever the number of files is.
    numberOfusbFlashFiles = 0;
    files[255].product_id = 0x4123;
    EXPECT_EQ(flash->is_there_a_firmware_file_for_device(0x4123), 1);
    EXPECT_EQ(flash->is_there_a_firmware_file_for_device(0x4124), 0);
}

TEST_F(Session, CountsNoDevice) {
    EXPECT_EQ(flash->build_flash_table(), 0);
    EXPECT_EQ(debugged("Finding available Flash Devices"), 1);
    EXPECT_EQ(debugged("Found 0 device with update interface"), 1);
}

TEST_F(Session, CountsOneDevice) {
    bus.add(silent_product);
    EXPECT_EQ(flash->build_flash_table(), 1);
    EXPECT_EQ(debugged("Found 1 device with update interface"), 1);
}

TEST_F(Session, CountsSeveralDevicesAndKeepsTheBusOrder) {
    bus.add(silent_product, 0x7A01, "A");
    bus.add(silent_product + 1, 0x7A02, "B");
    bus.add(silent_product + 2, 0x7AFF, "C");
    EXPECT_EQ(flash->build_flash_table(), 2);
    EXPECT_EQ(debugged("Found 2 devices with update interface"), 1);
    EXPECT_EQ(flash->fe[0].product_id, silent_product);
    EXPECT_EQ(flash->fe[1].product_id, silent_product + 1);
    EXPECT_EQ(flash->fe[1].flashStatus, NOFLASHATTEMPT);
}

TEST_F(Session, BuildsTheTableAnewEachTime) {
    FlashPeripheral& device = bus.add(silent_product);
    flash->build_flash_table();
    flash->fe[0].flashStatus = FLASHSUCCESS;
    device.usb().descriptor.idProduct = silent_product + 4;
    EXPECT_EQ(flash->build_flash_table(), 1);
    EXPECT_EQ(flash->fe[0].product_id, silent_product + 4);
    EXPECT_EQ(flash->fe[0].flashStatus, NOFLASHATTEMPT);
}

TEST_F(Session, LeavesDevicesPastTheTablesEndOut) {
    for (int i = 0; i < 130; ++i) {
        bus.add(silent_product);
    }
    EXPECT_EQ(flash->build_flash_table(), 128);
    EXPECT_EQ(usb.live_handles, 0);
}
