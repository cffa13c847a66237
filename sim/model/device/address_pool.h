/// \file
/// The addresses of each bus.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace zelfsim {

/// Gives out the next free address after the last one given, from 2 to 127 and round again.
class AddressPool {
  public:
    /// Keeps nothing beyond the process.
    AddressPool() = default;
    /// Keeps the position of each bus in `file`. Throws FileError.
    explicit AddressPool(std::string file);

    /// Marks an address that a device has.
    void take(std::uint8_t bus, std::uint8_t address);
    /// Frees an address and gives the next one; the same when all are taken.
    std::uint8_t exchange(std::uint8_t bus, std::uint8_t address);

  private:
    struct OneBus {
        std::set<std::uint8_t> used;
        std::uint8_t next = 2;
    };

    void save() const;

    std::string file_;
    std::map<std::uint8_t, OneBus> buses_;
};

}  // namespace zelfsim
