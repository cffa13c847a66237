#include "exit_code.h"
#include "firmware/component_text.h"
#include "flash_protocol.h"
#include "journal/file_handle.h"
#include "journal/output.h"
#include "process/signal_hold.h"
#include "session/exchange.h"
#include "session/plural.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshhid.h"

#include <new>

namespace {

constexpr unsigned long sleep_between_passes = 4000;  // milliseconds

/// A device that never says that a block is its last would fill the disk.
constexpr int most_blocks = 1 << 16;

void report_flash_error(int result) {
    writelog(1, "Error %d flashing devices\n", result);
    switch (-result) {
        case FLASHDEVICEGONE:
            writelog(1, "Device disconnected\n");
            break;
        case FLASHRESETERROR:
            writelog(1, "Device reset failed\n");
            break;
        case FILECORRUPTED:
            writelog(1, "Firmware update file bad\n");
            break;
        default:
            break;
    }
}

class Reset {
  public:
    static void announce(const flashEntry& entry) {
        writelog(1, "Resetting device PID:%04x SN='%s'\n", entry.product_id, entry.serialNumber);
    }
    static int run(ZELFLASH& session, const flashEntry&, int) {
        return session.send_reset_command();
    }
    static void report(const flashEntry& entry, int rc) {
        if (rc == 0) {
            writelog(1, "Device PID:%04x reset successfully\n", entry.product_id);
        } else {
            writelog(1, "Device PID:%04x reset failed, rc=%d\n", entry.product_id, rc);
        }
    }
    static void summarize(int successes, int failures) {
        if (successes > 0) {
            writelog(1, "Reset successful on %d device%s\n", successes, plural(successes));
        }
        if (failures > 0) {
            writelog(1, "Reset failed on %d device%s\n", failures, plural(failures));
        }
    }
};

class ReadBack {
  public:
    ReadBack(int component, const char* path) : component_(component), path_(path) {}

    void announce(const flashEntry& entry) const {
        writelog(1, "Reading data from device PID:%04x Component:%d SN='%s'\n", entry.product_id,
                 component_, entry.serialNumber);
    }
    int run(ZELFLASH& session, const flashEntry& entry, int index) const {
        const bool in_table = component_ >= 0 && component_ < max_components;
        const int level = in_table ? entry.component[component_].ec_level : 0;
        return session.read_component_data(component_, path_, entry.product_id, level, index);
    }
    void report(const flashEntry& entry, int rc) const {
        if (rc == 0) {
            writelog(1, "Device PID:%04x Component:%d read successfully\n", entry.product_id,
                     component_);
        } else {
            writelog(1, "Device PID:%04x Component:%d read failed, rc=%d\n", entry.product_id,
                     component_, rc);
        }
    }
    static void summarize(int successes, int failures) {
        if (successes > 0) {
            writedebug("Read successful on %d device%s\n", successes, plural(successes));
        }
        if (failures > 0) {
            writedebug("Read failed on %d device%s\n", failures, plural(failures));
        }
    }

  private:
    int component_;
    const char* path_;
};

/// Opens each selected device, hands it to `operation`, and closes it. An operation has `announce`,
/// `run`, which returns 0 or the code of the failure, `report` and `summarize`.
template <typename Operation>
int run_on_selected_devices(ZELFLASH& session, const Operation& operation) {
    int attempts = 0;
    int successes = 0;
    int failures = 0;
    for (int row = 0; row < session.numberOfFlashEntries; ++row) {
        flashEntry& entry = session.fe[row];
        if (entry.flashStatus != NOFLASHATTEMPT) {
            continue;
        }
        int rc = FLASHDEVICEGONE;
        session.hiddev.reset(new (std::nothrow) HIDDEVICE2(0, 0, entry.DevicePath));
        if (session.hiddev != nullptr) {
            const int index = take_reader_slot(session);
            if (session.setup_device_for_reading(entry.DevicePath, reader_start_timeout, index) !=
                0) {
                // The devices behind this one are left alone, and the command has succeeded.
                session.close_device_after_use(index, 1);
                return 0;
            }
            ++attempts;
            global_reading_information = 1;
            operation.announce(entry);
            rc = operation.run(session, entry, index);
            global_reading_information = 0;
            session.close_device_after_use(index, 1);
        }
        operation.report(entry, rc);
        entry.flashStatus = rc == 0 ? FLASHRESETSUCCESS : FLASHRESETERROR;
        ++(rc == 0 ? successes : failures);
    }
    if (attempts == 0) {
        writelog(1, "No devices selected\n");
        return EXIT_NO_DEVICES;
    }
    operation.summarize(successes, failures);
    return failures > 0 ? EXIT_DEVICE_FAILED : 0;
}

int read_records(ZELFLASH& session, FILE* output, int component, int index) {
    writedebug("Read all records from 0x%04x\n",
               session.hiddev != nullptr && session.hiddev->intf != nullptr
                   ? session.hiddev->intf->GetProductID()
                   : 0);
    int rc = send_query(session, FlashCommand::read_all_records, component, index);
    if (rc != 0) {
        return rc;
    }
    for (int block = 0; block < most_blocks; ++block) {
        char data[record_answer::size] = {};
        rc = session.read_data(data, sizeof(data));
        const AnswerView answer(data, sizeof(data));
        writedebug("Reading data, rc=%d, buffer[]=%02x.%02x.%02x.%02x\n", rc, answer[0], answer[1],
                   answer[2], answer[3]);
        if (rc != 0) {
            writelog(Verbose, "Reading data failed, rc=%d\n", rc);
            return rc;
        }
        const bool is_last = (answer[record_answer::flags] & record_answer::last_block) != 0;
        const std::size_t length = answer[record_answer::record];
        const std::size_t size = is_last && length == 0
                                     ? record_answer::end_size
                                     : length + record_answer::bytes_beside_payload;
        fwrite(data + record_answer::record, size, 1, output);
        if (is_last) {
            return 0;
        }
    }
    writelog(1, "The device does not end its data after %d blocks\n", most_blocks);
    return FLASHREADERROR;
}

}  // namespace

int ZELFLASH::list_attached_devices() {
    build_flash_table();
    writelog(0, "\nListing %d devices:\n", numberOfFlashEntries);
    if (numberOfFlashEntries == 0) {
        writelog(1, "No devices found\n");
        return EXIT_NO_DEVICES;
    }
    for (int row = 0; row < numberOfFlashEntries; ++row) {
        const flashEntry& entry = fe[row];
        if (entry.flashStatus != NOFLASHATTEMPT) {
            continue;
        }
        for (int number = 0; number < max_components; ++number) {
            const component_entry& component = entry.component[number];
            if (number != 0 && component.comp_id < 1) {
                continue;
            }
            writelog(1, "PID: %04x  COMP: %02x  TYPE: %-3s  EC: %02x.%02x%-3s (SN='%s')\n",
                     entry.product_id, component.comp_id, device_type_text(component.comp_type),
                     (component.ec_level >> 8) & 0xFF, component.ec_level & 0xFF,
                     build_suffix(component.build_level).text, entry.serialNumber);
        }
    }
    return 0;
}

int ZELFLASH::flash_all_devices() {
    build_flash_table();
    if (numberOfFlashEntries == 0) {
        writelog(1, "No devices found\n");
        return EXIT_NO_DEVICES;
    }
    int reset_needed = 0;
    int updated = 0;
    int result = start_flash(0, reset_needed);
    updated += result > 0 ? result : 0;
    if (result >= 0 && SignalHold::held_signal() == 0) {
        if (reset_needed == 1) {
            writelog(1, "Sleeping to allow reset device to respond\n");
            chSleep(sleep_between_passes);
            writelog(1, "Sleeping finished\n");
            build_flash_table();
        }
        result = start_flash(1, reset_needed);
        updated += result > 0 ? result : 0;
    }
    if (result < 0) {
        report_flash_error(result);
    }
    if (updated == 0) {
        writelog(1, "No devices updated\n");
        return EXIT_NOTHING_UPDATED;
    }
    writelog(1, "Updated %d device%s\n", updated, plural(updated));
    return 0;
}

int ZELFLASH::reset_devices() {
    build_flash_table();
    if (numberOfFlashEntries == 0) {
        writelog(1, "No devices found\n");
        return EXIT_NO_DEVICES;
    }
    return run_on_selected_devices(*this, Reset{});
}

int ZELFLASH::get_device_data_for_component(int component, const char* path) {
    build_flash_table();
    if (numberOfFlashEntries == 0) {
        hiddev.reset();
        writelog(1, "No devices found\n");
        return EXIT_NO_DEVICES;
    }
    return run_on_selected_devices(*this, ReadBack(component, path));
}

int ZELFLASH::read_component_data(int component, const char* path, int product_id, int ec_level,
                                  int index) {
    FileHandle output(open_for_writing(path));
    if (output == nullptr) {
        writedebug("Could not open '%s' for writing\n", path);
        return -1;
    }
    fprintf(output.get(), "%04x%04x", static_cast<unsigned int>(product_id),
            static_cast<unsigned int>(ec_level));
    if (ThreadTable[index].hThread == 0) {
        start_background_thread(reader_start_timeout, index);
    }
    const int rc = read_records(*this, output.get(), component, index);
    if (rc != 0) {
        return rc;
    }
    const bool had_error = ferror(output.get()) != 0;
    // Some file systems say only now that there was no room.
    if (fclose(output.release()) != 0 || had_error) {
        writelog(1, "Could not write all data to '%s'\n", path);
        return -1;
    }
    writedebug("Data transfer finished\n");
    return 0;
}
