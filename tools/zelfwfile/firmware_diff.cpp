#include "zelfwfile/firmware_diff.h"

#include "common/printed.h"
#include "zelfwfile/firmware_show.h"

#include <algorithm>
#include <map>

using zelf::printed;

namespace {

/// Of a record or tail, so many differing bytes are shown one by one.
constexpr std::size_t most_bytes_shown = 8;

using Keys = std::map<std::pair<int, int>, std::vector<std::size_t>>;

Keys keys_of(const FirmwareContent& content) {
    Keys keys;
    for (std::size_t i = 0; i < content.records.size(); ++i) {
        keys[{content.records[i].tag, content.records[i].value}].push_back(i);
    }
    return keys;
}

/// How far behind `from` a record with the tag and value of `record` is; none when there is none.
std::optional<std::size_t> distance_to(const Keys& keys, const ContentRecord& record,
                                       std::size_t from) {
    const auto found = keys.find({record.tag, record.value});
    if (found == keys.end()) {
        return std::nullopt;
    }
    const auto place = std::lower_bound(found->second.begin(), found->second.end(), from);
    return place == found->second.end() ? std::nullopt : std::optional(*place - from);
}

std::string bytes_words(zelf::ByteView one, zelf::ByteView other) {
    const std::size_t common = std::min(one.size(), other.size());
    std::string words;
    std::size_t count = 0;
    for (std::size_t i = 0; i < common; ++i) {
        if (one[i] == other[i]) {
            continue;
        }
        if (++count <= most_bytes_shown) {
            words +=
                printed("%s byte %zu: %02x, %02x", words.empty() ? "" : ";", i + 1,
                        static_cast<unsigned int>(one[i]), static_cast<unsigned int>(other[i]));
        }
    }
    if (count > most_bytes_shown) {
        words += printed("; %zu bytes more", count - most_bytes_shown);
    }
    if (one.size() != other.size()) {
        words += printed("%s length: %zu, %zu", words.empty() ? "" : ";", one.size(), other.size());
    }
    return words;
}

class Comparison {
  public:
    Comparison(const FirmwareContent& one, const FirmwareContent& other)
        : one_(one), other_(other), keys_(keys_of(one)), other_keys_(keys_of(other)) {}

    std::string run() {
        compare("header", quoted_text(one_.header), quoted_text(other_.header));
        while (at_ < one_.records.size() || other_at_ < other_.records.size()) {
            compare_next();
        }
        compare_ends();
        return lines_;
    }

  private:
    void compare(const char* what, const std::string& one, const std::string& other) {
        if (one != other) {
            lines_ += std::string(what) + ": " + one + ", " + other + "\n";
        }
    }
    void add_only(const char* where, const ContentRecord& record, std::size_t place) {
        lines_ += printed("record %zu (%s, %s, %zu bytes): only in the %s file\n", place + 1,
                          record.number().c_str(), record.meaning().c_str(), record.payload.size(),
                          where);
    }
    void skip_one() { add_only("first", one_.records[at_], at_), ++at_; }
    void skip_other() { add_only("second", other_.records[other_at_], other_at_), ++other_at_; }
    void compare_next();
    void compare_payloads(const ContentRecord& one, const ContentRecord& other);
    void compare_ends();

    const FirmwareContent& one_;
    const FirmwareContent& other_;
    Keys keys_, other_keys_;
    std::size_t at_ = 0, other_at_ = 0;
    std::string lines_;
};

void Comparison::compare_next() {
    if (at_ == one_.records.size()) {
        return skip_other();
    }
    if (other_at_ == other_.records.size()) {
        return skip_one();
    }
    const ContentRecord& one = one_.records[at_];
    const ContentRecord& other = other_.records[other_at_];
    if (one.tag == other.tag && one.value == other.value) {
        compare_payloads(one, other);
        ++at_;
        ++other_at_;
        return;
    }
    const auto in_other = distance_to(other_keys_, one, other_at_);
    const auto in_one = distance_to(keys_, other, at_);
    if (in_other && (!in_one || *in_other <= *in_one)) {
        skip_other();
    } else {
        skip_one();
    }
}

void Comparison::compare_payloads(const ContentRecord& one, const ContentRecord& other) {
    const std::string words = bytes_words(one.payload, other.payload);
    if (!words.empty()) {
        lines_ +=
            printed("record %zu (%s, %s):", at_ + 1, one.number().c_str(), one.meaning().c_str()) +
            words + "\n";
    }
}

void Comparison::compare_ends() {
    const auto checksum = [](const FirmwareContent& content) {
        return content.checksum ? four_digits(*content.checksum) : std::string("none");
    };
    compare("checksum", checksum(one_), checksum(other_));
    const auto tail = [](const FirmwareContent& content) {
        const std::size_t end = content.end + (content.checksum ? 1U + firmware_checksum_size : 0U);
        return zelf::ByteView(content.bytes).subspan(end);
    };
    const std::string words = bytes_words(tail(one_), tail(other_));
    if (!words.empty()) {
        lines_ += "behind the end:" + words + "\n";
    }
}

}  // namespace

std::string firmware_differences(const FirmwareContent& one, const FirmwareContent& other) {
    return one.bytes == other.bytes ? "" : Comparison(one, other).run();
}
