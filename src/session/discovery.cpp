#include "firmware/component_text.h"
#include "flash_protocol.h"
#include "journal/output.h"
#include "session/exchange.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshenum.h"
#include "usb/zelflshhid.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace {

constexpr std::size_t data_answer_size = 255;
constexpr uchar unknown_revision = 0xFF;

struct FeatureText {
    uchar bit;
    const char* text;
};
constexpr FeatureText feature_texts[] = {
    {device_feature::multiple_components, "Multiple Components"},
    {device_feature::extended_versioning, "Extended versioning"},
    {device_feature::systems_management, "Systems management reporting"},
    {device_feature::read_all_records, "Read all records supported"},
};

/// An entry of a list answer; false behind the answer's end.
template <typename Entry>
bool get_list_entry(const char* answer, int k, Entry& entry) {
    const std::size_t at =
        component_list_answer::entries + static_cast<std::size_t>(k) * sizeof(Entry);
    if (at + sizeof(Entry) > data_answer_size) {
        return false;
    }
    memcpy(&entry, answer + at, sizeof(Entry));
    return true;
}

template <typename Entry>
bool is_empty_entry(const Entry& entry) {
    return entry.component == 0 && entry.revision == 0 && entry.generation == 0 && entry.flags == 0;
}

/// Takes the component into the row; a number that the table has no row for is ignored.
bool store_component(flashEntry& row, const component_entry& component) {
    if (component.comp_id < 0 || component.comp_id >= max_components) {
        writedebug("Component %d is above %d, ignored\n", component.comp_id, max_components - 1);
        return false;
    }
    row.component[component.comp_id] = component;
    return true;
}

enum class LevelFrom { device, descriptor };

/// Gives the row its main component, with the version of the USB descriptor when the device told
/// no EC level.
LevelFrom take_main_component(flashEntry& row, int version_number) {
    const LevelFrom source = row.current_ec_level == 0 ? LevelFrom::descriptor : LevelFrom::device;
    if (source == LevelFrom::descriptor) {
        row.current_ec_level = static_cast<ushort>(version_number);
    }
    row.component[0].comp_id = 0;
    row.component[0].ec_level = row.current_ec_level;
    row.component[0].comp_type = 1;
    row.component_count = 1;
    return source;
}

bool is_excluded(int product_id) {
    return std::find(std::begin(ExclusionList), std::end(ExclusionList), product_id) !=
           std::end(ExclusionList);
}

bool is_list_length(int length, int entry_size) {
    if (length % entry_size == 0) {
        return true;
    }
    writedebug("Returned length %d not mod %d; components not available\n", length, entry_size);
    return false;
}

void log_component_from_fallback(const component_entry& component) {
    writelog(0, "    Component: ID: %02x  Version: %02x.%02x%-3s  Type: %s\n", component.comp_id,
             (component.ec_level >> 8) & 0xFF, component.ec_level & 0xFF,
             build_suffix(component.build_level).text,
             component.comp_type == 1 ? "Firmware" : "Configuration");
}

bool take_component_list(ZELFLASH& session, flashEntry* entry, const char* data) {
    const int count = AnswerView(data, data_answer_size)[component_list_answer::length] /
                      static_cast<int>(sizeof(component_id));
    component_id listed = {};
    for (int k = 0; k < count && k < max_components; ++k) {
        if (!get_list_entry(data, k, listed) || is_empty_entry(listed)) {
            return true;
        }
        if (listed.revision == unknown_revision) {
            writelog(Verbose, "Revsion is 0xff, component list not correct\n");
            return false;
        }
        const int level = sdv_dawu_hw == 1 ? listed.revision * 256 + listed.generation
                                           : listed.generation * 256 + listed.revision;
        if (store_component(*entry, {.comp_id = listed.component,
                                     .ec_level = level,
                                     .build_level = 0,
                                     .comp_type = (listed.flags >> 1) & 3,
                                     .version_method = listed.flags & 1})) {
            session.show_component_information(entry, listed.component);
            ++entry->component_count;
        }
    }
    return true;
}

bool open_for_queries(ZELFLASH& session, const char* path, int product_id, int slot) {
    writedebug("Getting components for %04x (index=%d)\n", product_id, slot);
    if (session.setup_device_for_reading(path, 0, slot) != 0) {
        writedebug("Could not setup device for reading (pid=%04x, index=%d)\n", product_id, slot);
        return false;
    }
    if (session.check_device_connection(slot) != 0) {
        writedebug(
            "Device not responding to commands... HID information only (Device='%s', index=%d)\n",
            path, slot);
        return false;
    }
    writedebug("Background message reading thread starting for '%s' timeout=%d, index=%d\n", path,
               reader_start_timeout, slot);
    const int rc = session.start_background_thread(reader_start_timeout, slot);
    if (rc != 0) {
        writedebug(
            "Background message reading thread starting for '%s could not start, rc=%d, index=%d\n",
            path, rc, slot);
        return false;
    }
    return true;
}

void take_components_without_list(ZELFLASH& session, flashEntry* entry, int version_number,
                                  int slot) {
    writedebug(
        "Extended and component information not available (Current EC=%04x HID Version=%04x, "
        "index=%d)\n",
        entry->current_ec_level, version_number, slot);
    if (take_main_component(*entry, version_number) == LevelFrom::descriptor) {
        writedebug(
            "EC not available from device response, using interface version information "
            "(index=%d)\n",
            slot);
    }
    if (session.add_component_x_version_info(entry, 1, 1, slot) == 0) {
        entry->component_count = 2;
        writedebug("Two components on device (thread_index=%d)\n", slot);
    }
    writedebug("Device: %04x component: %d, Version: %04x, current_ec: %04x component count: %d\n",
               entry->product_id, entry->component[0].comp_id, entry->component[0].ec_level,
               entry->current_ec_level, entry->component_count);
    for (int number = 0; number < max_components; ++number) {
        if (number == 0 || entry->component[number].comp_id >= 1) {
            log_component_from_fallback(entry->component[number]);
        }
    }
    if (entry->component_count > 0) {
        writelog(0, "\n");
    }
}

void query_device(ZELFLASH& session, flashEntry* entry, int version_number, int slot) {
    session.get_device_info(entry, slot);
    session.get_ec_level(entry, slot);
    if ((entry->features & device_feature::extended_versioning) != 0) {
        writelog(0, "Extended version information available\n");
        if (session.read_extended_component_list(entry, slot) != no_component_list) {
            return;
        }
    }
    writedebug("Get component information (index=%d)\n", slot);
    if (session.add_components_to_table(entry, slot) == no_component_list) {
        take_components_without_list(session, entry, version_number, slot);
    }
}

}  // namespace

void ZELFLASH::build_initial_device_list() {
    // The records outlive the enumerator, which closes its own USB context first.
    std::vector<std::unique_ptr<USBHID>> records;
    {
        USBENUM enumerator;
        if (enumerator.buildTreeInformation() != 0) {
            return;
        }
        for (int i = 0; i < enumerator.numberOfHidDevices; ++i) {
            records.emplace_back(enumerator.getHidDevice(i));
        }
        for (const auto& record : records) {
            if (record != nullptr) {
                open_hid_device(record.get());
            }
        }
    }
}

int ZELFLASH::open_hid_device(USBHID* hid) {
    if (hid == nullptr || IsFlashDeviceSupported(hid->VendorID, hid->Usage) == 0) {
        return 0;
    }
    int rc = 0;
    hiddev.reset(new (std::nothrow) HIDDEVICE2(hid->VendorID, hid->ProductID, hid->DevicePath));
    if (hiddev != nullptr && hiddev->OpenRc == 0) {
        rc = process_device(hid->DevicePath);
    }
    hiddev.reset();
    return rc;
}

int ZELFLASH::check_device_connection(int index) {
    const int product_id = hiddev != nullptr ? hiddev->ProductID : 0;
    writedebug("Get device information for ProductID %04x\n", product_id);
    CommandMessage query = flash_command(FlashCommand::device_information_query);
    const int rc = send_command(query.bytes.data(), query.length, index, 0);
    writedebug("Device information request results for ProductID %04x, rc=%d\n", product_id, rc);
    return rc;
}

int ZELFLASH::get_device_info(flashEntry* entry, int index) {
    writedebug("Get device information for ProductID %04x\n", entry->product_id);
    memset(last_status, 0, sizeof(last_status));
    const int rc = send_query(*this, FlashCommand::device_information_query, 0, index);
    if (rc != 0) {
        return rc;
    }
    const AnswerView answer(last_status, sizeof(last_status));
    if ((answer[0] & status_flag::reject) != 0) {
        writedebug("Get device information command request not supported\n");
        return query_not_supported;
    }
    if ((answer[0] & status_flag::device_information) == 0) {
        return 0;
    }
    entry->dev_type = answer[device_information_answer::type];
    entry->dev_id = answer[device_information_answer::id];
    entry->command_set = answer[device_information_answer::command_set];
    entry->features = answer[device_information_answer::features];
    writelog(0, "Device Information Response:\n");
    writelog(0, "    Type:        %02x\n", entry->dev_type);
    writelog(0, "    ID:          %02x\n", entry->dev_id);
    writelog(0, "    Command set: %02x\n", entry->command_set);
    writelog(0, "    Feature:     %02x\n", entry->features);
    for (const FeatureText& feature : feature_texts) {
        if ((entry->features & feature.bit) != 0) {
            writelog(0, "                 - %s\n", feature.text);
        }
    }
    return 0;
}

int ZELFLASH::get_ec_level(flashEntry* entry, int index) {
    writedebug("Get device EC level for ProductID %04x\n", entry->product_id);
    memset(last_status, 0, sizeof(last_status));
    const int rc = send_query(*this, FlashCommand::ec_level_query, 0, index);
    if (rc != 0) {
        return rc;
    }
    const AnswerView answer(last_status, sizeof(last_status));
    if ((answer[0] & status_flag::reject) != 0) {
        writedebug("EC Level command request not supported\n");
        return query_not_supported;
    }
    if ((answer[0] & status_flag::ec_level) == 0) {
        return 0;
    }
    const bool has_builds = (entry->features & device_feature::extended_versioning) != 0;
    entry->current_ec_level = static_cast<ushort>(answer.word(ec_level_answer::current));
    entry->previous_ec_level = static_cast<ushort>(answer.word(ec_level_answer::previous));
    if (has_builds) {
        entry->current_build_level = answer[ec_level_answer::current_build];
        entry->previous_build_level = answer[ec_level_answer::previous_build];
    }
    writelog(0, "EC Level:\n");
    writelog(0, "    Current Version:  %02x.%02x\n", entry->current_ec_level >> 8,
             entry->current_ec_level & 0xFF);
    writelog(0, "    Previous Version: %02x.%02x\n", entry->previous_ec_level >> 8,
             entry->previous_ec_level & 0xFF);
    if (has_builds) {
        writelog(0, "    Current Build:    %02x\n", entry->current_build_level);
        writelog(0, "    Previous Build:   %02x\n", entry->previous_build_level);
    }
    return 0;
}

int ZELFLASH::read_extended_component_list(flashEntry* entry, int index) {
    writedebug("Read extended component list for %04x\n", entry->product_id);
    int rc = send_query(*this, FlashCommand::extended_component_list_query, 0, index);
    if (rc != 0) {
        writelog(0, "Send of read extended configuration command failed, rc=%d\n", rc);
        return no_component_list;
    }
    char data[data_answer_size] = {};
    rc = read_data(data, sizeof(data));
    const AnswerView answer(data, sizeof(data));
    writedebug("Reading data, rc=%d, buffer[]=%02x.%02x.%02x.%02x\n", rc, answer[0], answer[1],
               answer[2], answer[3]);
    const int length = answer[component_list_answer::length];
    if (!is_list_length(length, sizeof(extended_component_id))) {
        return no_component_list;
    }
    const int count = length / static_cast<int>(sizeof(extended_component_id));
    extended_component_id listed = {};
    for (int k = 0; k < count && k < max_components; ++k) {
        if (!get_list_entry(data, k, listed) || is_empty_entry(listed)) {
            break;
        }
        if (listed.revision == unknown_revision) {
            writelog(0, "Revision is 0xff, component list not correct\n");
        }
        if (store_component(*entry, {.comp_id = listed.component,
                                     .ec_level = listed.generation * 256 + listed.revision,
                                     .build_level = listed.build_level,
                                     .comp_type = (listed.flags >> 1) & 7,
                                     .version_method = listed.flags & 1})) {
            show_component_information(entry, listed.component);
            ++entry->component_count;
        }
    }
    if (entry->component_count >= 1) {
        writedebug("\n");
    }
    return rc;
}

int ZELFLASH::add_components_to_table(flashEntry* entry, int index) {
    writedebug("Add components to table for %04x\n", entry->product_id);
    int rc = send_query(*this, FlashCommand::component_list_query, 0, index);
    const AnswerView report(last_status, sizeof(last_status));
    writedebug("send_command to %04x returned rc=%d status[0]=%02x last_status[0]=%02x\n",
               entry->product_id, rc, AnswerView(status, sizeof(status))[0], report[0]);
    const bool is_rejected = (report[0] & status_flag::reject) != 0;
    if (is_rejected) {
        writedebug("configuration version request command not supported, rc=%d, status=%02x\n", rc,
                   report[0]);
        return no_component_list;
    }
    if (rc != 0 || (report[0] & status_flag::completed) == 0) {
        writelog(Verbose, "Send of configuration command failed, rc=%d\n", rc);
        return no_component_list;
    }
    char data[data_answer_size] = {};
    rc = read_data(data, sizeof(data));
    const AnswerView answer(data, sizeof(data));
    writedebug(
        "Reading data, rc=%d, buffer[]=%02x.%02x.%02x.%02x (status[0]=%02x last_status[0]=%02x)\n",
        rc, answer[0], answer[1], answer[2], answer[3], AnswerView(status, sizeof(status))[0],
        report[0]);
    if (!is_list_length(answer[component_list_answer::length], sizeof(component_id))) {
        return no_component_list;
    }
    if (!take_component_list(*this, entry, data)) {
        rc = no_component_list;
    }
    if (entry->component_count >= 1) {
        writedebug("\n");
    }
    return rc;
}

int ZELFLASH::add_component_x_version_info(flashEntry* entry, int component, int store, int index) {
    writedebug("Getting component %d version for %04x\n", component, entry->product_id);
    int rc = send_query(*this, FlashCommand::component_version_query, component, index);
    if (rc != 0 || (last_status_flags(*this) & status_flag::completed) == 0) {
        // Without the completed flag the code is 0, and the caller takes it as success.
        writedebug("Send of configuration command failed, rc=%d\n", rc);
        return rc;
    }
    char data[data_answer_size] = {};
    rc = read_data(data, sizeof(data));
    const AnswerView answer(data, sizeof(data));
    writedebug("Reading data, rc=%d, buffer[]=%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x\n", rc,
               answer[0], answer[1], answer[2], answer[3], answer[4], answer[5], answer[6],
               answer[7]);
    const int version = answer.word(component_version_answer::version);
    writelog(0, "component %d version=%04x\n", component, version);
    if (store == 1 && component >= 0 && component < max_components) {
        entry->component[component].comp_id = component;
        entry->component[component].ec_level = version;
        entry->component[component].comp_type = component == 1 ? 2 : 1;
    }
    return rc;
}

int ZELFLASH::process_device(const char* path) {
    const int row = numberOfFlashEntries;
    if (row >= max_flash_entries || hiddev == nullptr) {
        writedebug("The device table holds %d devices already, '%s' is left out\n", row, path);
        return 0;
    }
    const int product_id = hiddev->ProductID;
    const unsigned short usage = hiddev->intf != nullptr ? hiddev->intf->GetUsage() : 0;
    writelog(0, "Processing %04x:%04x:%04x-%d\n", hiddev->VendorID, product_id, usage,
             IsFlashDeviceSupported(hiddev->VendorID, usage));
    if (is_there_a_firmware_file_for_device(product_id) == 0) {
        return 0;
    }
    const int version_number = hiddev->VersionNumber;
    initialize_device_data(row, path, hiddev->SerialNumber, product_id, version_number);
    if (is_excluded(product_id)) {
        if (take_main_component(fe[row], version_number) == LevelFrom::descriptor) {
            writedebug(
                "EC not available from device response, using interface version information\n");
        }
        close_device_after_use(0, 0);
        ++numberOfFlashEntries;
        return 1;
    }
    const int slot = take_reader_slot(*this);
    if (!open_for_queries(*this, path, product_id, slot)) {
        close_device_after_use(slot, 1);
        return 0;
    }
    global_reading_information = 1;
    query_device(*this, &fe[row], version_number, slot);
    global_reading_information = 0;
    close_device_after_use(slot, 1);
    ++numberOfFlashEntries;
    return 1;
}
