#include "firmware/firmware_search.h"
#include "journal/output.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/failing_new.h"
#include "support/firmware_bytes.h"
#include "support/flash_test.h"
#include "support/temporary_directory.h"
#include "usb/zelflshenum.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

class Commands : public FlashTest {
  protected:
    // The program's own 100 ms are short on a busy machine.
    Commands() { information_timeout = 3000; }

    void add_table_row(int product_id, const char* serial) {
        flash->initialize_device_data(flash->numberOfFlashEntries++, "path", serial, product_id,
                                      0x0123);
    }
    void want_product(const char* text) {
        select_devices = 1;
        snprintf(device_list[NumberOfDeviceListEntries++].PIDstr, sizeof device_list[0].PIDstr,
                 "%s", text);
    }
    void want_serial(const char* text) {
        select_devices = 1;
        snprintf(serial_no_list[NumberOfSerialNoListEntries++].serial_number,
                 sizeof serial_no_list[0].serial_number, "%s", text);
    }
    /// The rows that are selected. What stands behind them is no row.
    std::vector<int> select() {
        auto& behind = flash->fe[flash->numberOfFlashEntries].flashStatus;
        behind = FLASHSUCCESS;
        flash->determine_select_devices();
        EXPECT_EQ(behind, FLASHSUCCESS);
        std::vector<int> rows;
        for (int row = 0; row < flash->numberOfFlashEntries; ++row) {
            if (flash->fe[row].flashStatus == NOFLASHATTEMPT) {
                rows.push_back(row);
            } else {
                EXPECT_EQ(flash->fe[row].flashStatus, NOFLASHALLOWED);
            }
        }
        return rows;
    }
    void add_file(uint16_t product_id, int component, int level, const FirmwareBytes& content) {
        const std::string name = "f" + std::to_string(numberOfusbFlashFiles) + ".dat";
        directory.write(name, content);
        FlashFile& file = files[numberOfusbFlashFiles++];
        file.product_id = product_id;
        file.comp_id = component;
        file.ec_level = level;
        file.ec_version = (level >> 8) & 0x0F;
        file.comp_type = 1;
        snprintf(file.filename, sizeof file.filename, "%s", name.c_str());
        snprintf(file.path, sizeof file.path, "%s", directory.path("").c_str());
    }
    /// Cut short: without its end mark.
    static FirmwareBytes bad_image(int component, const char* header = "41230109") {
        FirmwareBytes content(header);
        if (component != 0) {
            content.record(0xFF, 0, {static_cast<std::uint8_t>(component)});
        }
        return content.record(0x10, 0, {1});
    }
    static FirmwareBytes image(int component = 0, const char* header = "41230109") {
        return bad_image(component, header).end();
    }
    /// A device with main component 01.02 and configuration 01.02.
    FlashPeripheral& add_updatable(const char* serial = "SN-0042") {
        FlashPeripheral& device = bus.add(flash_product, 0x7A01, serial);
        device.data[wire::component_list_query] =
            list_answer(8, {{0, 0x02, 0x01, 0x02}, {1, 0x02, 0x01, 0x04}});
        return device;
    }

    TemporaryDirectory directory;
};

// Selection.

class Selection : public Commands {
  protected:
    Selection() {
        add_table_row(0x4123, "A");
        add_table_row(0x4124, "B");
        add_table_row(0x4123, "C");
    }
};

}  // namespace

TEST_F(Selection, TakesAllWithoutAFilter) {
    flash->fe[1].flashStatus = DEVICE_SELECTED;
    EXPECT_EQ(select(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(debugged("Found 3 devices to check for updating"), 1);
    select_devices = 1;
    EXPECT_EQ(select(), (std::vector<int>{0, 1, 2}));
}

TEST_F(Selection, IgnoresTheListsUnlessAFilterWasGiven) {
    want_product("4124");
    select_devices = 0;
    EXPECT_EQ(select(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(device_list[0].fe, nullptr);
}

TEST_F(Selection, CountsOneDeviceWithoutAPlural) {
    flash->numberOfFlashEntries = 1;
    select();
    EXPECT_EQ(debugged("Found 1 device to check for updating"), 1);
    flash->numberOfFlashEntries = 0;
    select();
    EXPECT_EQ(debugged("Found 0 device to check for updating"), 1);
}

TEST_F(Selection, TakesTheRowsOfAProduct) {
    want_product("4123");
    EXPECT_EQ(select(), (std::vector<int>{0, 2}));
    // The last row taken.
    EXPECT_EQ(device_list[0].fe, &flash->fe[2]);
    EXPECT_EQ(debugged("Found 2 devices to check for updating"), 1);
}

TEST_F(Selection, TakesTheRowsOfSeveralProducts) {
    want_product("0x4124");
    want_product("4123");
    EXPECT_EQ(select(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(device_list[0].fe, &flash->fe[1]);
}

TEST_F(Selection, AProductOfZeroSelectsNothing) {
    flash->fe[0].product_id = 0;
    for (const char* const text : {"0", "xyz", ""}) {
        NumberOfDeviceListEntries = 0;
        device_list[0].fe = &flash->fe[0];
        want_product(text);
        EXPECT_EQ(select(), (std::vector<int>{})) << text;
        EXPECT_EQ(device_list[0].fe, nullptr);
    }
}

TEST_F(Selection, AnEntryThatMatchesNothingSelectsNothing) {
    want_product("9999");
    want_product("FFFFFFFFFFFF4123");
    EXPECT_EQ(select(), (std::vector<int>{}));
    EXPECT_EQ(device_list[0].fe, nullptr);
    EXPECT_EQ(debugged("Found 0 device to check for updating"), 1);
}

TEST_F(Selection, TakesTheRowsOfASerialNumber) {
    want_serial("C");
    want_serial("B");
    EXPECT_EQ(select(), (std::vector<int>{1, 2}));
    EXPECT_EQ(serial_no_list[0].fe, &flash->fe[2]);
    EXPECT_EQ(serial_no_list[1].fe, &flash->fe[1]);
}

TEST_F(Selection, ASerialNumberMustBeTheSame) {
    want_serial("c");
    want_serial("CC");
    want_serial("");
    EXPECT_EQ(select(), (std::vector<int>{}));
}

TEST_F(Selection, ProductAndSerialNumberMustBothMatch) {
    want_product("4123");
    want_serial("C");
    want_serial("B");
    EXPECT_EQ(select(), (std::vector<int>{2}));
    EXPECT_EQ(device_list[0].fe, &flash->fe[2]);
    EXPECT_EQ(serial_no_list[0].fe, nullptr);
}

TEST_F(Selection, AProductOfZeroLeavesTheSerialNumbersUnused) {
    want_product("0");
    want_serial("B");
    EXPECT_EQ(select(), (std::vector<int>{}));
}

// Enumeration.

TEST_F(Commands, OpensOnlySupportedInterfaces) {
    FlashPeripheral& device = bus.add(silent_product, 0x7AFF);
    USBHID hid{};
    snprintf(hid.DevicePath, sizeof hid.DevicePath, "%s", device.path().c_str());
    hid.VendorID = 0x7AFF;
    hid.ProductID = silent_product;
    hid.Usage = 0xA000;
    EXPECT_EQ(flash->open_hid_device(&hid), 0);
    EXPECT_TRUE(usb.calls().empty());
    oem_vendor = 1;
    hid.Usage = 0xA001;
    EXPECT_EQ(flash->open_hid_device(&hid), 0);
    EXPECT_TRUE(usb.calls().empty());
    hid.Usage = 0xA000;
    EXPECT_EQ(flash->open_hid_device(&hid), 1);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(flash->fe[0].DevicePath, device.path());
    EXPECT_EQ(flash->open_hid_device(nullptr), 0);
}

TEST_F(Commands, LeavesInterfacesOutThatDoNotOpen) {
    FlashPeripheral& device = bus.add(silent_product);
    device.usb().open_rc = LIBUSB_ERROR_ACCESS;
    bus.add(silent_product + 1);
    EXPECT_EQ(flash->build_flash_table(), 1);
    EXPECT_EQ(flash->fe[0].product_id, silent_product + 1);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(usb.live_contexts, 0);
}

TEST_F(Commands, FindsNothingWithoutAListOfDevices) {
    usb.list_rc = LIBUSB_ERROR_NO_MEM;
    EXPECT_EQ(flash->build_flash_table(), 0);
}

TEST_F(Commands, PointsTheFiltersAtTheNewTable) {
    FlashPeripheral& device = bus.add(silent_product);
    want_product("3C75");
    flash->build_flash_table();
    EXPECT_EQ(device_list[0].fe, &flash->fe[0]);
    device.usb().descriptor.idProduct = silent_product + 1;
    flash->build_flash_table();
    EXPECT_EQ(device_list[0].fe, nullptr);
    EXPECT_EQ(flash->fe[0].flashStatus, NOFLASHALLOWED);
}

// List.

TEST_F(Commands, ListsNoDevice) {
    EXPECT_EQ(console_of(1, 0, [this] { EXPECT_EQ(flash->list_attached_devices(), 5); }),
              "No devices found\n");
    EXPECT_EQ(logged("Listing 0 devices:"), 1);
}

TEST_F(Commands, ListsComponentsWithTheirLevels) {
    FlashPeripheral& device = bus.add(flash_product, 0x7A01, "SN-9");
    device.answers[wire::device_information_query] = {{0x09, 1, 2, 3, 0x40}};
    device.data[wire::extended_list_query] = list_answer(25, {{0, 0x02, 0x01, 0x02, 0x0A},
                                                              {1, 0x05, 0x04, 0x04, 0},
                                                              {2, 0x06, 0x04, 0x06, 0},
                                                              {3, 0x07, 0x04, 0x08, 0},
                                                              {18, 0xFE, 0xFF, 0x00, 0}});
    const std::string shown =
        console_of(1, 0, [this] { EXPECT_EQ(flash->list_attached_devices(), 0); });
    EXPECT_EQ(shown,
              "PID: 4123  COMP: 00  TYPE: FW   EC: 01.02.0a (SN='SN-9')\n"
              "PID: 4123  COMP: 01  TYPE: CFG  EC: 04.05    (SN='SN-9')\n"
              "PID: 4123  COMP: 02  TYPE: FNT  EC: 04.06    (SN='SN-9')\n"
              "PID: 4123  COMP: 03  TYPE: UNK  EC: 04.07    (SN='SN-9')\n"
              "PID: 4123  COMP: 12  TYPE: UNK  EC: ff.fe    (SN='SN-9')\n");
    EXPECT_NE(log.text().find("\n\nListing 1 devices:\n"), std::string::npos);
}

TEST_F(Commands, ListsSelectedDevicesOnly) {
    bus.add(silent_product, 0x7A01, "A");
    bus.add(silent_product, 0x7A01, "B");
    want_serial("B");
    EXPECT_EQ(console_of(1, 0, [this] { EXPECT_EQ(flash->list_attached_devices(), 0); }),
              "PID: 3c75  COMP: 00  TYPE: FW   EC: 01.23    (SN='B')\n");
    want_serial("C");
    NumberOfSerialNoListEntries = 1;
    std::strcpy(serial_no_list[0].serial_number, "C");
    EXPECT_EQ(console_of(1, 0, [this] { EXPECT_EQ(flash->list_attached_devices(), 0); }), "");
}

// Update.

TEST_F(Commands, UpdatesNothingWithoutDevices) {
    EXPECT_EQ(console_of(1, 0, [this] { EXPECT_EQ(flash->flash_all_devices(), 5); }),
              "No devices found\n");
}

TEST_F(Commands, UpdatesMainComponentsFirstAndThenTheOthers) {
    FlashPeripheral& device = add_updatable();
    add_file(flash_product, 0, 0x0109, image());
    add_file(flash_product, 1, 0x0109, image(1));
    EXPECT_EQ(flash->flash_all_devices(), 0);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(device.count(wire::reset), 1);
    EXPECT_EQ(sleeps.count(4000), 1);
    const std::string text = log.text();
    const size_t sleeping = text.find("Sleeping to allow reset device to respond\n");
    ASSERT_NE(sleeping, std::string::npos);
    EXPECT_NE(text.find("Sleeping finished\n", sleeping), std::string::npos);
    EXPECT_LT(text.find("Starting firmware update of Product ID 4123 COMP: 0"), sleeping);
    EXPECT_GT(text.find("Starting firmware update of Product ID 4123 COMP: 1"), sleeping);
    // Rows are found anew behind the reset.
    EXPECT_GT(text.find("Finding available Flash Devices", sleeping), sleeping);
    EXPECT_EQ(log.count("Finding available Flash Devices\n"), 2);
    EXPECT_EQ(logged("Updated 2 devices"), 1);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(threads.unreclaimed(), 0);
}

TEST_F(Commands, DoesNotSleepWithoutAReset) {
    add_updatable();
    add_file(flash_product, 1, 0x0109, image(1));
    EXPECT_EQ(flash->flash_all_devices(), 0);
    EXPECT_EQ(sleeps.count(4000), 0);
    EXPECT_EQ(log.count("Finding available Flash Devices\n"), 1);
    EXPECT_EQ(logged("Updated 1 device"), 1);
}

TEST_F(Commands, ChecksForUpdatesWithoutSendingAny) {
    FlashPeripheral& device = add_updatable();
    check_for_update_only = 1;
    add_file(flash_product, 0, 0x0109, image());
    EXPECT_EQ(flash->flash_all_devices(), 0);
    EXPECT_EQ(device.count(wire::erase), 0);
    EXPECT_EQ(sleeps.count(4000), 1);
    EXPECT_EQ(logged("Updated 1 device"), 1);
}

TEST_F(Commands, TellsOfTheSleepAndTheCountOnTheConsole) {
    add_updatable();
    check_for_update_only = 1;
    add_file(flash_product, 0, 0x0109, image());
    const std::string shown =
        console_of(1, 0, [this] { EXPECT_EQ(flash->flash_all_devices(), 0); });
    const std::string end =
        "Sleeping to allow reset device to respond\nSleeping finished\nUpdated 1 device\n";
    EXPECT_EQ(shown.find(end), shown.size() - end.size()) << shown;
}

TEST_F(Commands, TellsOfBadFilesOnTheConsole) {
    add_updatable();
    add_file(flash_product, 1, 0x0109, bad_image(1));
    const std::string shown =
        console_of(1, 0, [this] { EXPECT_EQ(flash->flash_all_devices(), 6); });
    EXPECT_NE(shown.find("Error -14 flashing devices\nFirmware update file "
                         "bad\nNo devices updated\n"),
              std::string::npos);
}

TEST_F(Commands, ReportsThatNothingWasUpdated) {
    FlashPeripheral& device = add_updatable();
    add_file(flash_product, 0, 0x0102, image());
    EXPECT_EQ(flash->flash_all_devices(), 6);
    EXPECT_EQ(device.count(wire::erase), 0);
    EXPECT_EQ(logged("No devices updated"), 1);
    EXPECT_EQ(log.count("Error "), 0);
}

TEST_F(Commands, UpdatesNothingThatIsNotSelected) {
    FlashPeripheral& device = add_updatable();
    add_file(flash_product, 0, 0x0109, image());
    want_serial("elsewhere");
    EXPECT_EQ(flash->flash_all_devices(), 6);
    EXPECT_EQ(device.count(wire::erase), 0);
    EXPECT_EQ(logged("No devices updated"), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, NOFLASHALLOWED);
}

TEST_F(Commands, EndsAfterAFailedFirstPass) {
    FlashPeripheral& device = add_updatable();
    device.answers[wire::erase] = {{0x40}};
    add_file(flash_product, 0, 0x0109, image());
    add_file(flash_product, 1, 0x0109, image(1));
    EXPECT_EQ(flash->flash_all_devices(), 6);
    EXPECT_EQ(device.count(wire::erase), 1);
    EXPECT_EQ(sleeps.count(4000), 0);
    EXPECT_EQ(logged("Error -2 flashing devices"), 1);
    EXPECT_EQ(log.count("Device disconnected"), 0);
    EXPECT_EQ(logged("No devices updated"), 1);
}

TEST_F(Commands, TellsThatTheDeviceIsGone) {
    FlashPeripheral& device = add_updatable();
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
        }
    };
    add_file(flash_product, 0, 0x0109, image());
    const std::string shown =
        console_of(1, 0, [this] { EXPECT_EQ(flash->flash_all_devices(), 6); });
    EXPECT_NE(shown.find("Error -5 flashing devices\nDevice disconnected\nNo devices updated\n"),
              std::string::npos);
}

TEST_F(Commands, TellsThatTheFileIsBad) {
    add_updatable();
    add_file(flash_product, 1, 0x0109, bad_image(1));
    EXPECT_EQ(flash->flash_all_devices(), 6);
    EXPECT_EQ(logged("Error -14 flashing devices"), 1);
    EXPECT_EQ(logged("Firmware update file bad"), 1);
    EXPECT_EQ(logged("No devices updated"), 1);
}

TEST_F(Commands, KeepsTheFirstPassesUpdatesInTheResult) {
    FlashPeripheral& device = add_updatable();
    add_file(flash_product, 0, 0x0109, image());
    add_file(flash_product, 1, 0x0109, image(1));
    device.on_command = [&, erased = 0](const Bytes& command) mutable {
        if (command == wire::erase && ++erased == 2) {
            device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
        }
    };
    EXPECT_EQ(flash->flash_all_devices(), 0);
    EXPECT_EQ(logged("Error -5 flashing devices"), 1);
    EXPECT_EQ(logged("Device disconnected"), 1);
    EXPECT_EQ(logged("Updated 1 device"), 1);
}

TEST_F(Commands, SuccessesBehindAFailureChangeTheErrorThatIsTold) {
    FlashPeripheral& first = bus.add(flash_product);
    FlashPeripheral& second = bus.add(flash_product + 1);
    first.data[wire::component_list_query] = list_answer(4, {{1, 0x02, 0x01, 0x02}});
    std::vector<Bytes> components;
    for (unsigned char number = 1; number <= 9; ++number) {
        components.push_back({number, 0x02, 0x01, 0x02});
        if (number <= 8) {
            add_file(flash_product + 1, number, 0x0109, image(number, "41240109"));
        }
    }
    second.data[wire::component_list_query] = list_answer(36, components);
    add_file(flash_product, 1, 0x0109, bad_image(1));
    const auto update = [this] { EXPECT_EQ(flash->flash_all_devices(), 6); };
    // Minus 14 for the corrupted file, plus 8, is the code of a failed reset.
    const std::string shown = console_of(1, 0, update);
    EXPECT_NE(shown.find("Error -6 flashing devices\nDevice reset failed\nNo devices updated\n"),
              std::string::npos);
    EXPECT_EQ(second.count(wire::erase), 8);
    // One success more, and it is that of a device that is gone.
    add_file(flash_product + 1, 9, 0x0109, image(9, "41240109"));
    EXPECT_NE(console_of(1, 0, update)
                  .find("Error -5 flashing devices\nDevice disconnected\nNo devices updated\n"),
              std::string::npos);
    EXPECT_EQ(second.count(wire::erase), 17);
}

// Reset.

TEST_F(Commands, ResetsNothingWithoutDevices) {
    EXPECT_EQ(flash->reset_devices(), 5);
    EXPECT_EQ(logged("No devices found"), 1);
}

TEST_F(Commands, ResetsTheSelectedDevices) {
    FlashPeripheral& first = bus.add(silent_product, 0x7A01, "A");
    FlashPeripheral& second = bus.add(silent_product, 0x7A01, "B");
    FlashPeripheral& third = bus.add(silent_product, 0x7A01, "C");
    want_serial("A");
    want_serial("C");
    const std::string shown = console_of(1, 0, [this] { EXPECT_EQ(flash->reset_devices(), 0); });
    EXPECT_EQ(shown,
              "Resetting device PID:3c75 SN='A'\n"
              "Device PID:3c75 reset successfully\n"
              "Resetting device PID:3c75 SN='C'\n"
              "Device PID:3c75 reset successfully\n"
              "Reset successful on 2 devices\n");
    EXPECT_EQ(first.count(wire::reset), 1);
    EXPECT_TRUE(second.commands().empty());
    EXPECT_EQ(third.count(wire::reset), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHRESETSUCCESS);
    EXPECT_EQ(flash->fe[1].flashStatus, NOFLASHALLOWED);
    EXPECT_EQ(flash->fe[2].flashStatus, FLASHRESETSUCCESS);
    EXPECT_EQ(flash->CurrentIndex, 2);
    EXPECT_EQ(global_reading_information, 0);
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Commands, CountsADeviceThatDropsOffAsReset) {
    FlashPeripheral& device = bus.add(silent_product);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(flash->reset_devices(), 0);
    EXPECT_EQ(logged("Reset successful on 1 device"), 1);
}

TEST_F(Commands, SaysThatNoDeviceIsSelected) {
    bus.add(silent_product);
    want_serial("elsewhere");
    EXPECT_EQ(flash->reset_devices(), 5);
    EXPECT_EQ(logged("No devices selected"), 1);
    EXPECT_EQ(flash->get_device_data_for_component(0, directory.path("out").c_str()), 5);
    EXPECT_EQ(logged("No devices selected"), 2);
}

TEST_F(Commands, ADeviceThatThereIsNoMemoryForIsAFailedReset) {
    bus.add(silent_product, 0x7A01, "A").on_command = [](const Bytes& command) {
        fail_nothrow_new(command == wire::stop);
    };
    FlashPeripheral& second = bus.add(silent_product + 1, 0x7A01, "B");
    const std::string shown = console_of(1, 0, [this] { EXPECT_EQ(flash->reset_devices(), 8); });
    fail_nothrow_new(false);
    EXPECT_EQ(shown,
              "Resetting device PID:3c75 SN='A'\n"
              "Device PID:3c75 reset successfully\n"
              "Device PID:3c76 reset failed, rc=5\n"
              "Reset successful on 1 device\n"
              "Reset failed on 1 device\n");
    EXPECT_TRUE(second.commands().empty());
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHRESETSUCCESS);
    EXPECT_EQ(flash->fe[1].flashStatus, FLASHRESETERROR);
    EXPECT_EQ(flash->CurrentIndex, 1);
}

TEST_F(Commands, WithoutAnAttemptNoDeviceWasSelected) {
    // The last thing that a device is told before the reset is the stop behind its queries.
    bus.add(flash_product).on_command = [stops = 0](const Bytes& command) mutable {
        stops += command == wire::stop ? 1 : 0;
        fail_nothrow_new(stops == 2);
    };
    const std::string shown = console_of(1, 0, [this] { EXPECT_EQ(flash->reset_devices(), 5); });
    fail_nothrow_new(false);
    EXPECT_EQ(shown, "Device PID:4123 reset failed, rc=5\nNo devices selected\n");
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHRESETERROR);
}

TEST_F(Commands, EndsTheResetAtADeviceThatCantBeOpened) {
    bus.add(silent_product, 0x7A01, "A");
    FlashPeripheral& second = bus.add(silent_product, 0x7A01, "B");
    background_read = 0;
    EXPECT_EQ(console_of(1, 0, [this] { EXPECT_EQ(flash->reset_devices(), 0); }), "");
    EXPECT_TRUE(second.commands().empty());
    EXPECT_EQ(log.count("Resetting"), 0);
    EXPECT_EQ(flash->fe[0].flashStatus, NOFLASHATTEMPT);
    EXPECT_EQ(flash->fe[1].flashStatus, NOFLASHATTEMPT);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
}

namespace {

// Reading a component.

class ComponentRead : public Commands {
  protected:
    int read(int component = 2) {
        return flash->get_device_data_for_component(component, output.c_str());
    }
    std::string content() const { return read_file(output); }

    const std::string output = directory.path("component.dat");
    FlashPeripheral& device = bus.add(silent_product, 0x7A01, "A");
};

}  // namespace

TEST_F(ComponentRead, NeedsADevice) {
    device.usb().open_rc = LIBUSB_ERROR_ACCESS;
    EXPECT_EQ(read(), 5);
    EXPECT_EQ(logged("No devices found"), 1);
    EXPECT_EQ(flash->hiddev, nullptr);
}

TEST_F(ComponentRead, AnEmptyTableClosesTheDeviceThatIsOpen) {
    open_directly(device, 9);
    usb.list_rc = LIBUSB_ERROR_NO_MEM;
    EXPECT_EQ(read(), 5);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(ComponentRead, EndsAtADeviceThatCantBeOpened) {
    FlashPeripheral& second = bus.add(silent_product, 0x7A01, "B");
    background_read = 0;
    EXPECT_EQ(console_of(1, 0, [this] { EXPECT_EQ(read(), 0); }), "");
    EXPECT_TRUE(second.commands().empty());
    EXPECT_FALSE(std::filesystem::exists(output));
    EXPECT_EQ(flash->fe[0].flashStatus, NOFLASHATTEMPT);
}

TEST_F(ComponentRead, ADeviceThatThereIsNoMemoryForIsAFailedRead) {
    bus.add(silent_product + 1, 0x7A01, "B");
    device.next_features = {{0, {0x01}}};
    device.on_command = [](const Bytes& command) { fail_nothrow_new(command == wire::stop); };
    EXPECT_EQ(read(), 8);
    fail_nothrow_new(false);
    EXPECT_EQ(logged("Device PID:3c76 Component:2 read failed, rc=5"), 1);
    EXPECT_EQ(flash->fe[1].flashStatus, FLASHRESETERROR);
}

TEST_F(ComponentRead, TakesTheTimeOutForInformation) {
    information_timeout = 45;
    device.other_answer = {};
    EXPECT_EQ(read(), 8);
    EXPECT_EQ(debugged("wait_for_message(timeout=45, length=8), loop_count=3, sleep_time=15, "
                       "status_ready=0, device_closed=0"),
              1);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=7"), 1);
}

TEST_F(ComponentRead, WritesHeaderAndEndOfAnEmptyComponent) {
    device.next_features = {{0, {0x01, 0x00, 0x00, 0xC0, 0xC1, 0xEE}}};
    const std::string shown = console_of(1, 0, [this] { EXPECT_EQ(read(), 0); });
    EXPECT_EQ(content(), std::string("3c750000\x00\xC0\xC1", 11));
    EXPECT_EQ(shown,
              "Reading data from device PID:3c75 Component:2 SN='A'\n"
              "Device PID:3c75 Component:2 read successfully\n");
    EXPECT_EQ(device.count({0x06, 0x00, 0x21, 0x00, 0xFF, 0x20, 0x00, 0x00}), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHRESETSUCCESS);
    EXPECT_EQ(global_reading_information, 0);
}

TEST_F(ComponentRead, TellsItsStepsAndReliesOnTheReaderThatRuns) {
    device.next_features = {{0, {0x01, 0x00, 0x00, 0xC0}}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(debugged("Read all records from 0x3c75"), 1);
    EXPECT_EQ(debugged("Reading data, rc=0, buffer[]=01.00.00.c0"), 1);
    EXPECT_EQ(debugged("Data transfer finished"), 1);
    EXPECT_EQ(debugged("Read successful on 1 device"), 1);
    EXPECT_EQ(threads.created(), 1);
}

TEST_F(ComponentRead, WritesTheRecordsAsTheyCome) {
    const Bytes longest = join({{0x00, 0x00, 0xFF, 0x10, 0x00, 0x02}, Bytes(255, 0x5A)});
    device.next_features = {{0, {0x00, 0x00, 0x02, 0x10, 0x00, 0x01, 0xAA, 0xBB, 0xEE}},
                            {0, longest},
                            {0, {0x01, 0x00, 0x00, 0xC0, 0xC1}}};
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(content(), std::string("3c750123") + std::string("\x02\x10\x00\x01\xAA\xBB", 6) +
                             std::string("\xFF\x10\x00\x02", 4) + std::string(255, 0x5A) +
                             std::string("\x00\xC0\xC1", 3));
    EXPECT_EQ(device.count({0x06, 0x00, 0x21, 0x00, 0xFF, 0x00, 0x00, 0x00}), 1);
}

TEST_F(ComponentRead, TheLastBlockMayHoldARecord) {
    device.next_features = {{0, {0x01, 0x00, 0x01, 0x10, 0x00, 0x01, 0xAA, 0xEE}}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(content(), std::string("3c750000\x01\x10\x00\x01\xAA", 13));
}

TEST_F(ComponentRead, NothingOfAnEarlierBlockIsWrittenAgain) {
    device.next_features = {{0, {0x00, 0x00, 0x02, 0x10, 0x00, 0x01, 0xAA, 0xBB}},
                            {0, {0x00, 0x00, 0x02}},
                            {0, {0x01}}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(
        content(),
        std::string("3c750000\x02\x10\x00\x01\xAA\xBB\x02\x00\x00\x00\x00\x00\x00\x00\x00", 23));
}

TEST_F(ComponentRead, AComponentWithoutARowHasLevelZero) {
    device.next_features = {{0, {0x01}}, {0, {0x01}}};
    EXPECT_EQ(read(20), 0);
    EXPECT_EQ(content().substr(0, 8), "3c750000");
    EXPECT_EQ(read(255), 0);
    EXPECT_EQ(content().substr(0, 8), "3c750000");
}

TEST_F(ComponentRead, FailsWhenTheDataDoesNotEnd) {
    OutputLevel = 1;
    device.data[{0x06, 0x00, 0x21, 0x00, 0xFF, 0x20, 0x00, 0x00}] = {0x00, 0x00, 0x00, 0x20};
    EXPECT_EQ(read(), 8);
    EXPECT_EQ(logged("The device does not end its data after 65536 blocks"), 1);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=3"), 1);
}

TEST_F(ComponentRead, FailsWhenTheDataFails) {
    device.next_features = {{0, {0x00, 0x00, 0x01, 0x10, 0x00, 0x01, 0xAA}}};
    EXPECT_EQ(read(), 8);
    EXPECT_EQ(logged("Reading data failed, rc=12"), 1);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=12"), 1);
    EXPECT_EQ(debugged("Read failed on 1 device"), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHRESETERROR);
}

TEST_F(ComponentRead, TellsOfFailedDataWhenVerbose) {
    const std::string start = "Reading data from device PID:3c75 Component:2 SN='A'\n";
    const std::string end = "Device PID:3c75 Component:2 read failed, rc=12\n";
    const auto failing = [this] { EXPECT_EQ(read(), 8); };
    EXPECT_EQ(console_of(1, 0, failing), start + end);
    EXPECT_EQ(console_of(2, 1, failing), start + "Reading data failed, rc=12\n" + end);
    EXPECT_EQ(console_of(0, 0, failing), "");
}

TEST_F(ComponentRead, FailsWhenTheCommandFails) {
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(read(), 8);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=8"), 1);
    // A reject is final.
    device.other_answer = {{0x80}};
    EXPECT_EQ(read(), 8);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=2"), 1);
    EXPECT_EQ(device.count({0x06, 0x00, 0x21, 0x00, 0xFF, 0x20, 0x00, 0x00}), 2);
}

TEST_F(ComponentRead, FailsWithoutAnOutputFile) {
    EXPECT_EQ(flash->get_device_data_for_component(2, "/nowhere/component.dat"), 8);
    EXPECT_EQ(debugged("Could not open '/nowhere/component.dat' for writing"), 1);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=-1"), 1);
}

TEST_F(ComponentRead, FailsOnAFullDisk) {
    device.next_features = {{0, {0x01}}};
    EXPECT_EQ(flash->get_device_data_for_component(2, "/dev/full"), 8);
    EXPECT_EQ(logged("Could not write all data to '/dev/full'"), 1);
    EXPECT_EQ(logged("Device PID:3c75 Component:2 read failed, rc=-1"), 1);
}

TEST_F(ComponentRead, StartsAReaderWhereNoneRuns) {
    open_directly(device, 9);
    device.next_features = {{0, {0x01}}};
    EXPECT_EQ(flash->read_component_data(2, output.c_str(), 0x4123, 0x0102, 9), 0);
    EXPECT_EQ(threads.created(), 1);
    EXPECT_EQ(content().substr(0, 8), "41230102");
    flash->close_device_after_use(9, 1);
}

TEST_F(ComponentRead, TheLastOfSeveralDevicesStays) {
    FlashPeripheral& second = bus.add(silent_product + 1, 0x7A01, "B");
    device.next_features = {{0, {0x00, 0x00, 0x01, 0x10, 0x00, 0x01, 0xAA}}, {0, {0x01}}};
    second.next_features = {{0, {0x01}}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(content(), std::string("3c760000\x00\x00\x00", 11));
    EXPECT_EQ(debugged("Read successful on 2 devices"), 1);
}

TEST_F(ComponentRead, SomeFailuresAreAFailure) {
    FlashPeripheral& second = bus.add(silent_product + 1, 0x7A01, "B");
    second.next_features = {{0, {0x01}}};
    EXPECT_EQ(read(), 8);
    EXPECT_EQ(debugged("Read successful on 1 device"), 1);
    EXPECT_EQ(debugged("Read failed on 1 device"), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHRESETERROR);
    EXPECT_EQ(flash->fe[1].flashStatus, FLASHRESETSUCCESS);
}
