#include "support/flash_test.h"

#include "firmware/firmware_search.h"
#include "settings.h"
#include "usb/zelflshhid.h"

#include <sstream>

namespace {

constexpr int longest_wait = 10000;  // milliseconds

/// The options as a run without arguments has them, and no firmware files.
void restore_options() {
    reset_options();
    information_timeout = default_information_timeout;
    erase_timeout = default_erase_timeout;
    command_timeout = default_command_timeout;
    checksum_timeout = default_checksum_timeout;
    reset_sleep_timeout = default_reset_sleep_timeout;
    force_update = continue_on_failure = select_devices = device_firmware_match_only = 0;
    sdv_dawu_hw = old_progress = skip_version_check = oem_vendor = check_for_update_only = 0;
    comp_update_id = -1;
    background_read = 1;
    NumberOfDeviceListEntries = NumberOfSerialNoListEntries = 0;
    numberOfusbFlashFiles = 0;
    for (FlashFile& file : files) {
        file = {};
    }
    global_reading_information = 0;
    read_hid_in_progress = 0;
}

}  // namespace

FlashTest::FlashTest() : flash(std::make_unique<ZELFLASH>()) {
    restore_options();
}

FlashTest::~FlashTest() {
    threads.let_go();
    for (int slot = 0; flash != nullptr && slot < max_reader_slots; ++slot) {
        if (flash->ThreadTable[slot].hThread != 0) {
            flash->close_device_after_use(slot, 0);
        }
    }
    threads.all_ended_within(longest_wait);
    flash.reset();
}

int FlashTest::logged(const std::string& line) const {
    std::istringstream stream(log.text());
    int found = 0;
    for (std::string read; std::getline(stream, read);) {
        found += read == line ? 1 : 0;
    }
    return found;
}

int FlashTest::debugged(const std::string& line) const {
    return logged("3:" + line);
}

void FlashTest::open_directly(FlashPeripheral& peripheral, int slot) {
    flash->hiddev = std::make_unique<HIDDEVICE2>(0, 0, peripheral.path().c_str());
    ASSERT_EQ(flash->setup_device_for_reading(peripheral.path().c_str(), 0, slot), 0);
}

void FlashTest::open_with_reader(FlashPeripheral& peripheral, int slot) {
    flash->hiddev = std::make_unique<HIDDEVICE2>(0, 0, peripheral.path().c_str());
    ASSERT_EQ(flash->setup_device_for_reading(peripheral.path().c_str(), 2000, slot), 0);
    ASSERT_EQ(flash->use_thread_reading, 1);
    ASSERT_TRUE(peripheral.read_is_pending_within(5000));
}

flashEntry& FlashTest::add_row(FlashPeripheral& peripheral, int level) {
    const int row = flash->numberOfFlashEntries++;
    flash->initialize_device_data(row, peripheral.path().c_str(), "SN-0042",
                                  peripheral.usb().descriptor.idProduct, 0x0123);
    flash->fe[row].component[0].ec_level = level;
    flash->fe[row].component[0].comp_type = 1;
    flash->fe[row].component_count = 1;
    return flash->fe[row];
}

Bytes list_answer(int length, const std::vector<Bytes>& entries) {
    return join(
        {{0x01, 0x00, static_cast<unsigned char>(length), 0x00, 0x00, 0x00}, join(entries)});
}
