#include "zelfwfile/firmware_from_trace.h"

#include "common/image_checksum.h"
#include "common/printed.h"
#include "firmware/firmware_file.h"
#include "zelfwfile/firmware_content.h"
#include "zelfwfile/firmware_show.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

using zelf::printed;

namespace {

constexpr std::size_t longest_name = 200;
/// A bound for what a made-up trace takes.
constexpr std::size_t most_versions = 16;

/// A record in the bytes of an image, without its length byte, and its payload.
struct RecordView {
    zelf::ByteView record;

    int tag() const { return record[0]; }
    int value() const { return record[1] * 256 + record[2]; }
    zelf::ByteView payload() const { return record.subspan(3); }
};

std::vector<RecordView> records_of(const SentImage& image) {
    std::vector<RecordView> records;
    for (std::size_t at = 0; at < image.records.size();) {
        const std::size_t size = image.records[at] + std::size_t{firmware_record_head_size};
        records.push_back({zelf::ByteView(image.records).subspan(at + 1, size - 1)});
        at += size;
    }
    return records;
}

int right_checksum(const SentImage& image) {
    ImageChecksum checksum(static_cast<std::uint16_t>(image.product));
    for (const RecordView& record : records_of(image)) {
        checksum.add_record(record.record);
    }
    return checksum.value();
}

bool has_right_checksum(const SentImage& image) {
    return image.checksum && *image.checksum == right_checksum(image);
}

/// An image of zeros that gives another checksum has been taken out of the trace.
bool is_redacted(const SentImage& image) {
    return image.data_records > 0 && image.zero_records == image.data_records &&
           !has_right_checksum(image);
}

/// Why it is not the whole file; empty when it is.
std::string trouble(const SentImage& image) {
    const std::string count =
        std::to_string(image.record_count) +
        (image.announced ? " of " + std::to_string(*image.announced) : "") +
        (image.record_count == 1 && !image.announced ? " record" : " records");
    if (image.is_torn) {
        return count + ", and the trace is damaged among them";
    }
    if (!image.checksum) {
        return count + ", then the update was broken off";
    }
    const bool is_counted = image.announced && *image.announced == image.record_count;
    if (image.announced && !is_counted) {
        return count + " are in the trace";
    }
    if (!is_counted && !has_right_checksum(image)) {
        return count + ", and the checksum is not theirs";
    }
    return "";
}

/// The level that an information record of the file names, if one does.
std::optional<int> level_of_record(const RecordView& record) {
    const zelf::ByteView payload = record.payload();
    if (record.tag() == file_information_tag) {
        if (record.value() == COMPONENT_VERSION_LIST &&
            payload.size() >= sizeof(VersionListEntry)) {
            const VersionListEntry entry = version_list_entry(payload, 0);
            return entry.major * 256 + entry.minor;
        }
        if (record.value() == COMPONENT_VERSION_LIST_EXTENDED &&
            payload.size() >= sizeof(ExtendedVersionListEntry)) {
            return extended_version_list_entry(payload, 0).version();
        }
    } else if (record.tag() >> 4 == information_nibble && payload.size() >= 2 &&
               (record.value() == COMPONENT_VERSION ||
                record.value() == COMPONENT_VERSION_WITH_BUILD)) {
        return payload[1] * 256 + payload[0];
    }
    return std::nullopt;
}

std::optional<int> level_of_records(const SentImage& image) {
    std::optional<int> level;
    for (const RecordView& record : records_of(image)) {
        if (const auto named = level_of_record(record)) {
            level = named;
        }
    }
    return level;
}

/// The component that the first data record goes to.
int component_of(const SentImage& image) {
    for (const RecordView& record : records_of(image)) {
        if (record.tag() >> 4 != information_nibble) {
            return record.tag() >> 4;
        }
    }
    return 0;
}

/// Whether a file can be made under this name, and printed.
bool is_plain_name(std::string_view name) {
    return !name.empty() && name.size() <= longest_name && name.front() != '.' &&
           name.front() != '-' && quoted_text(name) == '"' + std::string(name) + '"';
}

/// Puts one file together, and notes what is from where.
class Builder {
  public:
    explicit Builder(const SentImage& image) : image_(image) {}

    RebuiltFirmware build() {
        take_name();
        if (is_redacted(image_)) {
            file_.is_redacted = true;
            file_.words = "its image is zeros, as in a redacted trace";
            return file_;
        }
        const std::optional<int> level = take_level();
        if (!level) {
            file_.words = "the trace tells its level nowhere";
            return file_;
        }
        const std::string header = four_digits(image_.product) + four_digits(*level);
        if (header.find_first_of("abcdef") != std::string::npos) {
            file_.guessed.push_back("the letters of the header " + header + " are in lower case");
        }
        if (image_.is_redirected) {
            file_.guessed.push_back(
                printed("component %d: it was changed on the way (-c), the "
                        "file may name another",
                        component_of(image_)));
        }
        file_.bytes.assign(header.begin(), header.end());
        file_.bytes.insert(file_.bytes.end(), image_.records.begin(), image_.records.end());
        end();
        return file_;
    }

  private:
    void take_name() {
        const std::size_t slash = image_.file.rfind('/');
        file_.name = image_.file.substr(slash == std::string::npos ? 0 : slash + 1);
        has_name_ = is_plain_name(file_.name);
        if (!has_name_) {
            file_.name =
                four_digits(image_.product) + "-" + std::to_string(component_of(image_)) + ".dat";
        }
    }

    std::optional<int> take_level() {
        file_.given.push_back("from the messages: product " + four_digits(image_.product) +
                              ", records" + (image_.checksum ? ", checksum" : ""));
        const std::optional<int> named = level_of_records(image_);
        const std::optional<int> level = image_.level ? image_.level : named;
        if (!level || *level == 0) {
            return std::nullopt;
        }
        const bool is_given = image_.level && (!image_.is_level_of_records || !named);
        if (is_given) {
            file_.given.push_back("from the log: level " + level_text(*level) +
                                  (has_name_ ? ", name" : ""));
        } else {
            if (has_name_) {
                file_.given.emplace_back("from the log: name");
            }
            file_.guessed.push_back("level " + level_text(*level) +
                                    " in the header: that of the information records; the log "
                                    "does not tell the header's");
        }
        if (!has_name_) {
            file_.name = printed("%04x-%d-%04x.dat", static_cast<unsigned int>(image_.product),
                                 component_of(image_), static_cast<unsigned int>(*level));
            file_.guessed.push_back("the file's name");
        }
        return level;
    }

    void end() {
        file_.words = trouble(image_);
        file_.is_whole = file_.words.empty();
        if (!file_.is_whole) {
            file_.name += ".part";
            return;
        }
        const int checksum = *image_.checksum;
        file_.bytes.push_back(0);
        file_.bytes.push_back(static_cast<std::uint8_t>(checksum >> 8));
        file_.bytes.push_back(static_cast<std::uint8_t>(checksum));
        file_.words =
            printed("whole, %zu records, %zu bytes", image_.record_count, file_.bytes.size());
        if (!has_right_checksum(image_)) {
            file_.words += ", checksum " + four_digits(checksum) + " as it was sent, but " +
                           four_digits(right_checksum(image_)) + " by the records";
        }
    }

    const SentImage& image_;
    RebuiltFirmware file_;
    bool has_name_ = false;
};

bool is_beginning(const SentImage& one, const SentImage& other) {
    return one.records.size() <= other.records.size() &&
           std::equal(one.records.begin(), one.records.end(), other.records.begin());
}

/// Whether `other` holds all that `one` does.
bool is_covered(const SentImage& one, const SentImage& other) {
    if (trouble(one).empty()) {
        return trouble(other).empty() && one.records == other.records &&
               one.checksum == other.checksum;
    }
    const bool is_lost = one.is_torn && !one.file.empty();
    return (is_lost && trouble(other).empty()) || is_beginning(one, other);
}

/// Images that carry what no other one of their file does.
std::vector<const SentImage*> different_images(const std::vector<SentImage>& images) {
    std::map<std::pair<int, std::string>, std::vector<const SentImage*>> by_file;
    std::vector<const SentImage*> kept;
    for (const SentImage& image : images) {
        auto& known = by_file[{image.product, image.file}];
        if (std::any_of(known.begin(), known.end(),
                        [&](const SentImage* one) { return is_covered(image, *one); })) {
            continue;
        }
        const auto covered = std::find_if(known.begin(), known.end(), [&](const SentImage* one) {
            return is_covered(*one, image);
        });
        if (covered != known.end()) {
            std::replace(kept.begin(), kept.end(), *covered, &image);
            *covered = &image;
            continue;
        }
        if (known.size() == most_versions) {
            throw std::runtime_error("more than " + std::to_string(most_versions) +
                                     " different images of one file");
        }
        known.push_back(&image);
        kept.push_back(&image);
    }
    return kept;
}

/// "a.dat", "a-2.dat"...
std::string free_name(const std::string& name, std::set<std::string>& taken) {
    const std::size_t dot = std::min(name.rfind('.'), name.size());
    std::string free = name;
    for (int number = 2; !taken.insert(free).second; ++number) {
        free = name.substr(0, dot) + "-" + std::to_string(number) + name.substr(dot);
    }
    return free;
}

}  // namespace

std::vector<RebuiltFirmware> rebuilt_firmware(const std::vector<SentImage>& images) {
    std::vector<RebuiltFirmware> files;
    std::set<std::string> taken;
    for (const SentImage* image : different_images(images)) {
        files.push_back(Builder(*image).build());
        if (!files.back().bytes.empty()) {
            files.back().name = free_name(files.back().name, taken);
        }
    }
    return files;
}
