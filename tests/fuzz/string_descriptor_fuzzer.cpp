// String descriptors: the first byte of the input is the size of the caller's buffer, the second a
// negative transfer result or not, the rest the device's answer.
#include "support/check.h"
#include "support/fake_usb.h"
#include "support/fuzz_input.h"
#include "usb/flshusbintf.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr uint8_t serial_number_index = 1;
constexpr std::size_t longest_answer = 255;

struct Answer {
    int rc = 0;  ///< a negative one comes instead of the bytes
    Bytes bytes;
};

Answer answer;

int give_answer(libusb_device_handle*, uint8_t, uint8_t, uint16_t, uint16_t, unsigned char* data,
                uint16_t length, unsigned int) {
    if (answer.rc < 0) {
        return answer.rc;
    }
    const std::size_t count = std::min<std::size_t>(answer.bytes.size(), length);
    std::copy_n(answer.bytes.begin(), count, data);
    return static_cast<int>(count);
}

/// The text of a descriptor (USB 2.0, section 9.6.7): what is not Latin-1 shows as '?'.
std::string text_of(const Bytes& bytes, std::size_t longest) {
    std::string text;
    for (std::size_t i = 2; i < bytes[0] && text.size() < longest; i += 2) {
        const bool has_high_byte = i + 1 < bytes.size() && bytes[i + 1] != 0;
        text += has_high_byte ? '?' : static_cast<char>(bytes[i]);
    }
    return text;
}

void check_text(USBINTF& intf, std::size_t size) {
    std::vector<unsigned char> buffer(size, 0xEE);
    const int count =
        intf.GetStringDescriptorAscii(serial_number_index, buffer.data(), static_cast<int>(size));
    const Bytes& bytes = answer.bytes;
    if (size < 1) {
        check(count == LIBUSB_ERROR_INVALID_PARAM, "no buffer is refused");
    } else if (answer.rc < 0) {
        check(count == answer.rc, "a failed transfer gives its result");
    } else if (bytes.empty()) {
        check(count == 0, "an empty answer gives 0");
    } else if (bytes.size() < 2 || bytes[1] != LIBUSB_DT_STRING || bytes[0] > bytes.size()) {
        check(count == -1, "what is no whole string descriptor is refused");
    } else {
        const std::string expected = text_of(bytes, size - 1);
        check(count == static_cast<int>(expected.size()), "the count is the text's");
        check(
            std::equal(expected.begin(), expected.end(), buffer.begin(),
                       [](char a, unsigned char b) { return static_cast<unsigned char>(a) == b; }),
            "the text is the descriptor's");
        check(buffer[expected.size()] == '\0', "the text ends in a NUL");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const std::size_t buffer_size = input.byte();
    answer.rc = std::min<int>(static_cast<int8_t>(input.byte()), 0);
    answer.bytes = input.bytes(longest_answer);

    FakeUsb usb;
    FakeUsbDevice& device = usb.add(1, 2, 0x7A01, 0x3C02);
    device.descriptor.iSerialNumber = serial_number_index;
    p_libusb_control_transfer = give_answer;
    USBINTF intf;
    check(intf.OpenDevice(as_libusb(device)) == 0, "the device opens");
    check_text(intf, buffer_size);
    const char* const serial = intf.GetSerialNumber();
    const std::size_t length = strnlen(serial, sizeof intf.SerialNumber);
    check(length >= 1 && length < sizeof intf.SerialNumber, "a serial number is a text");
    return 0;
}
