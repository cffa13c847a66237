// Whole updates of scripted peripherals: the messages, the codes, and what becomes of a failure.
#include "support/failing_new.h"
#include "support/update_test.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

TEST_F(Flashing, ErasesSendsAndResetsTheMainComponent) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.commands(), (std::vector<Bytes>{wire::erase, record_message, checksum_message,
                                                     wire::reset, wire::stop}));
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(row.resetDevice, 1);
    EXPECT_EQ(reset_needed, 1);
    EXPECT_EQ(flash->send_count, 1);
    EXPECT_EQ(flash->CurrentIndex, 1);
    EXPECT_EQ(global_reading_information, 0);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(logged("Erase completed, now sending 1 firmware update records from file"), 1);
    EXPECT_EQ(logged("Reset needed after update completes"), 1);
    EXPECT_EQ(logged("Reset to be done for PID 4123"), 1);
    EXPECT_TRUE(threads.all_ended_within(10000));
    EXPECT_EQ(threads.unreclaimed(), 0);
}

TEST_F(Flashing, OtherComponentsAreNotReset) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    flashEntry& row = attach(device);
    add_component(row, 1, 0x0102);
    row.resetDevice = 1;
    reset_needed = 1;
    EXPECT_EQ(pass(1), 1);
    EXPECT_EQ(device.count(wire::reset), 0);
    EXPECT_EQ(row.resetDevice, 0);
    EXPECT_EQ(log.count("Reset needed"), 0);
}

TEST_F(Flashing, CommandsAreFinalWhileAnUpdateRuns) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    int information_at_erase = -1;
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            information_at_erase = global_reading_information;
        }
    };
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(information_at_erase, 1);
}

TEST_F(Flashing, ADeviceThatCantBeOpenedCountsAsUpdated) {
    add_file({.level = 0x0109});
    flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(reset_needed, 0);
    EXPECT_EQ(log.count("Could not get open status for '"), 1);
    EXPECT_EQ(debugged("0: close_device_after_use: closing handles"), 1);
    EXPECT_EQ(logged("Firmware update of Product ID 4123 COMP: 0 finished, rc=0"), 1);
}

TEST_F(Flashing, SoDoesADeviceWithBackgroundReadingOff) {
    FlashPeripheral& device = bus.add(flash_product);
    background_read = 0;
    add_file({.level = 0x0109});
    attach(device);
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(device.count(wire::erase), 0);
}

TEST_F(Flashing, ADeviceThatThereIsNoMemoryForIsGone) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    const flashEntry& row = attach(device);
    fail_nothrow_new(true);
    const int rc = flash_row(0);
    fail_nothrow_new(false);
    EXPECT_EQ(rc, FLASHDEVICEGONE);
    EXPECT_EQ(debugged("Could not open '" + std::string(row.DevicePath) + "'"), 1);
    EXPECT_EQ(debugged("Getting components for 4123"), 0);
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Flashing, AFailedEraseIsAWriteError) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(row.flashStatus, FLASHWRITEERROR);
    EXPECT_EQ(device.count(record_message), 0);
    EXPECT_EQ(device.count(wire::reset), 0);
    EXPECT_EQ(reset_needed, 0);
    EXPECT_EQ(logged("Erase of flash image area failed, rc=2"), 1);
    EXPECT_EQ(logged("Firmware update FAILED"), 1);
    EXPECT_EQ(logged("Firmware update of Product ID 4123 COMP: 0 finished, rc=2"), 1);
    EXPECT_EQ(logged("Update failed of Product ID 4123 COMP: 0 finished, rc=2, stopping "
                     "update"),
              1);
}

TEST_F(Flashing, AFailedTransferIsResetAllTheSame) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[record_message] = {{0x80}};
    add_file({.level = 0x0109});
    attach(device);
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(device.count(wire::reset), 1);
    EXPECT_EQ(flash->fe[0].resetDevice, 1);
    EXPECT_EQ(reset_needed, 1);
}

TEST_F(Flashing, AFailedEraseIsResetWhenThePassNeedsAReset) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(device);
    reset_needed = 1;
    EXPECT_EQ(flash_row(0), 2);
    EXPECT_EQ(device.count(wire::reset), 1);
    EXPECT_EQ(flash->fe[0].resetDevice, 1);
}

TEST_F(Flashing, MapsTheCodesFromBelow) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(flash_row(0, 1), FLASHDEVICEGONE);
    EXPECT_EQ(logged("Erase of flash image area failed, rc=13"), 1);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(flash_row(0, 1), FLASHWRITEERROR);
    erase_timeout = 30;
    device.answers[wire::erase] = {};
    EXPECT_EQ(flash_row(0, 1), FLASHWRITEERROR);
    EXPECT_EQ(logged("Erase of flash image area failed, rc=7"), 1);
    erase_timeout = 3000;
    device.answers.erase(wire::erase);
    directory.write("f0.dat", FirmwareBytes("41230102").record(0x10, 0, {1}));
    EXPECT_EQ(flash_row(0, 1), FILECORRUPTED);
    directory.write("f0.dat", FirmwareBytes("41230102").raw({0, 1}));
    EXPECT_EQ(flash_row(0, 1), FLASHWRITEERROR);
    EXPECT_EQ(logged("Firmware update FAILED"), 5);
}

TEST_F(Flashing, AResetThatTheDeviceDropsOffAtIsASuccess) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    device.on_command = [&](const Bytes& command) {
        if (command == checksum_message) {
            device.next_write_results = {0, LIBUSB_ERROR_PIPE};
        }
    };
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(logged("Reset sent, write failure expected!"), 1);
    EXPECT_EQ(log.count("Reset failed for PID"), 0);
}

TEST_F(Flashing, AFailedResetIsTheResultOfAGoodUpdate) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    std::unique_ptr<HIDDEVICE2> taken;
    // A reset fails only without a device: take it away while the last answer is waited for.
    device.answers[checksum_message] = {};
    sleeps.after_sleep = [&](int) {
        if (device.count(checksum_message) == 1 && taken == nullptr) {
            taken = std::move(flash->hiddev);
            device.report({0x01});
        }
    };
    EXPECT_EQ(flash_row(0), 2);
    EXPECT_EQ(device.count(wire::reset), 0);
    EXPECT_EQ(flash->fe[0].resetDevice, 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHWRITEERROR);
    EXPECT_EQ(logged("Reset failed for PID 4123, rc=2"), 1);
    EXPECT_EQ(logged("Firmware update FAILED"), 0);
    ASSERT_NE(taken, nullptr);
    taken->CloseWriteHandle();
    taken->CloseReadHandle();
    EXPECT_TRUE(threads.all_ended_within(10000));
}

TEST_F(Flashing, StopsTheReaderBeforeTheReset) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    int stopped_at_reset = -1;
    device.on_command = [&](const Bytes& command) {
        if (command == wire::reset) {
            stopped_at_reset = flash->ThreadTable[0].stopped;
        }
    };
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(stopped_at_reset, 1);
}

TEST_F(Flashing, StopsAtAFailureButVisitsTheRowsBehindIt) {
    FlashPeripheral& bad = bus.add(flash_product);
    FlashPeripheral& good = bus.add(flash_product);
    bad.answers[wire::erase] = {{0x40}};
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 2, .level = 0x0109});
    for (FlashPeripheral* const device : {&bad, &good}) {
        flashEntry& row = attach(*device);
        add_component(row, 1, 0x0102);
        add_component(row, 2, 0x0102);
    }
    // Minus the code, and the two successes count up from there.
    EXPECT_EQ(pass(1), 0);
    EXPECT_EQ(bad.count(wire::erase), 1);
    EXPECT_EQ(good.count(wire::erase), 2);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHWRITEERROR);
    EXPECT_EQ(flash->fe[1].flashStatus, FLASHSUCCESS);
}

TEST_F(Flashing, AFailureReplacesEarlierSuccesses) {
    FlashPeripheral& good = bus.add(flash_product);
    FlashPeripheral& bad = bus.add(flash_product);
    bad.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(good);
    attach(bad);
    EXPECT_EQ(pass(), -2);
}

TEST_F(Flashing, GoesOnAfterAFailureWhenAsked) {
    FlashPeripheral& bad = bus.add(flash_product);
    FlashPeripheral& good = bus.add(flash_product);
    bad.answers[wire::erase] = {{0x40}};
    continue_on_failure = 1;
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 2, .level = 0x0109});
    for (FlashPeripheral* const device : {&bad, &good}) {
        flashEntry& row = attach(*device);
        add_component(row, 1, 0x0102);
        add_component(row, 2, 0x0102);
    }
    EXPECT_EQ(pass(1), 2);
    EXPECT_EQ(bad.count(wire::erase), 2);
    EXPECT_EQ(logged("Update failed of Product ID 4123 COMP: 1 finished, rc=2, continue to next "
                     "device"),
              1);
    EXPECT_EQ(logged("Update failed of Product ID 4123 COMP: 2 finished, rc=2, continue to next "
                     "device"),
              1);
}

TEST_F(Flashing, TellsWhenADeviceIsGone) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(pass(), -5);
    EXPECT_EQ(row.flashStatus, FLASHDEVICEGONE);
    EXPECT_EQ(logged("Device gone while firmware update of Product ID 4123 COMP: 0 finished, "
                     "stopping update"),
              1);
    row.flashStatus = NOFLASHATTEMPT;
    continue_on_failure = 1;
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(logged("Device gone while firmware update of Product ID 4123 COMP: 0 finished, "
                     "continue to next device"),
              1);
}

TEST_F(Flashing, TellsOfFailuresOnTheConsole) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(device);
    const auto update = [this] { pass(); };
    const std::string failed =
        "Erase of flash image area failed, rc=2\n"
        "Firmware update FAILED\n"
        "Firmware update of Product ID 4123 COMP: 0 finished, rc=2\n"
        "Update failed of Product ID 4123 COMP: 0 finished, rc=2, ";
    const std::string gone =
        "Erase of flash image area failed, rc=13\n"
        "Firmware update FAILED\n"
        "Firmware update of Product ID 4123 COMP: 0 finished, rc=5\n"
        "Device gone while firmware update of Product ID 4123 COMP: 0 finished, ";
    const auto told_behind_the_start = [&] {
        flash->fe[0].flashStatus = NOFLASHATTEMPT;
        const std::string shown = console_of(1, 0, update);
        const std::string start = "    EC level when complete should be 01.09.00\n";
        return shown.substr(shown.find(start) + start.size());
    };
    for (const bool goes_on : {false, true}) {
        continue_on_failure = goes_on ? 1 : 0;
        const std::string end = goes_on ? "continue to next device\n" : "stopping update\n";
        EXPECT_EQ(told_behind_the_start(), failed + end);
        device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
        EXPECT_EQ(told_behind_the_start(), gone + end);
    }
}

TEST_F(Flashing, ADeviceThatIsUnpluggedInTheMiddleFails) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.on_command = [&](const Bytes& command) {
        if (command == record_message) {
            device.unplug();
        }
    };
    EXPECT_EQ(flash_row(0, 1), FLASHDEVICEGONE);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Flashing, ADeviceThatIsClosedWhileItIsWaitedForIsGone) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.answers[record_message] = {};
    sleeps.after_sleep = [&](int) {
        if (device.count(record_message) == 1) {
            flash->ThreadTable[0].device_closed = 1;
        }
    };
    EXPECT_EQ(flash_row(0, 1), FLASHDEVICEGONE);
    EXPECT_EQ(logged("Read failed on status of command, rc=13"), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHDEVICEGONE);
}

TEST_F(Flashing, AMarkerSurvivesAFailure) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    flashEntry& row = attach(device);
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(row.flashStatus, FLASHWRITEERROR);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Flashing, SaysOnTheConsoleWhatHappensToADevice) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    const std::string shown = console_of(1, 0, [this] { pass(); });
    EXPECT_NE(shown.find("    Starting firmware update of Product ID 4123"), std::string::npos);
    EXPECT_NE(shown.find(" %100 complete\n"), std::string::npos);
    EXPECT_NE(shown.find("Reset to be done for PID 4123\n"), std::string::npos);
    EXPECT_EQ(shown.find("Erase completed"), std::string::npos);
    EXPECT_EQ(shown.find("Reset needed"), std::string::npos);
    EXPECT_EQ(shown.find("Checksums written"), std::string::npos);
}

TEST_F(Flashing, SaysWhyNothingWasSentToADevice) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    add_device(0x0102);
    attach(device);
    const auto told = [&](int entry) {
        return console_of(1, 0, [&] { EXPECT_EQ(flash_row(entry), 0); });
    };
    const std::string start = "Nothing was sent to Product ID 4123 COMP: 0: ";
    EXPECT_EQ(told(0), start + "it can't be opened\n");
    threads.fail_with(EAGAIN);
    EXPECT_EQ(told(1), start +
                           "no thread can be started to read its answers: Resource temporarily "
                           "unavailable\n");
    threads.fail_with(0);
    background_read = 0;
    EXPECT_EQ(told(1), start + "background reading is switched off\n");
    EXPECT_EQ(device.count(wire::erase), 0);
}
