#include "journal/output.h"
#include "session/zelflash.h"
#include "settings.h"

#include <cstdlib>
#include <cstring>

namespace {

bool is_selected_serial_number(const char* serial_number) {
    for (int i = 0; i < NumberOfSerialNoListEntries; ++i) {
        if (strcmp(serial_no_list[i].serial_number, serial_number) == 0) {
            return true;
        }
    }
    return false;
}

void select_row(flashEntry& entry, flashEntry*& list_pointer) {
    entry.flashStatus = DEVICE_SELECTED;
    list_pointer = &entry;
}

void mark_selected_products(ZELFLASH& session) {
    for (int i = 0; i < NumberOfDeviceListEntries; ++i) {
        DeviceListEntry& wanted = device_list[i];
        const unsigned long product_id = strtoul(wanted.PIDstr, nullptr, 16);
        if (product_id == 0) {
            wanted.fe = nullptr;
            continue;
        }
        for (int row = 0; row < session.numberOfFlashEntries; ++row) {
            if (static_cast<unsigned long>(session.fe[row].product_id) == product_id &&
                (NumberOfSerialNoListEntries == 0 ||
                 is_selected_serial_number(session.fe[row].serialNumber))) {
                select_row(session.fe[row], wanted.fe);
            }
        }
    }
}

void mark_selected_serial_numbers(ZELFLASH& session) {
    for (int i = 0; i < NumberOfSerialNoListEntries; ++i) {
        for (int row = 0; row < session.numberOfFlashEntries; ++row) {
            if (strcmp(session.fe[row].serialNumber, serial_no_list[i].serial_number) == 0) {
                select_row(session.fe[row], serial_no_list[i].fe);
            }
        }
    }
}

}  // namespace

int ZELFLASH::build_flash_table() {
    writedebug("Finding available Flash Devices\n");
    reset_device_list();
    build_initial_device_list();
    writedebug("Found %d device%s with update interface\n", numberOfFlashEntries,
               numberOfFlashEntries < 2 ? "" : "s");
    determine_select_devices();
    return numberOfFlashEntries;
}

void ZELFLASH::determine_select_devices() {
    const bool has_filter =
        select_devices == 1 && (NumberOfDeviceListEntries > 0 || NumberOfSerialNoListEntries > 0);
    for (int row = 0; row < numberOfFlashEntries; ++row) {
        fe[row].flashStatus = has_filter ? NOFLASHALLOWED : NOFLASHATTEMPT;
    }
    int count = numberOfFlashEntries;
    if (has_filter) {
        if (NumberOfDeviceListEntries > 0) {
            mark_selected_products(*this);
        } else {
            mark_selected_serial_numbers(*this);
        }
        count = 0;
        for (int row = 0; row < numberOfFlashEntries; ++row) {
            const bool is_selected = fe[row].flashStatus == DEVICE_SELECTED;
            fe[row].flashStatus = is_selected ? NOFLASHATTEMPT : NOFLASHALLOWED;
            count += is_selected ? 1 : 0;
        }
    }
    writedebug("Found %d device%s to check for updating\n", count, count < 2 ? "" : "s");
}
