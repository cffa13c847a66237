#include "firmware/firmware_file.h"
#include "firmware/firmware_search.h"
#include "flash_protocol.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/zelflshhid.h"

#include <algorithm>
#include <cstring>
#include <ctime>

static_assert(NOFLASHFILE == no_firmware_file);

const char* const flash_code_description[14] = {
    "Flash succeeded",
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
    "Interface not avilable",
};

const int ExclusionList[5] = {0x3C75, 0x3C76, 0x3C77, 0x3C78, 0x3C79};
const char szEquals[] = "==================================================";
int global_reading_information = 0;
int read_hid_in_progress = 0;
int NewMsgExitStatus = 0;

namespace {

constexpr int longest_wait_at_the_end = 1000;  // milliseconds

/// The current local time with the newline that `ctime` ends it with.
const char* time_text() {
    const time_t now = time(nullptr);
    return ctime(&now);
}

}  // namespace

const char* flash_code_text(int code) {
    const bool in_table = code >= 0 && code < static_cast<int>(std::size(flash_code_description));
    return in_table ? flash_code_description[code] : "";
}

ZELFLASH::ZELFLASH()
    : ThreadIndex(0),
      CurrentIndex(0),
      numberOfFlashEntries(0),
      fe{},
      installedPath{},
      devicePath{},
      status{},
      last_status{},
      use_thread_reading(0),
      device_in_use(0),
      device_closed(0),
      status_ready(0),
      sleep_time(shortest_sleep_time),
      hThread(0),
      lThreadId(0),
      old_percentage(0),
      send_count(0) {
    writelog(0, "%s\n", szEquals);
    writelog(0, "USB Flash Started at %s\n", time_text());
    for (thread_table& slot : ThreadTable) {
        slot = {.stopped = 1,
                .device_in_use = 0,
                .device_closed = 1,
                .read_hid_in_progress = 0,
                .hThread = 0};
    }
}

ZELFLASH::~ZELFLASH() {
    finish();
}

bool ZELFLASH::finish() {
    const bool readers_left = wait_for_readers_to_leave(longest_wait_at_the_end);
    if (!finished) {
        finished = true;
        writelog(0, "USB Flash ended at %s", time_text());
        writelog(0, "%s\n", szEquals);
        if (readers_left) {
            trace.reset();
        } else {
            static_cast<void>(trace.release());
        }
    }
    return readers_left;
}

void ZELFLASH::reset_device_list() {
    for (flashEntry& entry : fe) {
        entry = {};
    }
    numberOfFlashEntries = 0;
    for (DeviceListEntry& selected : device_list) {
        selected.fe = nullptr;
    }
    for (SerialNoListEntry& selected : serial_no_list) {
        selected.fe = nullptr;
    }
}

void ZELFLASH::initialize_device_data(int index, const char* path, const char* serial,
                                      int product_id, int ec_level) {
    if (index < 0 || index >= max_flash_entries) {
        return;
    }
    flashEntry& entry = fe[index];
    entry.component_count = 0;
    for (component_entry& component : entry.component) {
        component = {};
    }
    snprintf(entry.DevicePath, sizeof(entry.DevicePath), "%s", path);
    snprintf(entry.serialNumber, sizeof(entry.serialNumber), "%s", serial);
    entry.flashStatus = NOFLASHATTEMPT;
    entry.product_id = product_id;
    entry.ec_level = ec_level;
}

int ZELFLASH::IsFlashDeviceSupported(unsigned short vendor, unsigned short usage) {
    if (usage != flash_usage::interface) {
        return 0;
    }
    const bool is_ours = std::find(std::begin(flash_vendors), std::end(flash_vendors), vendor) !=
                         std::end(flash_vendors);
    return is_ours || oem_vendor == 1 ? 1 : 0;
}

int ZELFLASH::is_there_a_firmware_file_for_device(int product_id) {
    return ::is_there_a_firmware_file_for_device(product_id);
}

int take_reader_slot(ZELFLASH& session) {
    // 128 devices, opened twice for their information and once a component, stay below the
    // table's size.
    int& next = session.CurrentIndex;
    return next < max_reader_slots - 1 ? next++ : max_reader_slots - 1;
}
