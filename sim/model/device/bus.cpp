#include "model/device/bus.h"

#include "common/file_access.h"
#include "model/bus_file/bus_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <tuple>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::chrono::seconds lock_patience{5};
constexpr std::chrono::milliseconds lock_pause{20};

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// Makes the directory and keeps other processes out of it.
zelf::FileDescriptor lock_state(const std::string& state) {
    if (state.empty()) {
        return {};
    }
    zelf::create_directories(state);
    const std::string name = state + "/lock";
    zelf::FileDescriptor handle(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!handle.is_open()) {
        throw FileError(name, 0, std::strerror(errno));
    }
    const TimePoint deadline = now() + lock_patience;
    while (flock(handle.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            throw FileError(name, 0, std::strerror(errno));
        }
        if (now() > deadline) {
            throw FileError(state, 0, "another process uses this state directory");
        }
        std::this_thread::sleep_for(lock_pause);
    }
    return handle;
}

}  // namespace

BusFiles BusFiles::from_environment() {
    BusFiles files{environment("ZELFWSIM_BUS"), environment("ZELFWSIM_STATE"),
                   environment("ZELFWSIM_RECORD")};
    if (files.bus.empty()) {
        throw FileError("ZELFWSIM_BUS", 0, "not set; it names the bus file");
    }
    return files;
}

std::string device_directory(const std::string& state, const std::string& device) {
    return state.empty() ? "" : state + "/devices/" + device;
}

Bus::Bus(const BusFiles& files)
    : description_(read_bus_file(files.bus)),
      lock_(lock_state(files.state)),
      log_(files.record.empty() ? TransferLog() : TransferLog(files.record)),
      addresses_(files.state.empty() ? AddressPool() : AddressPool(files.state + "/bus.toml")) {
    for (const DeviceDescription& device : description_.devices) {
        peripherals_.push_back(std::make_unique<Peripheral>(
            device, DeviceStore(device_directory(files.state, device.name)), addresses_, log_));
        if (device.parent) {
            peripherals_[*device.parent]->adopt(*peripherals_.back());
        }
    }
}

std::vector<Peripheral*> Bus::present(TimePoint time) {
    std::vector<Peripheral*> found;
    for (const auto& peripheral : peripherals_) {
        peripheral->advance(time);
        if (peripheral->attached()) {
            found.push_back(peripheral.get());
        }
    }
    std::sort(found.begin(), found.end(), [](const Peripheral* left, const Peripheral* right) {
        return std::make_tuple(left->description().bus, left->address()) <
               std::make_tuple(right->description().bus, right->address());
    });
    return found;
}

Peripheral* Bus::find(std::string_view name) {
    for (const auto& peripheral : peripherals_) {
        if (peripheral->description().name == name) {
            return peripheral.get();
        }
    }
    return nullptr;
}

}  // namespace zelfsim
