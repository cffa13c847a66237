#include "zelfwfile/firmware_check.h"

#include "common/image_checksum.h"
#include "firmware/firmware_file.h"
#include "journal/file_handle.h"
#include "zelfwfile/firmware_content.h"
#include "zelfwfile/firmware_description.h"
#include "zelfwfile/firmware_show.h"

#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>

namespace {

/// Ends a check with the offset and reason of the first thing that is wrong.
class Fault : public std::runtime_error {
  public:
    Fault(std::size_t offset, const std::string& reason)
        : std::runtime_error("offset " + std::to_string(offset) + ": " + reason) {}
};

/// The first entry of a list record, or of a version record: what it says of the file.
struct RecordClaim {
    std::optional<int> component;
    std::optional<int> level;
};

RecordClaim claim_of_file_information(const FirmwareRecord& record) {
    const auto payload = record.payload();
    RecordClaim claim;
    if (record.subtype() == COMPONENT_ID_LIST) {
        claim.component = payload[0];
    } else if (record.subtype() == COMPONENT_VERSION_LIST &&
               payload.size() >= sizeof(VersionListEntry)) {
        const VersionListEntry entry = version_list_entry(payload, 0);
        claim.component = entry.marker_and_component & 0x0F;
        claim.level = entry.major * 256 + entry.minor;
    } else if (record.subtype() == COMPONENT_VERSION_LIST_EXTENDED &&
               payload.size() >= sizeof(ExtendedVersionListEntry)) {
        const ExtendedVersionListEntry entry = extended_version_list_entry(payload, 0);
        claim.component = entry.component;
        claim.level = entry.version();
    }
    return claim;
}

RecordClaim claim_of(const FirmwareRecord& record) {
    if (record.tag() == file_information_tag) {
        return claim_of_file_information(record);
    }
    RecordClaim claim;
    claim.component = record.component();
    const auto payload = record.payload();
    if (record.is_information()) {
        const bool has_version = record.subtype() == COMPONENT_VERSION ||
                                 record.subtype() == COMPONENT_VERSION_WITH_BUILD;
        if (has_version && payload.size() >= 2) {
            claim.level = payload[1] * 256 + payload[0];
        }
    } else if (record.kind() == inline_version_kind && inline_version(record) >= 0) {
        claim.level = inline_version(record);
    }
    return claim;
}

class FirmwareChecker {
  public:
    explicit FirmwareChecker(FILE* stream) : stream_(stream), reader_(stream) {}

    /// Throws the first fault; returns what the file is.
    std::string run();

  private:
    void check_header();
    void check_records();
    void take_record(const FirmwareRecord& record);
    void check_claim(const RecordClaim& claim);
    void check_end();
    std::string record_name() const { return "record " + std::to_string(records_); }

    FILE* stream_;
    FirmwareRecordReader reader_;
    std::size_t offset_ = 0;
    int product_ = 0;
    int level_ = 0;
    int component_ = -1;
    int records_ = 0;
    int download_records_ = 0;
    std::optional<ImageChecksum> checksum_;
};

void FirmwareChecker::check_header() {
    std::array<std::uint8_t, firmware_header_size> header{};
    const std::size_t size = fread(header.data(), 1, header.size(), stream_);
    if (size < header.size()) {
        throw Fault(size, "the file ends inside the header");
    }
    for (std::size_t i = 0; i < header.size(); ++i) {
        if (isxdigit(header[i]) == 0) {
            throw Fault(i, "the header has a character that is no hexadecimal digit");
        }
    }
    product_ = hexadecimal_value(std::span(header).first(firmware_header_field_size));
    level_ = hexadecimal_value(std::span(header).last(firmware_header_field_size));
    if (product_ == 0) {
        throw Fault(0, "the product ID is 0");
    }
    if (level_ == 0) {
        throw Fault(firmware_header_field_size, "the level is 00.00");
    }
    offset_ = header.size();
    checksum_.emplace(static_cast<std::uint16_t>(product_));
}

void FirmwareChecker::check_records() {
    FirmwareRecord record;
    for (;; ++records_) {
        switch (reader_.next(record)) {
            case RecordResult::whole:
                take_record(record);
                break;
            case RecordResult::short_body:
                throw Fault(offset_, record_name() + " is cut short: it needs " +
                                         std::to_string(record.needed_body_size()) +
                                         " bytes behind its length byte, the file has " +
                                         std::to_string(record.body_size));
            case RecordResult::end_of_file:
                throw Fault(offset_, "the file ends without an end mark");
            case RecordResult::read_error:
                throw Fault(offset_, "the file cannot be read");
            case RecordResult::end_mark:
                return;
        }
    }
}

void FirmwareChecker::take_record(const FirmwareRecord& record) {
    check_claim(claim_of(record));
    if (!record.is_information() && record.kind() != inline_version_kind) {
        ++download_records_;
    }
    const auto bytes = record.read_bytes();
    checksum_->add_record(bytes.subspan(1));
    offset_ += bytes.size();
}

void FirmwareChecker::check_claim(const RecordClaim& claim) {
    if (claim.component) {
        if (component_ >= 0 && *claim.component != component_) {
            throw Fault(offset_, record_name() + " is for component " +
                                     std::to_string(*claim.component) + ", those before it for " +
                                     std::to_string(component_));
        }
        component_ = *claim.component;
    }
    if (claim.level && *claim.level != level_) {
        throw Fault(offset_, record_name() + " says level " + level_text(*claim.level) +
                                 ", the header says " + level_text(level_));
    }
}

void FirmwareChecker::check_end() {
    if (download_records_ == 0) {
        throw Fault(offset_, "the file has no download record");
    }
    ++offset_;
    std::array<std::uint8_t, firmware_checksum_size> bytes{};
    const int size = reader_.read_checksum(bytes);
    if (size < firmware_checksum_size) {
        throw Fault(offset_ + static_cast<std::size_t>(size), "the file ends inside the checksum");
    }
    const int found = bytes[0] * 256 + bytes[1];
    if (found != checksum_->value()) {
        throw Fault(offset_, "the checksum is " + four_digits(found) + ", it must be " +
                                 four_digits(checksum_->value()));
    }
    if (fgetc(stream_) != EOF) {
        throw Fault(offset_ + bytes.size(), "something stands behind the checksum");
    }
}

std::string FirmwareChecker::run() {
    check_header();
    check_records();
    check_end();
    return "OK: product " + four_digits(product_) + ", component " + std::to_string(component_) +
           ", level " + level_text(level_) + ", " + std::to_string(records_) + " records, " +
           std::to_string(download_records_) + " of them data";
}

/// Build, type and name.
std::string further_words(const std::string& path) {
    const FirmwareContent content = read_firmware_content(path);
    std::string words =
        ", build " + std::to_string(content.build) + ", type " + described_type(content.type);
    if (content.name) {
        words += ", name " + quoted_text(*content.name);
    }
    return words;
}

}  // namespace

FirmwareVerdict check_firmware_file(const std::string& path) {
    const FileHandle file = open_regular_file(path.c_str());
    if (file == nullptr) {
        return {false, "cannot be opened, or is no regular file"};
    }
    try {
        std::string words = FirmwareChecker(file.get()).run();
        return {true, words + further_words(path)};
    } catch (const std::runtime_error& fault) {
        return {false, fault.what()};
    }
}
