// Writes the dissector for Wireshark: the protocol's numbers and names, from the program's own
// headers, and behind them the Lua code that uses them.

#include "firmware/component_text.h"
#include "firmware/firmware_file.h"
#include "flash_protocol.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

struct NamedNumber {
    const char* name;
    std::size_t value;
};

constexpr NamedNumber usages[] = {
    {"page", flash_usage::page},       {"interface", flash_usage::interface},
    {"command", flash_usage::command}, {"status", flash_usage::status},
    {"data", flash_usage::data},       {"fallback_data", flash_usage::fallback_data},
};

constexpr NamedNumber status_flags[] = {
    {"reject", status_flag::reject},
    {"operation_error", status_flag::operation_error},
    {"device_information", status_flag::device_information},
    {"ec_level", status_flag::ec_level},
    {"completed", status_flag::completed},
};

constexpr NamedNumber image_numbers[] = {
    {"operation_byte", image_message::operation_byte},
    {"operation", image_message::operation},
    {"length_byte", image_message::length_byte},
    {"body_start", image_message::body_start},
    {"head_size", firmware_record_head_size},
    {"checksum_size", firmware_checksum_size},
    {"information_nibble", information_nibble},
    {"file_information_tag", file_information_tag},
};

constexpr NamedNumber level_numbers[] = {
    {"current", ec_level_answer::current},
    {"previous", ec_level_answer::previous},
    {"current_build", ec_level_answer::current_build},
    {"previous_build", ec_level_answer::previous_build},
};

constexpr NamedNumber device_numbers[] = {
    {"type", device_information_answer::type},
    {"id", device_information_answer::id},
    {"command_set", device_information_answer::command_set},
    {"features", device_information_answer::features},
};

constexpr NamedNumber list_numbers[] = {
    {"length", component_list_answer::length},
    {"entries", component_list_answer::entries},
    {"entry_size", sizeof(component_id)},
    {"extended_entry_size", sizeof(extended_component_id)},
    {"component", offsetof(extended_component_id, component)},
    {"revision", offsetof(extended_component_id, revision)},
    {"generation", offsetof(extended_component_id, generation)},
    {"flags", offsetof(extended_component_id, flags)},
    {"build_level", offsetof(extended_component_id, build_level)},
};

constexpr NamedNumber record_numbers[] = {
    {"flags", record_answer::flags},
    {"last_block", record_answer::last_block},
    {"record", record_answer::record},
};

constexpr NamedNumber version_numbers[] = {{"version", component_version_answer::version}};

struct NamedCommand {
    const char* name;
    FlashCommand command;
    bool is_awaited;  ///< the updater waits for its status
};

constexpr NamedCommand commands[] = {
    {"status_request", FlashCommand::status_request, false},
    {"reset", FlashCommand::reset, false},
    {"stop", FlashCommand::stop, false},
    {"ec_level_query", FlashCommand::ec_level_query, true},
    {"device_information_query", FlashCommand::device_information_query, true},
    {"erase", FlashCommand::erase, true},
    {"component_version_query", FlashCommand::component_version_query, true},
    {"component_list_query", FlashCommand::component_list_query, true},
    {"extended_component_list_query", FlashCommand::extended_component_list_query, true},
    {"read_all_records", FlashCommand::read_all_records, true},
};
static_assert(std::size(commands) == std::size(command_table));

template <std::size_t size>
void write_numbers(std::ostream& out, const char* name, const NamedNumber (&numbers)[size]) {
    out << "    " << name << " = {\n";
    for (const NamedNumber& one : numbers) {
        out << "        " << one.name << " = " << one.value << ",\n";
    }
    out << "    },\n";
}

void write_command(std::ostream& out, const NamedCommand& named) {
    const CommandRow& row = command_row(named.command);
    const ComponentBits bits = component_bits(row.component_in);
    out << "        { key = \"" << named.name << "\", name = \"" << row.name
        << "\", awaited = " << (named.is_awaited ? "true" : "false") << ",\n          bytes = {";
    for (int i = 0; i < row.message.length; ++i) {
        const char byte = row.message.bytes[static_cast<std::size_t>(i)];
        out << (i == 0 ? " " : ", ") << static_cast<int>(static_cast<unsigned char>(byte));
    }
    out << " },\n          component_mask = " << static_cast<int>(bits.mask)
        << ", component_unit = " << (1 << bits.shift) << " },\n";
}

/// What the flags of a component say, for each value of the bits that say something.
void write_component_flags(std::ostream& out) {
    constexpr int meaningful = 8;
    out << "    component_flags = {\n";
    for (int flags = 0; flags < meaningful; ++flags) {
        ExtendedVersionListEntry entry = {};
        entry.flags = static_cast<std::uint8_t>(flags);
        out << "        [" << flags << "] = { type = \"" << type_word(entry.type())
            << "\", control = \"" << control_word(entry.version_method()) << "\" },\n";
    }
    out << "    },\n";
}

void write_tables(std::ostream& out) {
    out << "-- Shows the flash protocol of USB peripherals in Wireshark.\n"
           "-- Made by the build: the numbers are those of the updater itself.\n\n"
           "local protocol = {\n";
    write_numbers(out, "usage", usages);
    out << "    vendors = {";
    for (const unsigned short vendor : flash_vendors) {
        out << " [" << vendor << "] = true,";
    }
    out << " },\n    commands = {\n";
    for (const NamedCommand& command : commands) {
        write_command(out, command);
    }
    out << "    },\n    component_byte = " << component_byte << ",\n";
    write_numbers(out, "image", image_numbers);
    write_numbers(out, "flag", status_flags);
    write_numbers(out, "level", level_numbers);
    write_numbers(out, "device", device_numbers);
    write_numbers(out, "list", list_numbers);
    write_numbers(out, "record", record_numbers);
    write_numbers(out, "version", version_numbers);
    write_component_flags(out);
    out << "}\n\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: zelfw_write_dissector CODE OUT\n";
        return 2;
    }
    std::ifstream code(argv[1]);
    std::ofstream out(argv[2]);
    write_tables(out);
    out << code.rdbuf();
    out.close();
    if (!code || !out) {
        std::cerr << argv[2] << ": could not be made from " << argv[1] << '\n';
        return 1;
    }
    return 0;
}
