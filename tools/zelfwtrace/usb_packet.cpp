#include "zelfwtrace/usb_packet.h"

#include "common/time_text.h"
#include "flash_protocol.h"

#include <bit>
#include <initializer_list>

namespace {

constexpr std::uint8_t to_host_bit = 0x80;
constexpr std::uint8_t interrupt_endpoint = 1;
// Transfer types as usbmon counts them.
constexpr std::uint8_t interrupt_type = 1;
constexpr std::uint8_t control_type = 2;
constexpr std::int32_t in_progress = -115;
constexpr char absent_out = '>';
constexpr char absent_in = '<';
constexpr char no_setup = '-';
constexpr int interrupt_type_attribute = 3;  ///< as an endpoint descriptor has it
constexpr std::size_t most_data = 0xFFFF;

/// As the Linux kernel's documentation of usbmon has it.
struct UsbmonHeader {
    std::uint64_t id;
    std::uint8_t event_type;
    std::uint8_t transfer_type;
    std::uint8_t endpoint_number;
    std::uint8_t device_address;
    std::uint16_t bus_id;
    char setup_flag;
    char data_flag;
    std::int64_t seconds;
    std::int32_t microseconds;
    std::int32_t status;
    std::uint32_t urb_length;
    std::uint32_t data_length;
    struct {
        std::uint8_t type;
        std::uint8_t request;
        std::uint16_t value;
        std::uint16_t index;
        std::uint16_t length;
    } setup;
    std::int32_t interval;
    std::int32_t start_frame;
    std::uint32_t transfer_flags;
    std::uint32_t descriptors;
};

static_assert(sizeof(UsbmonHeader) == 64, "the same on every word size");
static_assert(std::endian::native == std::endian::little, "the header is copied as they are");

template <typename Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

std::string from_bytes(std::initializer_list<int> values) {
    std::string bytes;
    for (const int value : values) {
        bytes += static_cast<char>(value);
    }
    return bytes;
}

/// An item of HID 1.11, 6.2.2, with a word of data.
std::string word_item(int prefix, int value) {
    return from_bytes({prefix | 2, value & 0xFF, value >> 8});
}

/// A report of bytes; `main_item` is input, output or feature.
std::string report(int usage, int size, int main_item) {
    constexpr int usage_item = 0x08;
    constexpr int count_item = 0x94;
    constexpr int variable = 0x02;
    return word_item(usage_item, usage) + word_item(count_item, size) +
           from_bytes({main_item | 1, variable});
}

}  // namespace

UsbTransfer control_out(const UsbAddress& address, const UsbRequest& request,
                        std::string_view data) {
    return {address, UsbTransfer::Kind::control, false, request, data.substr(0, most_data)};
}

UsbTransfer control_in(const UsbAddress& address, const UsbRequest& request,
                       std::string_view data) {
    return {address, UsbTransfer::Kind::control, true, request, data.substr(0, most_data)};
}

UsbTransfer interrupt_in(const UsbAddress& address, std::string_view data) {
    return {address, UsbTransfer::Kind::interrupt, true, {}, data.substr(0, most_data)};
}

std::string usb_packet(const UsbTransfer& transfer, bool is_completion, std::uint64_t number,
                       std::int64_t time) {
    const bool is_control = transfer.kind == UsbTransfer::Kind::control;
    // Data goes with the submission on its way out, and with the completion on its way in.
    const bool has_data = transfer.to_host == is_completion && !transfer.data.empty();
    const auto length = static_cast<std::uint32_t>(transfer.data.size());
    UsbmonHeader header = {};
    header.id = number;
    header.event_type = is_completion ? 'C' : 'S';
    header.transfer_type = is_control ? control_type : interrupt_type;
    header.endpoint_number = static_cast<std::uint8_t>((is_control ? 0 : interrupt_endpoint) |
                                                       (transfer.to_host ? to_host_bit : 0));
    header.device_address = transfer.address.device;
    header.bus_id = transfer.address.bus;
    header.setup_flag = no_setup;
    header.data_flag =
        static_cast<char>(has_data ? 0 : (transfer.to_host ? absent_in : absent_out));
    header.seconds = time / zelf::milliseconds_of_a_second;
    header.microseconds = static_cast<std::int32_t>(time % zelf::milliseconds_of_a_second * 1000);
    header.status = is_completion ? 0 : in_progress;
    header.urb_length = length;
    header.data_length = has_data ? length : 0;
    if (is_control && !is_completion) {
        header.setup_flag = 0;
        header.setup.type = transfer.request.type;
        header.setup.request = transfer.request.request;
        header.setup.value = transfer.request.value;
        header.setup.index = transfer.request.index;
        header.setup.length = static_cast<std::uint16_t>(length);
    }
    header.interval = is_control ? 0 : 1;
    std::string packet = bytes_of(header);
    if (has_data) {
        packet += transfer.data;
    }
    return packet;
}

const std::string& report_descriptor() {
    constexpr int page_item = 0x04;
    constexpr int usage_item = 0x08;
    constexpr int input = 0x80, output = 0x90, feature = 0xB0;
    constexpr int longest_message = 263;
    constexpr int status_size = 8;
    constexpr int longest_answer = record_answer::size;
    static const std::string bytes =
        word_item(page_item, flash_usage::page) + word_item(usage_item, flash_usage::interface) +
        from_bytes({0xA1, 0x01}) +                       // application collection
        from_bytes({0x15, 0, 0x26, 0xFF, 0, 0x75, 8}) +  // values 0 to 255 of 8 bits
        report(flash_usage::command, longest_message, output) +
        report(flash_usage::status, status_size, input) +
        report(flash_usage::data, longest_answer, feature) + from_bytes({0xC0});
    return bytes;
}

std::string device_descriptor(std::uint16_t product) {
    return from_bytes({18, 1, 0x00, 0x02, 0, 0, 0, 64,                  // USB 2.0
                       0, 0, product & 0xFF, product >> 8, 0, 0, 0, 0,  // no vendor, no strings
                       0, 1});
}

const std::string& configuration_descriptor() {
    const auto report_size = static_cast<int>(report_descriptor().size());
    static const std::string bytes = from_bytes({
        9,
        2,
        34,
        0,
        1,
        1,
        0,
        0x80,
        50,  // configuration
        9,
        4,
        0,
        0,
        1,
        3,
        0,
        0,
        0,  // HID interface
        9,
        0x21,
        0x11,
        0x01,
        0,
        1,
        0x22,
        report_size & 0xFF,
        report_size >> 8,  // HID 1.11
        7,
        5,
        interrupt_endpoint | to_host_bit,
        interrupt_type_attribute,
        64,
        0,
        1,  // endpoint
    });
    return bytes;
}
