#include "time/settings.h"

#include "time/verdict.h"

#include <cerrno>
#include <cstdlib>

namespace zelfsim::virtual_time {

namespace {

constexpr long long longest = 4'000'000'000;
constexpr long long default_limit = 3600;
constexpr long long default_hold_up = 20;
constexpr long long hold_up_limit = 60000;
constexpr long long default_busy = 20;
constexpr long long default_steps = 1'000'000;

/// The number at `text`, and where it ends.
long long number_at(const char* name, const char* text, long long least, long long most,
                    const char** end) {
    char* after = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &after, 10);
    if (after == text || errno != 0 || value < least || value > most) {
        end_unusable(name, text);
    }
    *end = after;
    return value;
}

std::optional<long long> number(const char* name, long long least, long long most) {
    const char* text = std::getenv(name);
    if (text == nullptr) {
        return std::nullopt;
    }
    const char* end = nullptr;
    const long long value = number_at(name, text, least, most, &end);
    if (*end != '\0') {
        end_unusable(name, text);
    }
    return value;
}

/// "SECONDS@MILLISECONDS", as in "-7200@1500".
std::optional<ClockStep> clock_step(const char* name) {
    const char* text = std::getenv(name);
    if (text == nullptr) {
        return std::nullopt;
    }
    const char* end = nullptr;
    ClockStep step;
    step.by = number_at(name, text, -longest, longest, &end) * second;
    if (*end != '@') {
        end_unusable(name, text);
    }
    step.after = number_at(name, end + 1, 0, longest, &end) * millisecond;
    if (*end != '\0') {
        end_unusable(name, text);
    }
    return step;
}

}  // namespace

Settings Settings::from_environment() {
    Settings settings;
    settings.seed =
        static_cast<std::uint64_t>(number("ZELFWSIM_TIME_SEED", 0, longest).value_or(0));
    if (const auto epoch = number("ZELFWSIM_TIME_EPOCH", 0, longest)) {
        settings.epoch = *epoch * second;
    }
    settings.limit = number("ZELFWSIM_TIME_LIMIT", 1, longest).value_or(default_limit) * second;
    settings.most_steps = static_cast<std::uint64_t>(
        number("ZELFWSIM_TIME_STEPS", 1, longest).value_or(default_steps));
    settings.longest_hold_up =
        number("ZELFWSIM_TIME_HOLD_UP", 0, hold_up_limit).value_or(default_hold_up) * millisecond;
    settings.longest_busy =
        static_cast<long>(number("ZELFWSIM_TIME_BUSY", 1, default_limit).value_or(default_busy));
    settings.step = clock_step("ZELFWSIM_TIME_STEP");
    return settings;
}

}  // namespace zelfsim::virtual_time
