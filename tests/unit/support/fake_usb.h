/// \file
/// A libusb of scripted devices behind the p_libusb_* pointers, which records what it is asked.
#pragma once

#include "usb/zelhidlib.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

/// The vendor-defined page of the firmware interface.
constexpr unsigned short flash_page = 0xFF45;

/// Appends parts to one byte string.
Bytes join(const std::vector<Bytes>& parts);

struct FakeSetting {
    uint8_t number = 0;
    uint8_t interface_class = LIBUSB_CLASS_HID;
    uint8_t string_index = 0;
    Bytes extra;
    std::vector<libusb_endpoint_descriptor> endpoints;
    /// The library counts the endpoints, but has no list of them.
    bool hides_endpoints = false;
};

struct FakeConfiguration {
    std::vector<std::vector<FakeSetting>> interfaces;
};

struct FakeControl {
    uint8_t type;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    Bytes data;  ///< what was sent; empty for a request to the host
    uint16_t length;
    unsigned int timeout;
};

struct FakeInterrupt {
    unsigned char endpoint;
    int length;
    unsigned int timeout;
};

/// What an interrupt transfer gives. `reported` replaces the byte count when it is not negative.
struct FakePacket {
    int rc = 0;
    Bytes data;
    int reported = -1;
};

struct FakeUsbDevice {
    uint8_t bus = 1;
    uint8_t address = 1;
    libusb_device_descriptor descriptor{};
    std::vector<FakeConfiguration> configurations;
    std::map<uint8_t, Bytes> strings;  ///< raw string descriptors
    Bytes report_descriptor;
    int descriptor_rc = 0;
    int open_rc = 0;
    int config_rc = 0;
    std::deque<int> claim_rcs;  ///< results of the next claims; 0 when empty
    int detach_rc = 0;
    std::deque<int> control_rcs;     ///< results of the next class requests; the length when empty
    Bytes feature;                   ///< what GET_REPORT answers
    std::deque<FakePacket> packets;  ///< then time-outs
    /// Called in each interrupt transfer before it is answered, and before each class request.
    std::function<void()> before_interrupt;
    std::function<void(const FakeControl&)> before_class_request;
    int references = 0;
};

/// Stands at the p_libusb_* pointers from construction to destruction. One at a time.
class FakeUsb {
  public:
    FakeUsb();
    ~FakeUsb();
    FakeUsb(const FakeUsb&) = delete;
    FakeUsb& operator=(const FakeUsb&) = delete;

    /// The devices in the order of libusb's list.
    FakeUsbDevice& add(uint8_t bus, uint8_t address, uint16_t vendor, uint16_t product);
    FakeUsbDevice& add_hub(uint8_t bus, uint8_t address);

    /// The calls that open, close, claim, release and the like, as text.
    std::vector<std::string> calls() const;
    void note(const std::string& call);

    std::list<FakeUsbDevice> devices;
    std::vector<FakeControl> controls;  ///< standard requests included
    std::vector<FakeInterrupt> interrupts;
    int init_rc = 0;
    int list_rc = 0;  ///< a negative one is given instead of a list
    int live_contexts = 0;
    int live_lists = 0;
    int live_handles = 0;
    int live_configurations = 0;
    int null_handles = 0;  ///< calls that came with no handle
    mutable std::mutex lock;

  private:
    std::vector<std::string> call_texts;
};

libusb_device* as_libusb(FakeUsbDevice& device);
/// A string descriptor of ASCII text.
Bytes string_descriptor(const std::string& text);
/// A HID descriptor (HID 1.11, section 6.2.1) with one report descriptor of that length.
Bytes hid_descriptor(int report_length);
libusb_endpoint_descriptor interrupt_endpoint(uint8_t address, uint16_t packet_size);
/// A report descriptor item: `prefix` without the size code, and 0, 1, 2 or 4 data bytes.
Bytes item(uint8_t prefix, const Bytes& data);
/// The flash interface's reports: output A001, input A002 (8 bytes), features A003 and 1603.
Bytes flash_report_descriptor(int output_size, int feature_size, bool with_ids);
/// Makes a device one with a single flash interface 0, packet size 64, serial number "SN-0042".
void make_flash_device(FakeUsbDevice& device, bool with_ids = false, int output_size = 263,
                       int feature_size = 32);
/// The path of `interface_number` of a device, as the enumerator writes it for usage 0xA000.
std::string flash_path(const FakeUsbDevice& device, int interface_number = 0);
