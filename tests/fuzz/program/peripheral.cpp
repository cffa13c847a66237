#include "program/peripheral.h"

#include "support/wire.h"

#include <algorithm>

namespace {

constexpr std::uint8_t serial_index = 3;
constexpr std::uint8_t interface_index = 4;
constexpr int output_size = 263;
constexpr int feature_size = 263;
constexpr std::uint16_t products[] = {0x3C02, 0x3C06, 0x3C75, 0x3C0A};
constexpr std::uint16_t vendor = 0x7A01;

enum Kind { good, with_report_ids, hub, raw_vendor, raw_configuration, raw_reports, raw_strings };
constexpr unsigned int kinds = 7;

constexpr std::uint8_t read_all_operation = 0x21;
constexpr std::uint8_t image_data_operation = 0x02;
constexpr int blocks_of_a_component = 2;

FakeSetting raw_setting(FuzzInput& input) {
    FakeSetting setting;
    setting.number = input.byte();
    setting.interface_class = static_cast<std::uint8_t>(input.byte() ^ LIBUSB_CLASS_HID);
    setting.string_index = static_cast<std::uint8_t>(input.byte() ^ interface_index);
    setting.extra = input.bytes(input.below(32));
    for (unsigned int left = input.below(12); left > 0; --left) {
        libusb_endpoint_descriptor endpoint{};
        endpoint.bEndpointAddress = static_cast<std::uint8_t>(input.byte() ^ 0x81);
        endpoint.bmAttributes = static_cast<std::uint8_t>(input.byte() ^ 3);
        endpoint.wMaxPacketSize = static_cast<std::uint16_t>(input.word() ^ 64);
        setting.endpoints.push_back(endpoint);
    }
    return setting;
}

}  // namespace

unsigned int kind_of(const Bytes& command) {
    const Bytes* const whole[] = {&wire::erase,
                                  &wire::reset,
                                  &wire::ec_level_query,
                                  &wire::device_information_query,
                                  &wire::extended_list_query,
                                  &wire::component_list_query};
    const auto* const found = std::find_if(std::begin(whole), std::end(whole),
                                           [&command](const Bytes* b) { return *b == command; });
    if (found != std::end(whole)) {
        return static_cast<unsigned int>(found - std::begin(whole));
    }
    if (command.size() > 4 && command[2] == image_data_operation) {
        return command[4] == 0 ? 6 : 7;  // checksum, record
    }
    return command.size() > 2 && command[2] == read_all_operation ? 8 : 9;
}

Peripheral::Peripheral(FakeUsbDevice& device, FuzzInput& input) : usb(device) {
    const unsigned int kind = input.below(kinds);
    uses_ids_ = kind == with_report_ids;
    make_flash_device(usb, uses_ids_, output_size, feature_size);
    usb.descriptor.idVendor = vendor;
    usb.descriptor.idProduct = products[input.below(std::size(products))];
    features_ = static_cast<std::uint8_t>(input.byte() ^ 0xF0);
    switch (kind) {
        case hub:
            usb.descriptor.bDeviceClass = LIBUSB_CLASS_HUB;
            break;
        case raw_vendor:
            usb.descriptor.idVendor = input.word();
            usb.descriptor.idProduct = input.word();
            usb.descriptor.bNumConfigurations = input.byte();
            break;
        case raw_configuration:
            describe_raw_configuration(input);
            break;
        case raw_reports:
            usb.report_descriptor = input.bytes(input.byte());
            usb.configurations[0].interfaces[0][0].extra =
                hid_descriptor(static_cast<int>(usb.report_descriptor.size()));
            break;
        case raw_strings:
            usb.strings[serial_index] = input.bytes(input.byte());
            usb.strings[interface_index] = input.bytes(input.byte());
            break;
        default:
            break;
    }
}

void Peripheral::describe_raw_configuration(FuzzInput& input) {
    auto& interfaces = usb.configurations[0].interfaces;
    for (unsigned int left = input.below(16); left > 0; --left) {
        auto& settings = interfaces.emplace_back();
        for (unsigned int more = input.below(4); more > 0; --more) {
            settings.push_back(raw_setting(input));
        }
    }
    // The flash interface comes last, and is found all the same.
    std::rotate(interfaces.begin(), interfaces.begin() + 1, interfaces.end());
}

Bytes Peripheral::report_on(const Bytes& command) const {
    if (command == wire::reset) {
        return {};
    }
    if (command == wire::device_information_query) {
        return {0x09, 0x01, 0x02, 0x03, features_, 0x00, 0x00, 0x00};
    }
    if (command == wire::ec_level_query) {
        return {0x05, 0x01, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00};
    }
    return {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
}

void Peripheral::take(const Bytes& command) {
    last_command_ = command;
    blocks_read_ = 0;
    is_erased = is_erased || command == wire::erase;
}

Bytes Peripheral::next_block() {
    if (++blocks_read_ > blocks_of_a_component) {
        return {0x01, 0x00, 0x00, 0xAB, 0xCD};
    }
    return {0x00, 0x00, 0x03, 0x10, 0x00, 0x01, 0x11, 0x22, 0x33};
}

Bytes Peripheral::data() {
    if (last_command_ == wire::component_list_query) {
        return {0x01, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x02, 0x01, 0x01, 0x01, 0x04};
    }
    if (last_command_ == wire::extended_list_query) {
        return {0x01, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00, 0x01,
                0x01, 0x02, 0x01, 0x01, 0x01, 0x01, 0x05, 0x02};
    }
    if (last_command_.size() > 2 && last_command_[2] == read_all_operation) {
        return next_block();
    }
    return {0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x01};
}

Bytes Peripheral::with_id(std::uint8_t id, const Bytes& bytes) const {
    return uses_ids_ ? join({{id}, bytes}) : bytes;
}

Bytes Peripheral::without_id(const Bytes& message) const {
    const auto skipped = uses_ids_ && !message.empty() ? 1 : 0;
    return {message.begin() + skipped, message.end()};
}
