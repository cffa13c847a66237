#include "firmware/component_text.h"
#include "firmware/file_copy.h"
#include "firmware/firmware_file.h"
#include "firmware/firmware_search.h"
#include "flash_protocol.h"
#include "journal/file_handle.h"
#include "journal/output.h"
#include "process/signal_hold.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshhid.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

namespace {

/// One pass of `start_flash`.
struct UpdatePass {
    ZELFLASH& session;
    bool is_for_main_components;
    int& reset_needed;
    int result = 0;
};

/// A component of a row, its firmware file, and why it is sent.
struct ComponentUpdate {
    flashEntry& entry;
    component_entry& component;
    const FlashFile& file;
    std::string file_name;
    FileHandle stream{};
    FileCopy copy{};
    bool is_forced = false;
    bool has_force_marker = false;
};

/// Main components of devices with this many components are given time to come back.
constexpr int component_count_that_needs_sleep = 3;

/// A version as one number that compares.
int comparable_version(int ec_level, int build_level) {
    return (ec_level << 8) | build_level;
}

/// The second of the level's four hexadecimal digits, as its character minus '0': a letter gives 49
/// to 54.
int version_digit(int ec_level) {
    char digits[16];
    snprintf(digits, sizeof(digits), "%04x", static_cast<unsigned int>(ec_level));
    return digits[1] - '0';
}

/// The first file for the component; null when there is none.
const FlashFile* find_firmware_file(const flashEntry& entry, const component_entry& component) {
    const int device_version = version_digit(component.ec_level);
    const int last = std::min(numberOfusbFlashFiles, max_list_entries - 1);
    // One row past the count.
    for (int i = 0; i <= last; ++i) {
        FlashFile& file = files[i];
        if (comp_update_id > 0) {
            file.comp_id = comp_update_id;
        }
        if (file.product_id != entry.product_id || file.comp_id != component.comp_id) {
            continue;
        }
        if (skip_version_check == 1 || file.ec_version == device_version) {
            return &file;
        }
        writelog(1, "PID: %04x COMP: %d - Version mismatch (file=%x, device=%x)\n",
                 entry.product_id, component.comp_id, static_cast<unsigned int>(file.ec_version),
                 static_cast<unsigned int>(device_version));
    }
    return nullptr;
}

void report_file_and_device(const std::string& file_name, const FlashFile& file,
                            const flashEntry& entry, const component_entry& component) {
    writelog(1, "\nFirmware file found:  %s\n", file_name.c_str());
    writelog(1, "  File   - PID: %04x  COMP: %02x  TYPE: %-3s  CONTROL: %-11s  EC: %s\n",
             file.product_id, file.comp_id, file_type_text(file.comp_type),
             control_text(file.version_method), ec_text(file.ec_level, file.build_level).text);
    writelog(1, "  Device - PID: %04x  COMP: %02x  TYPE: %-3s  CONTROL: %-11s  EC: %s (SN='%s')\n",
             entry.product_id, component.comp_id, file_type_text(component.comp_type),
             control_text(component.version_method),
             ec_text(component.ec_level, component.build_level).text, entry.serialNumber);
}

void report_versions(const char* cause, const flashEntry& entry, const component_entry& component,
                     const FlashFile& file) {
    writelog(1, "    %s for Product ID: %04x COMP: %d (from: %s -> to: %s)\n", cause,
             entry.product_id, component.comp_id,
             ec_text(component.ec_level, component.build_level).text,
             ec_text(file.ec_level, file.build_level).text);
}

void report_missing_file(const flashEntry& entry, const component_entry& component) {
    writelog(1, "No flash file for PID: %04x C COMP: %d\n", entry.product_id, component.comp_id);
}

/// Why a device that could not be set up for its update was sent nothing; `rc` is the set-up's.
std::string reason_for_silence(bool has_device, int rc) {
    if (!has_device) {
        return "it can't be opened";
    }
    return background_read == 1
               ? std::string("no thread can be started to read its answers: ") + strerror(rc)
               : "background reading is switched off";
}

/// Tells of records whose messages do not fit into the device's report: the rest of each is cut off
/// on the wire, and the device's answer alone says what becomes of it.
void report_long_records(FILE* file, int report_size) {
    if (fseek(file, firmware_header_size, SEEK_SET) != 0) {
        return;
    }
    constexpr int bytes_beside_body = static_cast<int>(image_message::body_start);
    FirmwareRecordReader records(file);
    FirmwareRecord record;
    int number = 0;
    int first = 0;
    int first_size = 0;
    int count = 0;
    for (RecordResult result = records.next(record);
         result == RecordResult::whole || result == RecordResult::short_body;
         result = records.next(record)) {
        ++number;
        const int size = record.body_size + bytes_beside_body;
        if (result == RecordResult::short_body || size <= report_size) {
            continue;
        }
        if (++count == 1) {
            first = number;
            first_size = size;
        }
    }
    if (count > 0) {
        writelog(1,
                 "Messages are cut short: record %d needs %d bytes, the device's report holds %d "
                 "(records cut short: %d)\n",
                 first, first_size, report_size, count);
    }
}

/// What the device's report descriptor says against this image, before anything is erased.
void report_size_limits(FILE* file, const USBINTF& device) {
    const int report_size = device.GetOutputReportSize(flash_usage::page, flash_usage::command);
    if (report_size == 0) {
        writelog(
            1, "The report for messages to the device is not known: without it nothing is sent\n");
    } else if (file != nullptr) {
        report_long_records(file, report_size);
    }
}

bool is_due(ComponentUpdate& update) {
    const FlashFile& file = update.file;
    const component_entry& component = update.component;
    const int file_version = comparable_version(file.ec_level, file.build_level);
    const int device_version = comparable_version(component.ec_level, component.build_level);
    const bool is_random = file.version_method == 1 || component.version_method == 1;
    if (is_random && file_version != device_version) {
        report_versions("Random version control", update.entry, component, file);
        return true;
    }
    if (!is_random && file_version > device_version) {
        return true;
    }
    if (force_update != 1) {
        update.has_force_marker = force_marker_exists(update.file_name.c_str());
    }
    update.is_forced = force_update == 1 || update.has_force_marker;
    if (update.is_forced) {
        report_versions("Force update", update.entry, component, file);
        return true;
    }
    update.entry.flashStatus = ECMATCHES;
    writelog(1,
             is_random
                 ? "    Random control with file and device EC levels equal, no update needed "
                   "for PID: %04x  COMP: %d\n"
                 : "    File EC level smaller or equal, no update needed for PID: %04x  "
                   "COMP: %d\n",
             update.entry.product_id, component.comp_id);
    return false;
}

/// Takes the copy that is sent. A file that was replaced since it was listed may be another
/// device's or component's: it counts as one that can't be opened.
bool take_copy(ComponentUpdate& update) {
    std::string reason = update.copy.take(update.stream.get());
    if (reason.empty() && !is_as_listed(update.file, update.copy.stream())) {
        reason = "it is not the file that was listed";
    }
    if (reason.empty()) {
        return true;
    }
    update.entry.flashStatus = NOFLASHFILE;
    writelog(1, "File '%s' is not sent: %s\n", update.file_name.c_str(), reason.c_str());
    report_missing_file(update.entry, update.component);
    return false;
}

int download(ComponentUpdate& update, UpdatePass& pass) {
    if (check_for_update_only != 0) {
        if (pass.is_for_main_components) {
            pass.reset_needed = 1;
        }
        return 0;
    }
    ZELFLASH& session = pass.session;
    const int row = static_cast<int>(&update.entry - session.fe);
    return session.flash_device(update.copy.stream(), row, update.component.ec_level,
                                update.component.comp_id, pass.reset_needed,
                                take_reader_slot(session));
}

void finish_update(const ComponentUpdate& update, UpdatePass& pass) {
    ++pass.result;
    if (update.is_forced) {
        update.entry.flashStatus = FLASHFORCED;
    }
    if (update.has_force_marker) {
        delete_force_marker(update.file_name.c_str());
    }
    if (update.component.comp_id == 0 &&
        update.entry.component_count >= component_count_that_needs_sleep) {
        writelog(1, "Main component (%d) of device %04x updated.\n", update.component.comp_id,
                 update.entry.product_id);
        if (SignalHold::held_signal() != 0) {
            return;
        }
        writelog(1, "Sleeping for %d milliseconds before using device again\n",
                 reset_sleep_timeout);
        pass.session.chSleep(static_cast<unsigned long>(std::max(reset_sleep_timeout, 0)));
    }
}

bool update_component(ComponentUpdate& update, UpdatePass& pass) {
    if (check_for_update_only == 0 && !take_copy(update)) {
        return true;
    }
    const int product_id = update.entry.product_id;
    const int number = update.component.comp_id;
    writelog(1, "    Starting firmware update of Product ID %04x COMP: %d\n", product_id, number);
    writelog(1, "    EC level when complete should be %s\n",
             ec_text(update.file.ec_level, update.file.build_level).text);
    pass.session.send_count = count_download_lines(
        check_for_update_only == 0 ? update.copy.stream() : update.stream.get());
    const int rc = download(update, pass);
    update.entry.flashStatus = rc;
    writelog(1, "Firmware update of Product ID %04x COMP: %d finished, rc=%d\n", product_id, number,
             rc);
    if (rc == 0) {
        finish_update(update, pass);
        return true;
    }
    const bool goes_on = continue_on_failure == 1;
    if (rc == FLASHDEVICEGONE) {
        writelog(1,
                 goes_on
                     ? "Device gone while firmware update of Product ID %04x COMP: %d finished, "
                       "continue to next device\n"
                     : "Device gone while firmware update of Product ID %04x COMP: %d finished, "
                       "stopping update\n",
                 product_id, number);
    } else {
        writelog(1,
                 goes_on ? "Update failed of Product ID %04x COMP: %d finished, rc=%d, continue to "
                           "next device\n"
                         : "Update failed of Product ID %04x COMP: %d finished, rc=%d, stopping "
                           "update\n",
                 product_id, number, rc);
    }
    if (!goes_on) {
        // The pass goes on with the next row all the same, and later successes count up from here.
        pass.result = -rc;
    }
    return goes_on;
}

/// False when the row's other components are not visited any more.
bool consider_component(flashEntry& entry, component_entry& component, UpdatePass& pass) {
    const FlashFile* file =
        numberOfusbFlashFiles < 0 ? nullptr : find_firmware_file(entry, component);
    if (file == nullptr) {
        entry.flashStatus = NOFLASHFILE;
        return true;
    }
    ComponentUpdate update = {.entry = entry,
                              .component = component,
                              .file = *file,
                              .file_name = std::string(file->path) + file->filename};
    update.stream = open_regular_file(update.file_name.c_str());
    if (update.stream == nullptr) {
        entry.flashStatus = NOFLASHFILE;
        report_missing_file(entry, component);
        return true;
    }
    report_file_and_device(update.file_name, *file, entry, component);
    return is_due(update) ? update_component(update, pass) : true;
}

int erase_and_send(ZELFLASH& session, FILE* file, int component, int& reset_needed, int index) {
    int rc = session.send_erase_command(index);
    if (rc != 0) {
        writelog(1, "Erase of flash image area failed, rc=%d\n", rc);
    } else {
        writelog(Verbose, "Erase completed, now sending %d firmware update records from file\n",
                 session.send_count);
        rc = session.send_firmware_file_data(file, index);
        if (component == 0) {
            writelog(Verbose, "Reset needed after update completes\n");
            reset_needed = 1;
        }
    }
    if (rc == 0) {
        return 0;
    }
    writelog(1, "Firmware update FAILED\n");
    if (rc == exchange_device_closed) {
        return FLASHDEVICEGONE;
    }
    return rc == FILECORRUPTED ? FILECORRUPTED : FLASHWRITEERROR;
}

int reset_after_update(ZELFLASH& session, flashEntry& entry, int rc, int index) {
    entry.resetDevice = 1;
    writelog(1, "Reset to be done for PID %04x\n", entry.product_id);
    session.ThreadTable[index].stopped = 1;
    const int reset_rc = session.send_reset_command();
    if (reset_rc != 0) {
        writelog(1, "Reset failed for PID %04x, rc=%d\n", entry.product_id, reset_rc);
    }
    return rc == 0 ? reset_rc : rc;
}

}  // namespace

int ZELFLASH::start_flash(int component, int& reset_needed) {
    UpdatePass pass = {
        .session = *this, .is_for_main_components = component == 0, .reset_needed = reset_needed};
    const int last_component = component == 0 ? 0 : max_components - 1;
    for (int row = 0; row < numberOfFlashEntries && SignalHold::held_signal() == 0; ++row) {
        flashEntry& entry = fe[row];
        if (entry.flashStatus == NOFLASHALLOWED || entry.flashStatus == FLASHDEVICEGONE) {
            continue;
        }
        for (int number = component; number <= last_component; ++number) {
            component_entry& listed = entry.component[number];
            if (number != 0 && listed.comp_id < 1) {
                continue;
            }
            if (SignalHold::held_signal() != 0 || !consider_component(entry, listed, pass)) {
                break;
            }
        }
    }
    return pass.result;
}

int ZELFLASH::flash_device(FILE* file, int entry, int device_ec_level, int component,
                           int& reset_needed, int index) {
    flashEntry& row = fe[entry];
    old_percentage = 0;
    writedebug("Opening '%s' component %d with ec_level=%02x\n", row.DevicePath, component,
               static_cast<unsigned int>(device_ec_level));
    hiddev.reset(new (std::nothrow) HIDDEVICE2(0, 0, row.DevicePath));
    writedebug("'%s' hiddev=%p\n", row.DevicePath, static_cast<void*>(hiddev.get()));
    if (hiddev == nullptr) {
        writedebug("Could not open '%s'\n", row.DevicePath);
        return FLASHDEVICEGONE;
    }
    writedebug("Getting components for %04x\n", row.product_id);
    const int setup_rc = setup_device_for_reading(row.DevicePath, reader_start_timeout, index);
    if (setup_rc != 0) {
        // A device that can't be opened is left alone and counts as a success.
        writelog(1, "Nothing was sent to Product ID %04x COMP: %d: %s\n", row.product_id, component,
                 reason_for_silence(hiddev != nullptr, setup_rc).c_str());
        close_device_after_use(index, 1);
        return 0;
    }
    const SignalHold hold({row.product_id, row.serialNumber, component});
    report_size_limits(file, *hiddev->intf);
    global_reading_information = 1;
    answer_count.start();
    int rc = erase_and_send(*this, file, component, reset_needed, index);
    SignalHold::image_is_over();
    if (rc == 0) {
        answer_count.tell_doubts();
    }
    if (reset_needed == 1 && component == 0) {
        // The flag may stem from an earlier device of the pass: this one is reset all the same.
        rc = reset_after_update(*this, row, rc, index);
    } else {
        row.resetDevice = 0;
    }
    row.flashStatus = rc;
    global_reading_information = 0;
    close_device_after_use(index, 1);
    return rc;
}
