#include "flash_protocol.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/usb_packet.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace {

/// Above the longest report with its header.
constexpr int longest_packet = 0x20000;
constexpr int devices_of_a_bus = 127;
constexpr std::int64_t milliseconds_of_a_second = 1000;

struct CloseCapture {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
};
struct CloseDump {
    void operator()(pcap_dumper_t* dump) const { pcap_dump_close(dump); }
};

class CaptureOutput : public TraceOutput {
  public:
    /// False when the file can't be opened.
    bool open(const std::string& path, std::string& reason) {
        capture_.reset(pcap_open_dead(DLT_USB_LINUX_MMAPPED, longest_packet));
        if (capture_ == nullptr) {
            reason = "no memory for the capture";
            return false;
        }
        dump_.reset(pcap_dump_open(capture_.get(), path.c_str()));
        if (dump_ == nullptr) {
            reason = pcap_geterr(capture_.get());
        }
        return dump_ != nullptr;
    }

    void take(const TraceEntry& entry, const Meaning& /*meaning*/) override {
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
        if (pcap_dump_flush(dump_.get()) != 0 || ferror(pcap_dump_file(dump_.get())) != 0) {
            return strerror(errno != 0 ? errno : EIO);
        }
        return "";
    }

  private:
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
        }
        return found->second;
    }

    void write(const UsbTransfer& transfer, std::int64_t time) {
        ++transfers_;
        for (const bool is_completion : {false, true}) {
            const std::string packet = usb_packet(transfer, is_completion, transfers_, time);
            pcap_pkthdr header = {};
            header.ts.tv_sec = static_cast<time_t>(time / milliseconds_of_a_second);
            header.ts.tv_usec = static_cast<suseconds_t>(time % milliseconds_of_a_second * 1000);
            header.caplen = static_cast<bpf_u_int32>(packet.size());
            header.len = header.caplen;
            pcap_dump(reinterpret_cast<u_char*>(dump_.get()), &header,
                      reinterpret_cast<const u_char*>(packet.data()));
        }
    }

    std::unique_ptr<pcap_t, CloseCapture> capture_;
    std::unique_ptr<pcap_dumper_t, CloseDump> dump_;
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
