#include "support/device_state.h"

#include <toml++/toml.h>

#include <stdexcept>

namespace {

int number(const toml::table& table, const char* key) {
    return table[key].value_or(0);
}

std::string text(const toml::table& table, const char* key) {
    return table[key].value_or(std::string());
}

bool flag(const toml::table& table, const char* key) {
    return table[key].value_or(false);
}

ComponentState component_state(const toml::table& table) {
    return {.id = number(table, "id"),
            .level = text(table, "level"),
            .build = number(table, "build"),
            .broken = flag(table, "broken"),
            .pending = flag(table, "pending"),
            .pending_level = text(table, "pending_level")};
}

}  // namespace

const ComponentState& DeviceState::component(int id) const {
    for (const ComponentState& one : components) {
        if (one.id == id) {
            return one;
        }
    }
    throw std::out_of_range("no component " + std::to_string(id));
}

DeviceState read_device_state(const std::filesystem::path& path) {
    const toml::table table = toml::parse_file(path.string());
    DeviceState state = {.address = number(table, "address"),
                         .bcd = number(table, "bcd"),
                         .flash = text(table, "flash"),
                         .resets = number(table, "resets"),
                         .updates = number(table, "updates"),
                         .failed_updates = number(table, "failed_updates"),
                         .components = {}};
    if (const toml::array* components = table["component"].as_array()) {
        for (const toml::node& one : *components) {
            state.components.push_back(component_state(*one.as_table()));
        }
    }
    return state;
}
