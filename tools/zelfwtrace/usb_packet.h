/// \file
/// USB transfers in the form of Linux's binary usbmon interface, as captures of the link type
/// LINKTYPE_USB_LINUX_MMAPPED hold them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

struct UsbAddress {
    std::uint16_t bus;
    std::uint8_t device;
};

/// A control request without its length (USB 2.0, 9.3).
struct UsbRequest {
    std::uint8_t type;
    std::uint8_t request;
    std::uint16_t value;
    std::uint16_t index;
};
constexpr UsbRequest get_device_descriptor = {0x80, 6, 0x0100, 0};
constexpr UsbRequest get_configuration_descriptor = {0x80, 6, 0x0200, 0};
/// HID 1.11, 7.1.1.
constexpr UsbRequest get_report_descriptor = {0x81, 6, 0x2200, 0};
/// HID 1.11, 7.2: the report types are output 2 and feature 3.
constexpr UsbRequest set_output_report = {0x21, 9, 0x0200, 0};
constexpr UsbRequest get_feature_report = {0xA1, 1, 0x0300, 0};

/// One transfer: what the host asks for, and what went over the bus.
struct UsbTransfer {
    enum class Kind { control, interrupt };

    UsbAddress address;
    Kind kind;
    bool to_host;
    UsbRequest request;  ///< of a control transfer
    std::string_view data;
};

UsbTransfer control_out(const UsbAddress& address, const UsbRequest& request,
                        std::string_view data);
UsbTransfer control_in(const UsbAddress& address, const UsbRequest& request, std::string_view data);
UsbTransfer interrupt_in(const UsbAddress& address, std::string_view data);

/// The packet of a transfer's submission or of its completion; `number` is the same for both.
/// `time` in milliseconds since the epoch.
std::string usb_packet(const UsbTransfer& transfer, bool is_completion, std::uint64_t number,
                       std::int64_t time);

/// The device descriptor of a product, with what a trace does not tell left 0.
std::string device_descriptor(std::uint16_t product);

/// One configuration with one HID interface, numbered 0, whose interrupt endpoint is IN 1.
const std::string& configuration_descriptor();

/// Of the flash interface, without report IDs.
const std::string& report_descriptor();
