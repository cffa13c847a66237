#include "model/store/record_text.h"

#include <array>
#include <cstdio>

namespace zelfsim {

std::string setup_text(const Setup& setup) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02x %02x %04x %04x %04x", setup.type, setup.request,
                  setup.value, setup.index, setup.length);
    return text.data();
}

std::string endpoint_text(std::uint8_t endpoint, std::size_t length) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02x %04zx", endpoint, length);
    return text.data();
}

}  // namespace zelfsim
