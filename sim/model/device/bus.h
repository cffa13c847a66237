/// \file
/// The whole simulated bus: its devices, where they keep their state, and the record.
#pragma once

#include "common/file_access.h"
#include "model/bus_file/description.h"
#include "model/device/address_pool.h"
#include "model/device/peripheral.h"
#include "model/store/transfer_log.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelfsim {

/// Where a bus comes from.
struct BusFiles {
    std::string bus;     ///< the bus file
    std::string state;   ///< the state directory; empty: nothing is kept
    std::string record;  ///< the record; empty: none

    /// From the environment variables ZELFWSIM_BUS, ZELFWSIM_STATE and ZELFWSIM_RECORD. Throws
    /// FileError when the first is not set.
    static BusFiles from_environment();
};

/// The directory of one device inside a state directory.
std::string device_directory(const std::string& state, const std::string& device);

/// Not synchronised: whoever shares a bus between threads holds a lock around every call.
class Bus {
  public:
    /// Reads the bus file and takes over the state. Throws FileError.
    explicit Bus(const BusFiles& files);
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    /// Those present at `time`, by bus number and address.
    std::vector<Peripheral*> present(TimePoint time);
    /// In the order of the bus file, hubs first; null for an unknown name.
    Peripheral* find(std::string_view name);
    const std::vector<std::unique_ptr<Peripheral>>& peripherals() const { return peripherals_; }

    TransferLog& log() { return log_; }

  private:
    BusDescription description_;
    zelf::FileDescriptor lock_;
    TransferLog log_;
    AddressPool addresses_;
    std::vector<std::unique_ptr<Peripheral>> peripherals_;
};

}  // namespace zelfsim
