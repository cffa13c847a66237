#include "run/virtual_time.h"

#include <sys/personality.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace zelfsim {

namespace {

struct Option {
    std::string_view name;
    const char* variable;
};

constexpr std::array<Option, 7> known_options{{
    {"--seed", "ZELFWSIM_TIME_SEED"},
    {"--from-epoch", "ZELFWSIM_TIME_EPOCH"},
    {"--hold-up", "ZELFWSIM_TIME_HOLD_UP"},
    {"--limit", "ZELFWSIM_TIME_LIMIT"},
    {"--steps", "ZELFWSIM_TIME_STEPS"},
    {"--busy", "ZELFWSIM_TIME_BUSY"},
    {"--set-clock", "ZELFWSIM_TIME_STEP"},
}};

}  // namespace

const char* virtual_time_variable(std::string_view option) {
    for (const Option& known : known_options) {
        if (known.name == option) {
            return known.variable;
        }
    }
    return nullptr;
}

void begin_virtual_time(const std::map<std::string, std::string>& settings) {
    for (const Option& option : known_options) {
        unsetenv(option.variable);
    }
    for (const auto& [name, value] : settings) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    constexpr unsigned long as_it_is = 0xFFFFFFFF;
    const int persona = personality(as_it_is);
    if (persona < 0 || personality(static_cast<unsigned long>(persona) | ADDR_NO_RANDOMIZE) < 0) {
        throw std::system_error(errno, std::generic_category(), "personality");
    }
}

}  // namespace zelfsim
