#include "journal/output.h"
#include "session/zelflash.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace {

constexpr int percentage_step = 10;
constexpr int row_size = 16;
constexpr int half_row = row_size / 2;
/// Dumps shorter than this are filled up to whole rows.
constexpr int longest_padded_dump = 65520;
/// First output level with dumps.
constexpr int dump_level = 3;

/// One row of a dump: offset, sixteen bytes in hexadecimal, the same as characters.
class DumpRow {
  public:
    explicit DumpRow(int offset) { append("%03X0: ", (offset >> 4) & 0xFFF); }

    void add_byte(int position, unsigned char byte) {
        add_middle(position);
        append("%02X ", byte);
        characters_[position] = isprint(byte) != 0 ? static_cast<char>(byte) : '.';
    }
    void add_padding(int position) {
        add_middle(position);
        append("%s", "-- ");
        characters_[position] = ' ';
    }
    const char* hexadecimal() const { return text_; }
    const char* characters() const { return characters_; }

  private:
    void add_middle(int position) {
        if (position == half_row) {
            append("%s", "- ");
        }
    }
    template <typename... Values>
    void append(const char* format, Values... values) {
        used_ += static_cast<std::size_t>(
            snprintf(text_ + used_, sizeof(text_) - used_, format, values...));
    }

    char text_[8 + row_size * 3 + 3] = {};
    std::size_t used_ = 0;
    char characters_[row_size + 1] = {};
};

}  // namespace

void ZELFLASH::display_percentage(int count) {
    if (send_count < 1) {
        return;
    }
    const int percentage = static_cast<int>(static_cast<long long>(count) * 100 / send_count);
    if (percentage <= old_percentage) {
        return;
    }
    old_percentage = percentage;
    if (percentage % percentage_step != 0) {
        writelog_notrace(1, ".");
        return;
    }
    if (percentage == 0) {
        writelog_notrace(1, " ");
    }
    writelog_notrace(1, " %%%-3d complete\n", percentage);
}

void ZELFLASH::hex_display(const char* title, const void* data, int length) {
    if (OutputLevel < dump_level) {
        return;
    }
    writelog(0, "%s:\n", title);
    if (length < 1) {
        return;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    const int dump_length =
        length < longest_padded_dump ? (length + row_size - 1) / row_size * row_size : length;
    for (int offset = 0; offset + row_size <= dump_length; offset += row_size) {
        DumpRow row(offset);
        for (int position = 0; position < row_size; ++position) {
            if (offset + position < length) {
                row.add_byte(position, bytes[offset + position]);
            } else {
                row.add_padding(position);
            }
        }
        writedebug("     %s|%s\n", row.hexadecimal(), row.characters());
    }
    writedebug("\n");
}
