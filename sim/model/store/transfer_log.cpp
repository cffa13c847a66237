#include "model/store/transfer_log.h"

#include <array>
#include <cstdio>

namespace zelfsim {

TransferLog::TransferLog(const std::string& file)
    : name_(file), file_(zelf::open_for_append(file, false)) {}

void TransferLog::write(std::string_view device, unsigned address, std::string_view kind,
                        std::string_view setup, ByteView data, long result) {
    if (!file_.is_open()) {
        return;
    }
    constexpr std::string_view digits = "0123456789abcdef";
    std::array<char, 32> part{};
    const auto time = now().time_since_epoch().count();
    std::snprintf(part.data(), part.size(), "%lld.%03lld", static_cast<long long>(time / 1000),
                  static_cast<long long>(time % 1000));
    std::string line = part.data();
    line.append("\t").append(device.empty() ? "-" : device);
    line.append("\t").append(std::to_string(address));
    line.append("\t").append(kind);
    line.append("\t").append(setup.empty() ? "-" : setup).append("\t");
    for (const std::uint8_t byte : data) {
        line += digits[byte >> 4U];
        line += digits[byte & 0x0FU];
    }
    if (data.empty()) {
        line += '-';
    }
    line.append("\t").append(std::to_string(result)).append("\n");
    append(file_, name_, line);
}

}  // namespace zelfsim
