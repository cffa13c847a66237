#include "flash_protocol.h"
#include "journal/file_handle.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/pcapng.h"
#include "zelfwtrace/usb_packet.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::uint16_t linktype_usb_linux_mmapped = 220;
constexpr int devices_of_a_bus = 127;

/// Lines of the log on their way to the packet that follows them.
class Comments {
  public:
    void add(std::string_view text) {
        while (!text.empty() && text.back() == '\n') {
            text.remove_suffix(1);
        }
        if (text.empty()) {
            return;
        }
        const std::string line = one_line(text);
        if (size_ + line.size() > most_bytes || lines_.size() >= most_lines) {
            ++left_out_;
            return;
        }
        size_ += line.size();
        lines_.push_back(line);
    }

    std::vector<std::string> take() {
        if (left_out_ > 0) {
            lines_.push_back("(" + std::to_string(left_out_) + " more lines of the log)");
        }
        size_ = 0;
        left_out_ = 0;
        return std::exchange(lines_, {});
    }

  private:
    /// Readers refuse a block of 16 MiB.
    static constexpr std::size_t most_bytes = 0x100000;
    static constexpr std::size_t most_lines = 10000;

    std::vector<std::string> lines_;
    std::size_t size_ = 0;
    std::uint64_t left_out_ = 0;
};

class CaptureOutput : public TraceOutput {
  public:
    /// False when the file can't be opened.
    bool open(const std::string& path, std::string& reason) {
        if (path == "-") {
            stream_ = stdout;
        } else {
            file_.reset(fopen(path.c_str(), "wbe"));
            stream_ = file_.get();
        }
        if (stream_ == nullptr) {
            reason = strerror(errno);
            return false;
        }
        put(pcapng_beginning(linktype_usb_linux_mmapped));
        return true;
    }

    void take(const TraceEntry& entry, const Meaning& /*meaning*/) override {
        if (entry.kind == trace_kind::text) {
            comments_.add(entry.payload);
        }
        if (!entry.is_transfer()) {
            return;
        }
        const std::int64_t time = entry.time_in_milliseconds();
        const UsbAddress address = address_of(entry.product(), time);
        switch (entry.kind) {
            case trace_kind::report_written:
                write(control_out(address, set_output_report, entry.report()), time);
                break;
            case trace_kind::status_read:
                write(interrupt_in(address, entry.report()), time);
                break;
            default:
                write(control_in(address, get_feature_report, entry.report()), time);
                break;
        }
    }

    std::string finish() override {
        for (std::string& line : comments_.take()) {
            last_.comments.push_back(std::move(line));
        }
        write_last();
        if (error_ == 0 && fflush(stream_) != 0) {
            error_ = errno;
        }
        return error_ != 0 ? strerror(error_) : "";
    }

  private:
    /// A packet that waits for the next one: the last lines of the log belong to the last packet.
    struct Packet {
        std::int64_t time = 0;
        std::string bytes;
        std::vector<std::string> comments;
    };

    /// The address of a product. At its first use the capture gets the descriptors that tell a
    /// reader of the capture what the device is.
    UsbAddress address_of(std::uint16_t product, std::int64_t time) {
        const auto count = static_cast<int>(addresses_.size());
        const auto [found, is_new] = addresses_.try_emplace(
            product, UsbAddress{static_cast<std::uint16_t>(count / devices_of_a_bus + 1),
                                static_cast<std::uint8_t>(count % devices_of_a_bus + 1)});
        if (is_new) {
            write(control_in(found->second, get_device_descriptor, device_descriptor(product)),
                  time);
            write(
                control_in(found->second, get_configuration_descriptor, configuration_descriptor()),
                time);
            write(control_in(found->second, get_report_descriptor, report_descriptor()), time);
        }
        return found->second;
    }

    void write(const UsbTransfer& transfer, std::int64_t time) {
        ++transfers_;
        for (const bool is_completion : {false, true}) {
            write_last();
            last_ = {time, usb_packet(transfer, is_completion, transfers_, time), {}};
            if (is_described(transfer)) {
                last_.comments = comments_.take();
            }
        }
    }

    /// The made-up requests for descriptors are no business of the log.
    static bool is_described(const UsbTransfer& transfer) {
        return transfer.kind == UsbTransfer::Kind::interrupt ||
               transfer.request.request != get_device_descriptor.request;
    }

    void write_last() {
        if (last_.bytes.empty()) {
            return;
        }
        put(pcapng_packet(last_.time, last_.bytes, last_.comments));
        last_ = {};
    }

    void put(const std::string& bytes) {
        if (error_ == 0 && fwrite(bytes.data(), 1, bytes.size(), stream_) != bytes.size()) {
            error_ = errno != 0 ? errno : EIO;
        }
    }

    FileHandle file_;
    FILE* stream_ = nullptr;
    int error_ = 0;
    Comments comments_;
    Packet last_;
    std::map<std::uint16_t, UsbAddress> addresses_;
    std::uint64_t transfers_ = 0;
};

}  // namespace

std::unique_ptr<TraceOutput> capture_output(const std::string& path, std::string& reason) {
    auto output = std::make_unique<CaptureOutput>();
    if (!output->open(path, reason)) {
        return nullptr;
    }
    return output;
}
