#include "model/store/device_state.h"

#include "common/toml_table.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::int64_t format = 1;
constexpr std::size_t longest_stored_word = 16;
constexpr std::int64_t most_events = 2000000000;

constexpr std::array<std::pair<FlashPhase, const char*>, 4> phases{{
    {FlashPhase::idle, "idle"},
    {FlashPhase::erased, "erased"},
    {FlashPhase::receiving, "receiving"},
    {FlashPhase::complete, "complete"},
}};

constexpr std::array<std::pair<ComponentType, const char*>, 4> type_words{{
    {ComponentType::unspecified, "unspecified"},
    {ComponentType::firmware, "firmware"},
    {ComponentType::configuration, "configuration"},
    {ComponentType::font, "font"},
}};

void write_level(std::ostream& out, const ComponentLevel& level, const std::string& prefix) {
    out << prefix << "level = \"" << level_text(level.version) << "\"\n"
        << prefix << "build = " << int{level.version.build} << "\n"
        << prefix << "type = \"" << type_name(level.type) << "\"\n"
        << prefix << "control = \"" << (level.random ? "random" : "increasing") << "\"\n";
}

std::int64_t away_milliseconds(const DeviceState& state) {
    if (state.unplugged) {
        return -1;
    }
    if (state.away_until <= now()) {
        return 0;
    }
    return std::chrono::ceil<std::chrono::milliseconds>(state.away_until.time_since_epoch())
        .count();
}

constexpr std::array<std::string_view, 13> state_keys{
    "format", "address", "away_until_ms",  "bcd",      "flash", "previous_level", "previous_build",
    "resets", "updates", "failed_updates", "detached", "fired", "component"};
constexpr std::array<std::string_view, 11> stored_keys{
    "id",      "level",         "build",         "type",         "control",        "broken",
    "pending", "pending_level", "pending_build", "pending_type", "pending_control"};

Version read_version(const zelf::TomlTable& table, const std::string& level_key,
                     const std::string& build_key) {
    Version version;
    if (!parse_level(table.required_text(level_key, longest_stored_word), version)) {
        table.fail(level_key, "not a level");
    }
    version.build = static_cast<std::uint8_t>(table.required_integer(build_key, 0, 0xFF));
    return version;
}

ComponentLevel read_level(const zelf::TomlTable& table, const std::string& prefix) {
    ComponentLevel level;
    level.version = read_version(table, prefix + "level", prefix + "build");
    const std::string type = table.required_text(prefix + "type", longest_stored_word);
    const auto found = std::find_if(type_words.begin(), type_words.end(),
                                    [&](const auto& entry) { return type == entry.second; });
    if (found == type_words.end()) {
        table.fail(prefix + "type", "not a component type");
    }
    level.type = found->first;
    level.random = table.required_text(prefix + "control", longest_stored_word) == "random";
    return level;
}

void read_component(const zelf::TomlTable& table, DeviceState& state) {
    table.know_only({stored_keys});
    ComponentState read;
    read.id = static_cast<std::uint8_t>(table.required_integer("id", 0, 14));
    read.current = read_level(table, "");
    read.broken = table.flag("broken").value_or(false);
    if (table.flag("pending").value_or(false)) {
        read.pending = read_level(table, "pending_");
    }
    if (ComponentState* known = state.component(read.id)) {
        *known = read;
    }
}

FlashPhase read_phase(const zelf::TomlTable& table) {
    const std::string name = table.required_text("flash", longest_stored_word);
    const auto found = std::find_if(phases.begin(), phases.end(),
                                    [&](const auto& entry) { return name == entry.second; });
    if (found == phases.end()) {
        table.fail("flash", "not a state of the flash interface");
    }
    return found->first;
}

unsigned read_counter(const zelf::TomlTable& table, std::string_view key) {
    return static_cast<unsigned>(table.integer(key, 0, most_events).value_or(0));
}

}  // namespace

ComponentState* DeviceState::component(std::uint8_t id) {
    const auto found = std::find_if(components.begin(), components.end(),
                                    [&](const ComponentState& entry) { return entry.id == id; });
    return found == components.end() ? nullptr : &*found;
}

DeviceState factory_state(const DeviceDescription& description) {
    DeviceState state;
    state.address = description.address;
    state.bcd = description.bcd;
    if (description.flash) {
        state.previous = description.flash->previous;
        for (const ComponentDescription& component : description.flash->components) {
            state.components.push_back({component.id,
                                        {component.version, component.type, component.random},
                                        false,
                                        std::nullopt});
        }
    }
    return state;
}

Version reported_version(const ComponentState& component) {
    const Version& version = component.current.version;
    return component.broken ? Version{version.major, 0, 0} : version;
}

const char* phase_name(FlashPhase phase) {
    return phases.at(static_cast<std::size_t>(phase)).second;
}

const char* type_name(ComponentType type) {
    return type_words.at(static_cast<std::size_t>(type)).second;
}

std::string write_state(const DeviceState& state) {
    std::ostringstream out;
    out << "format = " << format << "\n"
        << "address = " << int{state.address} << "\n"
        << "away_until_ms = " << away_milliseconds(state) << "\n"
        << "bcd = " << state.bcd << "\n"
        << "flash = \"" << phase_name(state.phase) << "\"\n"
        << "previous_level = \"" << level_text(state.previous) << "\"\n"
        << "previous_build = " << int{state.previous.build} << "\n"
        << "resets = " << state.resets << "\n"
        << "updates = " << state.updates << "\n"
        << "failed_updates = " << state.failed_updates << "\n"
        << "detached = [";
    for (const std::uint8_t interface : state.detached) {
        out << int{interface} << ", ";
    }
    out << "]\nfired = [";
    for (const std::string& fault : state.fired) {
        out << "\"" << fault << "\", ";
    }
    out << "]\n";
    for (const ComponentState& component : state.components) {
        out << "\n[[component]]\nid = " << int{component.id} << "\n";
        write_level(out, component.current, "");
        out << "broken = " << (component.broken ? "true" : "false") << "\n";
        if (component.pending) {
            out << "pending = true\n";
            write_level(out, *component.pending, "pending_");
        }
    }
    return out.str();
}

void read_state(const std::string& file, DeviceState& state) {
    constexpr std::int64_t highest_interface = 31;
    constexpr std::int64_t latest = 1000000000000000;
    const toml::table parsed = zelf::parse_toml_file(file);
    const zelf::TomlTable table(file, parsed);
    table.know_only({state_keys});
    table.required_integer("format", format, format);
    state.address = static_cast<std::uint8_t>(table.required_integer("address", 1, 127));
    const std::int64_t away = table.integer("away_until_ms", -1, latest).value_or(0);
    state.unplugged = away < 0;
    state.away_until = TimePoint(std::chrono::milliseconds(std::max<std::int64_t>(away, 0)));
    state.bcd = static_cast<std::uint16_t>(table.required_integer("bcd", 0, 0xFFFF));
    state.phase = read_phase(table);
    state.previous = read_version(table, "previous_level", "previous_build");
    state.resets = read_counter(table, "resets");
    state.updates = read_counter(table, "updates");
    state.failed_updates = read_counter(table, "failed_updates");
    for (const std::int64_t interface : table.integers("detached", 0, highest_interface)) {
        state.detached.insert(static_cast<std::uint8_t>(interface));
    }
    for (std::string& fault : table.texts("fired")) {
        state.fired.insert(std::move(fault));
    }
    for (const zelf::TomlTable& component : table.tables("component")) {
        read_component(component, state);
    }
}

}  // namespace zelfsim
