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

/// On the exclusion list: such a device is listed without a command.
constexpr uint16_t silent_product = 0x3C75;

constexpr unsigned short own_vendors[] = {0x7A01, 0x7A02, 0x7A03};

class Session : public FlashTest {};

TEST_F(Session, StartsWithEverySlotStoppedAndNothingFound) {
    EXPECT_EQ(15, flash->sleep_time);
    EXPECT_EQ(0, flash->numberOfFlashEntries);
    EXPECT_EQ(0, flash->ThreadIndex);
    EXPECT_EQ(0, flash->CurrentIndex);
    EXPECT_EQ(nullptr, flash->hiddev);
    for (const thread_table& slot : flash->ThreadTable) {
        ASSERT_EQ(1, slot.stopped);
        ASSERT_EQ(0, slot.device_in_use);
        ASSERT_EQ(1, slot.device_closed);
        ASSERT_EQ(0, slot.read_hid_in_progress);
        ASSERT_EQ(pthread_t{0}, slot.hThread);
    }
}

TEST_F(Session, LogsItsStartWithSeparatorAndTime) {
    EXPECT_EQ(std::string(50, '='), szEquals);
    EXPECT_EQ(1, logged(szEquals));
    EXPECT_EQ(1, log.count("USB Flash Started at "));
    // The time text ends its line, and the message another one.
    EXPECT_EQ("\n\n", log.text().substr(log.text().size() - 2));
}

TEST_F(Session, StartAndEndStayOffTheConsole) {
    EXPECT_EQ("", console_of(1, 0, [] { ZELFLASH().finish(); }));
}

TEST_F(Session, LogsItsEndOnceWithTheSeparatorLast) {
    EXPECT_TRUE(flash->finish());
    EXPECT_TRUE(flash->finish());
    flash.reset();
    EXPECT_EQ(1, log.count("USB Flash ended at "));
    EXPECT_EQ(2, logged(szEquals));
    const std::string text = log.text();
    EXPECT_EQ(std::string(szEquals) + "\n", text.substr(text.size() - 51));
    EXPECT_EQ(std::string::npos, text.find("\n\n", text.find("USB Flash ended at ")));
}

TEST_F(Session, TakesTheTraceWithIt) {
    trace = std::make_unique<Trace>("", 0, 0);
    flash.reset();
    EXPECT_EQ(nullptr, trace);
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
        EXPECT_STREQ(texts[code], flash_code_description[code]) << code;
        EXPECT_STREQ(texts[code], flash_code_text(code)) << code;
    }
}

TEST_F(Session, DescribesNoCodeOutsideTheTable) {
    EXPECT_STREQ("", flash_code_text(FILECORRUPTED));
    EXPECT_STREQ("", flash_code_text(-1));
    EXPECT_STREQ("", flash_code_text(query_not_supported));
}

TEST_F(Session, ForgetsAllRowsButKeepsTheSlots) {
    std::memset(&flash->fe[127], 0x55, sizeof flash->fe[127]);
    flash->fe[0].flashStatus = FLASHFORCED;
    flash->numberOfFlashEntries = 128;
    flash->CurrentIndex = 7;
    flash->ThreadTable[6].device_closed = 0;
    flash->ThreadTable[6].stopped = 0;

    flash->reset_device_list();

    EXPECT_EQ(0, flash->numberOfFlashEntries);
    EXPECT_EQ(0, flash->fe[0].flashStatus);
    const flashEntry& last = flash->fe[127];
    EXPECT_EQ('\0', last.DevicePath[0]);
    EXPECT_EQ('\0', last.serialNumber[0]);
    EXPECT_EQ(0, last.product_id);
    EXPECT_EQ(0, last.ec_level);
    EXPECT_EQ(0, last.dev_type + last.dev_id + last.command_set + last.features);
    EXPECT_EQ(0, last.current_ec_level + last.previous_ec_level);
    EXPECT_EQ(0, last.current_build_level + last.previous_build_level);
    EXPECT_EQ(0, last.resetDevice);
    EXPECT_EQ(0, last.flashStatus);
    EXPECT_EQ(0, last.component_count);
    for (const component_entry& component : last.component) {
        EXPECT_EQ(0, component.comp_id + component.ec_level + component.build_level +
                         component.comp_type + component.version_method);
    }
    EXPECT_EQ(7, flash->CurrentIndex);
    EXPECT_EQ(0, flash->ThreadTable[6].device_closed);
    EXPECT_EQ(0, flash->ThreadTable[6].stopped);
}

TEST_F(Session, ForgetsWhichRowsTheFiltersHadFound) {
    device_list[3].fe = &flash->fe[0];
    serial_no_list[255].fe = &flash->fe[1];
    flash->reset_device_list();
    EXPECT_EQ(nullptr, device_list[3].fe);
    EXPECT_EQ(nullptr, serial_no_list[255].fe);
}

TEST_F(Session, MakesARowOfADevice) {
    flashEntry& row = flash->fe[5];
    row.features = 0xC0;
    row.current_ec_level = 0x0203;
    row.component_count = 9;
    row.component[19].comp_id = 19;

    flash->initialize_device_data(5, "//?/hid#vid_7a01", "SN-1", 0x4123, 0x0105);

    EXPECT_STREQ("//?/hid#vid_7a01", row.DevicePath);
    EXPECT_STREQ("SN-1", row.serialNumber);
    EXPECT_EQ(0x4123, row.product_id);
    EXPECT_EQ(0x0105, row.ec_level);
    EXPECT_EQ(NOFLASHATTEMPT, row.flashStatus);
    EXPECT_EQ(0, row.component_count);
    EXPECT_EQ(0, row.component[19].comp_id);
    // What a query found is not this call's business.
    EXPECT_EQ(0xC0, row.features);
    EXPECT_EQ(0x0203, row.current_ec_level);
}

TEST_F(Session, CutsPathAndSerialNumberToTheirFields) {
    const std::string path(400, 'p');
    const std::string serial(400, 's');
    flash->initialize_device_data(0, path.c_str(), serial.c_str(), 0x4123, 0);
    EXPECT_EQ(std::string(255, 'p'), flash->fe[0].DevicePath);
    EXPECT_EQ(std::string(49, 's'), flash->fe[0].serialNumber);
    EXPECT_EQ(0x4123, flash->fe[0].product_id);
}

TEST_F(Session, MakesNoRowOutsideTheTable) {
    flash->initialize_device_data(-1, "p", "s", 0x4123, 0);
    flash->initialize_device_data(max_flash_entries, "p", "s", 0x4123, 0);
    for (const flashEntry& entry : flash->fe) {
        ASSERT_EQ(0, entry.product_id);
    }
    EXPECT_EQ('\0', flash->installedPath[0]);
}

TEST_F(Session, ForgetsAWaitingStatus) {
    flash->status_ready = 1;
    flash->reset_ready_status();
    EXPECT_EQ(0, flash->status_ready);
}

TEST_F(Session, SupportsTheFlashInterfacesOfThreeVendors) {
    for (const unsigned short vendor : own_vendors) {
        EXPECT_EQ(1, flash->IsFlashDeviceSupported(vendor, 0xA000));
    }
    EXPECT_EQ(0, flash->IsFlashDeviceSupported(0x7A00, 0xA000));
    EXPECT_EQ(0, flash->IsFlashDeviceSupported(0x7A04, 0xA000));
}

TEST_F(Session, SupportsNoOtherInterfaceWhateverTheVendor) {
    oem_vendor = 1;
    for (const unsigned short vendor : own_vendors) {
        EXPECT_EQ(0, flash->IsFlashDeviceSupported(vendor, 0xA001));
        EXPECT_EQ(0, flash->IsFlashDeviceSupported(vendor, 0));
    }
    EXPECT_EQ(0, flash->IsFlashDeviceSupported(0x7AFF, 0xA001));
}

TEST_F(Session, SupportsOtherVendorsOnlyWhenAsked) {
    oem_vendor = 0;
    EXPECT_EQ(0, flash->IsFlashDeviceSupported(0x7AFF, 0xA000));
    oem_vendor = 1;
    EXPECT_EQ(1, flash->IsFlashDeviceSupported(0x7AFF, 0xA000));
    oem_vendor = 2;
    EXPECT_EQ(0, flash->IsFlashDeviceSupported(0x7AFF, 0xA000));
}

TEST_F(Session, AsksForAFirmwareFileOnlyWhenFilesDecide) {
    device_firmware_match_only = 0;
    EXPECT_EQ(1, flash->is_there_a_firmware_file_for_device(0x4123));
    device_firmware_match_only = 1;
    EXPECT_EQ(0, flash->is_there_a_firmware_file_for_device(0x4123));
    // The last row of the table counts, whatever the number of files is.
    numberOfusbFlashFiles = 0;
    files[255].product_id = 0x4123;
    EXPECT_EQ(1, flash->is_there_a_firmware_file_for_device(0x4123));
    EXPECT_EQ(0, flash->is_there_a_firmware_file_for_device(0x4124));
}

TEST_F(Session, CountsNoDevice) {
    EXPECT_EQ(0, flash->build_flash_table());
    EXPECT_EQ(1, debugged("Finding available Flash Devices"));
    EXPECT_EQ(1, debugged("Found 0 device with update interface"));
}

TEST_F(Session, CountsOneDevice) {
    bus.add(silent_product);
    EXPECT_EQ(1, flash->build_flash_table());
    EXPECT_EQ(1, debugged("Found 1 device with update interface"));
}

TEST_F(Session, CountsSeveralDevicesAndKeepsTheBusOrder) {
    bus.add(silent_product, 0x7A01, "A");
    bus.add(silent_product + 1, 0x7A02, "B");
    bus.add(silent_product + 2, 0x7AFF, "C");
    EXPECT_EQ(2, flash->build_flash_table());
    EXPECT_EQ(1, debugged("Found 2 devices with update interface"));
    EXPECT_EQ(silent_product, flash->fe[0].product_id);
    EXPECT_EQ(silent_product + 1, flash->fe[1].product_id);
    EXPECT_EQ(NOFLASHATTEMPT, flash->fe[1].flashStatus);
}

TEST_F(Session, BuildsTheTableAnewEachTime) {
    FlashPeripheral& device = bus.add(silent_product);
    flash->build_flash_table();
    flash->fe[0].flashStatus = FLASHSUCCESS;
    device.usb().descriptor.idProduct = silent_product + 4;
    EXPECT_EQ(1, flash->build_flash_table());
    EXPECT_EQ(silent_product + 4, flash->fe[0].product_id);
    EXPECT_EQ(NOFLASHATTEMPT, flash->fe[0].flashStatus);
}

TEST_F(Session, LeavesDevicesPastTheTablesEndOut) {
    for (int i = 0; i < 130; ++i) {
        bus.add(silent_product);
    }
    EXPECT_EQ(128, flash->build_flash_table());
    EXPECT_EQ(0, usb.live_handles);
}

}  // namespace
