#include "twin/twin.h"

#include "common/file_error.h"
#include "model/store/device_state.h"
#include "twin/device_faults.h"
#include "twin/device_guess.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace zelfsim {

namespace {

template <typename... Values>
std::string printed(const char* format, Values... values) {
    char text[256];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

/// A text as TOML has it in double quotes; a byte that is no printable ASCII becomes "?".
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += c < 0x20 || c > 0x7E ? '?' : c;
    }
    return result + "\"";
}

/// A comment holds what came with the trace, so it must not end its line.
std::string comment(const std::string& text) {
    std::string line = "# ";
    for (const char c : text) {
        line += c < 0x20 || c > 0x7E ? '?' : c;
    }
    return line + "\n";
}

std::string time_text(Duration time) {
    return printed("%.1f", static_cast<double>(time.count()) / 1000);
}

const char* text_of(bool value) {
    return value ? "true" : "false";
}

const char* list_name(ListKind kind) {
    return kind == ListKind::extended ? "extended" : kind == ListKind::plain ? "plain" : "none";
}

void write_timing(std::string& out, const Timing& timing) {
    out += "\n[device.timing]\n";
    out += "query_ms = " + time_text(timing.query) + "\n";
    out += "erase_ms = " + time_text(timing.erase) + "\n";
    out += "record_ms = " + time_text(timing.record) + "\n";
    out += "checksum_ms = " + time_text(timing.checksum) + "\n";
    out += "reset_ms = " + time_text(timing.reset) + "\n";
}

void write_flash(std::string& out, const DeviceDescription& device) {
    const FlashDescription& flash = *device.flash;
    const InterfaceDescription& interface = device.interfaces.front();
    out += "\n[[device.interface]]\nkind = \"flash\"\n";
    out += printed("number = %u\nin_packet = %u\n", interface.number, interface.in_packet);
    out += printed("output_size = %u\nfeature_size = %u\nfeature_usage = 0x%04X\n",
                   flash.output_size, flash.feature_size, flash.feature_usage);
    out += printed("report_ids = %s\nlist = \"%s\"\ndevice_info = %s\nec_level = %s\n",
                   text_of(flash.report_ids), list_name(flash.list), text_of(flash.device_info),
                   text_of(flash.ec_level));
    out += printed("read_records = %s\ndevice_type = 0x%02X\ndevice_id = 0x%02X\n",
                   text_of(flash.read_records), flash.device_type, flash.device_id);
    out += printed("command_set = 0x%02X\n", flash.command_set);
    if (flash.features) {
        out += printed("features = 0x%02X\n", *flash.features);
    }
    out += "previous_level = \"" + level_text(flash.previous) + "\"\n";
    out += printed("previous_build = %u\n", flash.previous.build);
    for (const ComponentDescription& component : flash.components) {
        out += printed("\n[[device.interface.component]]\nid = %u\n", component.id);
        out += "level = \"" + level_text(component.version) + "\"\n";
        out += printed("build = %u\ntype = \"%s\"\ncontrol = \"%s\"\n", component.version.build,
                       type_name(component.type), component.random ? "random" : "increasing");
    }
}

void write_fault(std::string& out, const std::string& device, const FaultGuess& fault) {
    const FaultRule& rule = fault.rule;
    out += "\n" + comment(printed("%.3f s: ", fault.clock / 1000) + fault.remark);
    out += "[[fault]]\ndevice = \"" + device + "\"\n";
    const std::string key = rule.key();
    out += "at = \"" + key.substr(0, key.find('#')) + "\"\n";
    out += printed("number = %u\n", rule.number);
    out += "action = \"" + key.substr(key.find(':') + 1) + "\"\n";
    if (rule.always) {
        out += "times = \"always\"\n";
    }
    if (rule.delay > Duration{0}) {
        out += "ms = " + time_text(rule.delay) + "\n";
    }
    if (rule.replug) {
        out += "replug_ms = " + time_text(*rule.replug) + "\n";
    }
    if (rule.action == FaultAction::answer) {
        out += "bytes = \"";
        for (const std::uint8_t byte : rule.bytes) {
            out += printed("%02X ", byte);
        }
        out.back() = '"';
        out += "\n";
    }
}

std::string write_device(const ToldDevice& told, const std::string& name, WithFaults faults) {
    const DeviceGuess guess = guess_device(told);
    const DeviceDescription& device = guess.device;
    std::string out = "\n";
    if (!guess.remarks.empty()) {
        out += comment("Not told by the trace, and taken as it mostly is:");
        for (const std::string& remark : guess.remarks) {
            out += comment("- " + remark);
        }
    }
    out += "[[device]]\nname = \"" + name + "\"\n";
    out += printed("vendor = 0x%04X\nproduct = 0x%04X\nbcd = 0x%04X\n", device.vendor,
                   device.product, device.bcd);
    if (!device.serial.empty()) {
        out += "serial = " + quoted(device.serial) + "\n";
    }
    write_timing(out, device.timing);
    write_flash(out, device);
    if (faults == WithFaults::no) {
        return out;
    }
    for (const FaultGuess& fault : find_faults(device, told)) {
        write_fault(out, name, fault);
    }
    return out;
}

}  // namespace

std::string twin_of(const Story& story, const std::string& origin, WithFaults faults) {
    if (story.devices.empty()) {
        throw zelf::FileError(origin, 0, "run " + std::to_string(story.run) + " met no device");
    }
    std::string out = comment("The devices of run " + std::to_string(story.run) + " of " +
                              std::to_string(story.runs) + " in " + origin);
    if (!story.command_line.empty()) {
        out += comment("Command line:" + story.command_line);
    }
    if (!story.damage.empty()) {
        out += comment("The trace is damaged: " + story.damage);
    }
    out += printed("\n[[hub]]\nname = \"root\"\nbus = 1\nports = %u\n", 127U);
    std::set<std::string> names;
    std::size_t count = 0;
    for (const ToldDevice& device : story.devices) {
        if (++count > 120) {
            out += "\n" + comment("More devices than a bus has places for are left out.");
            break;
        }
        std::string name = printed("device-%04x", device.product);
        for (unsigned next = 2; !names.insert(name).second; ++next) {
            name = printed("device-%04x-%u", device.product, next);
        }
        out += write_device(device, name, faults);
    }
    return out;
}

}  // namespace zelfsim
