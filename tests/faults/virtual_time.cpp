#include "virtual_time.h"

#include "support/temporary_directory.h"

#include <sys/personality.h>

#include <cstring>
#include <stdexcept>

namespace {

using Nanoseconds = std::chrono::duration<std::int64_t, std::nano>;

/// Where the clock of a new state directory begins.
constexpr Nanoseconds origin = std::chrono::seconds(1767225600);

std::filesystem::path clock_file(const std::filesystem::path& state) {
    return state / "virtual-clock";
}

Nanoseconds read_instant(const std::filesystem::path& state) {
    const std::string bytes =
        std::filesystem::exists(clock_file(state)) ? read_file(clock_file(state)) : "";
    std::int64_t instant = origin.count();
    if (bytes.size() == sizeof(instant)) {
        std::memcpy(&instant, bytes.data(), sizeof(instant));
    }
    return Nanoseconds(instant);
}

}  // namespace

std::vector<std::string> settings_of(const Schedule& schedule) {
    std::vector<std::string> settings = {"ZELFWSIM_TIME_SEED=" + std::to_string(schedule.seed)};
    if (!schedule.clock_step.empty()) {
        settings.push_back("ZELFWSIM_TIME_STEP=" + schedule.clock_step);
    }
    return settings;
}

std::chrono::milliseconds read_virtual_clock(const std::filesystem::path& state) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(read_instant(state));
}

void pass_virtual_time(const std::filesystem::path& state, std::chrono::milliseconds length) {
    const std::int64_t instant = (read_instant(state) + length).count();
    std::string bytes(sizeof(instant), '\0');
    std::memcpy(bytes.data(), &instant, sizeof(instant));
    std::filesystem::create_directories(state);
    write_file(clock_file(state), bytes);
}

void fix_addresses() {
    constexpr unsigned long as_it_is = 0xFFFFFFFF;
    const int persona = personality(as_it_is);
    if (persona < 0 || personality(static_cast<unsigned long>(persona) | ADDR_NO_RANDOMIZE) < 0) {
        throw std::runtime_error("the memory's layout cannot be fixed");
    }
}
