#include "model/device/address_pool.h"

#include "common/file_access.h"
#include "common/toml_table.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::uint8_t first = 2;
constexpr std::uint8_t last = 127;

constexpr std::array<std::string_view, 1> pool_keys{"bus"};
constexpr std::array<std::string_view, 2> bus_keys{"number", "next_address"};

std::uint8_t after(std::uint8_t address) {
    return address >= last ? first : static_cast<std::uint8_t>(address + 1);
}

}  // namespace

AddressPool::AddressPool(std::string file) : file_(std::move(file)) {
    if (!zelf::exists(file_)) {
        return;
    }
    const toml::table parsed = zelf::parse_toml_file(file_);
    const zelf::TomlTable table(file_, parsed);
    table.know_only({pool_keys});
    for (const zelf::TomlTable& bus : table.tables("bus")) {
        bus.know_only({bus_keys});
        const auto number = static_cast<std::uint8_t>(bus.required_integer("number", 1, 255));
        buses_[number].next =
            static_cast<std::uint8_t>(bus.required_integer("next_address", first, last));
    }
}

void AddressPool::take(std::uint8_t bus, std::uint8_t address) {
    OneBus& one = buses_[bus];
    one.used.insert(address);
    if (file_.empty() || !zelf::exists(file_)) {
        one.next = std::max(one.next, after(address));
    }
}

std::uint8_t AddressPool::exchange(std::uint8_t bus, std::uint8_t address) {
    OneBus& one = buses_[bus];
    std::uint8_t found = one.next;
    for (int tries = 0; one.used.contains(found) && tries < last; ++tries) {
        found = after(found);
    }
    if (one.used.contains(found)) {
        return address;
    }
    one.used.erase(address);
    one.used.insert(found);
    one.next = after(found);
    save();
    return found;
}

void AddressPool::save() const {
    if (file_.empty()) {
        return;
    }
    std::string text;
    for (const auto& [number, one] : buses_) {
        text += "[[bus]]\nnumber = " + std::to_string(number) +
                "\nnext_address = " + std::to_string(one.next) + "\n";
    }
    zelf::replace_file(file_, text);
}

}  // namespace zelfsim
