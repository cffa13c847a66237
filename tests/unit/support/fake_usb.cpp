#include "support/fake_usb.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

FakeUsb* fake = nullptr;

struct Handle {
    FakeUsbDevice* device;
};

/// A configuration as libusb gives it, with the memory that its pointers point to.
struct Configuration {
    libusb_config_descriptor descriptor{};
    std::vector<libusb_interface> interfaces;
    std::list<std::vector<libusb_interface_descriptor>> settings;
    std::list<Bytes> extras;
    std::list<std::vector<libusb_endpoint_descriptor>> endpoints;
};

std::map<libusb_config_descriptor*, std::unique_ptr<Configuration>> configurations;

FakeUsbDevice& device_of(libusb_device* dev) {
    return *reinterpret_cast<FakeUsbDevice*>(dev);
}

FakeUsbDevice* device_of(libusb_device_handle* handle) {
    if (handle == nullptr) {
        ++fake->null_handles;
        return nullptr;
    }
    return reinterpret_cast<Handle*>(handle)->device;
}

int init(libusb_context** ctx) {
    if (fake->init_rc != 0) {
        return fake->init_rc;
    }
    ++fake->live_contexts;
    *ctx = reinterpret_cast<libusb_context*>(fake);
    return 0;
}

void exit_context(libusb_context*) {
    --fake->live_contexts;
}

ssize_t get_device_list(libusb_context*, libusb_device*** list) {
    if (fake->list_rc != 0) {
        return fake->list_rc;
    }
    ++fake->live_lists;
    *list = new libusb_device*[fake->devices.size() + 1]();
    size_t count = 0;
    for (FakeUsbDevice& device : fake->devices) {
        ++device.references;
        (*list)[count++] = as_libusb(device);
    }
    return static_cast<ssize_t>(count);
}

void free_device_list(libusb_device** list, int unreference) {
    for (libusb_device** dev = list; unreference == 1 && *dev != nullptr; ++dev) {
        --device_of(*dev).references;
    }
    delete[] list;
    --fake->live_lists;
}

int get_device_descriptor(libusb_device* dev, libusb_device_descriptor* descriptor) {
    if (device_of(dev).descriptor_rc == 0) {
        *descriptor = device_of(dev).descriptor;
    }
    return device_of(dev).descriptor_rc;
}

void fill_setting(Configuration& memory, const FakeSetting& from,
                  libusb_interface_descriptor& setting) {
    setting.bInterfaceNumber = from.number;
    setting.bInterfaceClass = from.interface_class;
    setting.iInterface = from.string_index;
    setting.bNumEndpoints = static_cast<uint8_t>(from.endpoints.size());
    if (!from.endpoints.empty() && !from.hides_endpoints) {
        setting.endpoint = memory.endpoints.emplace_back(from.endpoints).data();
    }
    if (!from.extra.empty()) {
        setting.extra = memory.extras.emplace_back(from.extra).data();
        setting.extra_length = static_cast<int>(from.extra.size());
    }
}

int give_configuration(FakeUsbDevice& device, size_t index, libusb_config_descriptor** config) {
    if (device.config_rc != 0) {
        return device.config_rc;
    }
    if (index >= device.configurations.size()) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    auto memory = std::make_unique<Configuration>();
    for (const auto& from : device.configurations[index].interfaces) {
        auto& settings = memory->settings.emplace_back(from.size());
        for (size_t i = 0; i < from.size(); ++i) {
            fill_setting(*memory, from[i], settings[i]);
        }
        memory->interfaces.push_back(
            {from.empty() ? nullptr : settings.data(), static_cast<int>(from.size())});
    }
    memory->descriptor.bNumInterfaces = static_cast<uint8_t>(memory->interfaces.size());
    memory->descriptor.interface = memory->interfaces.empty() ? nullptr : memory->interfaces.data();
    *config = &memory->descriptor;
    configurations[*config] = std::move(memory);
    ++fake->live_configurations;
    return 0;
}

int get_active_config_descriptor(libusb_device* dev, libusb_config_descriptor** config) {
    fake->note("active configuration");
    return give_configuration(device_of(dev), 0, config);
}

int get_config_descriptor(libusb_device* dev, uint8_t index, libusb_config_descriptor** config) {
    return give_configuration(device_of(dev), index, config);
}

void free_config_descriptor(libusb_config_descriptor* config) {
    fake->live_configurations -= static_cast<int>(configurations.erase(config));
}

int open_device(libusb_device* dev, libusb_device_handle** handle) {
    FakeUsbDevice& device = device_of(dev);
    fake->note("open " + std::to_string(device.address));
    if (device.open_rc != 0) {
        return device.open_rc;
    }
    ++fake->live_handles;
    *handle = reinterpret_cast<libusb_device_handle*>(new Handle{&device});
    return 0;
}

libusb_device_handle* open_by_ids(libusb_context*, uint16_t vid, uint16_t pid) {
    for (FakeUsbDevice& device : fake->devices) {
        if (device.descriptor.idVendor == vid && device.descriptor.idProduct == pid) {
            libusb_device_handle* handle = nullptr;
            open_device(as_libusb(device), &handle);
            return handle;
        }
    }
    return nullptr;
}

void close_device(libusb_device_handle* handle) {
    fake->note("close " + std::to_string(device_of(handle)->address));
    delete reinterpret_cast<Handle*>(handle);
    --fake->live_handles;
}

int claim_interface(libusb_device_handle* handle, int n) {
    FakeUsbDevice* device = device_of(handle);
    fake->note("claim " + std::to_string(n));
    if (device == nullptr || device->claim_rcs.empty()) {
        return 0;
    }
    const int rc = device->claim_rcs.front();
    device->claim_rcs.pop_front();
    return rc;
}

int on_handle(libusb_device_handle* handle, const std::string& call) {
    fake->note(call);
    return device_of(handle) != nullptr ? 0 : LIBUSB_ERROR_OTHER;
}

int copy_answer(const Bytes& answer, unsigned char* data, uint16_t length) {
    const size_t count = std::min<size_t>(answer.size(), length);
    std::copy_n(answer.begin(), count, data);
    return static_cast<int>(count);
}

int answer_standard(FakeUsbDevice& device, const FakeControl& control, unsigned char* data) {
    const int type = control.value >> 8;
    if (type == LIBUSB_DT_STRING) {
        const auto found = device.strings.find(static_cast<uint8_t>(control.value));
        return found != device.strings.end() ? copy_answer(found->second, data, control.length)
                                             : int{LIBUSB_ERROR_PIPE};
    }
    return type == LIBUSB_DT_REPORT ? copy_answer(device.report_descriptor, data, control.length)
                                    : int{LIBUSB_ERROR_PIPE};
}

int control_transfer(libusb_device_handle* handle, uint8_t type, uint8_t request, uint16_t value,
                     uint16_t index, unsigned char* data, uint16_t length, unsigned int timeout) {
    FakeUsbDevice* device = device_of(handle);
    const bool to_host = (type & LIBUSB_ENDPOINT_IN) != 0;
    const FakeControl control{
        type,   request, value, index, to_host ? Bytes{} : Bytes(data, data + length),
        length, timeout};
    {
        const std::scoped_lock guard(fake->lock);
        fake->controls.push_back(control);
    }
    if ((type & LIBUSB_REQUEST_TYPE_CLASS) == 0) {
        return answer_standard(*device, control, data);
    }
    if (device->before_class_request) {
        device->before_class_request(control);
    }
    int rc = to_host ? copy_answer(device->feature, data, length) : length;
    if (!device->control_rcs.empty()) {
        rc = device->control_rcs.front();
        device->control_rcs.pop_front();
    }
    return rc;
}

int interrupt_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                       int length, int* actual, unsigned int timeout) {
    FakeUsbDevice* device = device_of(handle);
    {
        const std::scoped_lock guard(fake->lock);
        fake->interrupts.push_back({endpoint, length, timeout});
    }
    if (device->before_interrupt) {
        device->before_interrupt();
    }
    if (device->packets.empty()) {
        *actual = 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return LIBUSB_ERROR_TIMEOUT;
    }
    const FakePacket packet = device->packets.front();
    device->packets.pop_front();
    const int count = std::min(static_cast<int>(packet.data.size()), length);
    std::copy_n(packet.data.begin(), count, data);
    *actual = packet.reported >= 0 ? packet.reported : count;
    return packet.rc;
}

void bind_lists_and_descriptors() {
    p_libusb_init = init;
    p_libusb_exit = exit_context;
    p_libusb_set_debug = [](libusb_context*, int level) {
        fake->note("debug level " + std::to_string(level));
    };
    p_libusb_get_device_list = get_device_list;
    p_libusb_free_device_list = free_device_list;
    p_libusb_ref_device = [](libusb_device* dev) {
        ++device_of(dev).references;
        return dev;
    };
    p_libusb_unref_device = [](libusb_device* dev) { --device_of(dev).references; };
    p_libusb_get_device_descriptor = get_device_descriptor;
    p_libusb_get_active_config_descriptor = get_active_config_descriptor;
    p_libusb_get_config_descriptor = get_config_descriptor;
    p_libusb_get_config_descriptor_by_value = [](libusb_device* dev, uint8_t value,
                                                 libusb_config_descriptor** config) {
        return give_configuration(device_of(dev), static_cast<size_t>(value) - 1, config);
    };
    p_libusb_free_config_descriptor = free_config_descriptor;
    p_libusb_get_bus_number = [](libusb_device* dev) { return device_of(dev).bus; };
    p_libusb_get_device_address = [](libusb_device* dev) { return device_of(dev).address; };
    p_libusb_get_max_packet_size = [](libusb_device*, unsigned char endpoint) {
        return 8 + endpoint;
    };
}

void bind_handles() {
    p_libusb_open = open_device;
    p_libusb_close = close_device;
    p_libusb_open_device_with_vid_pid = open_by_ids;
    p_libusb_get_device = [](libusb_device_handle* handle) {
        return as_libusb(*device_of(handle));
    };
    p_libusb_get_configuration = [](libusb_device_handle* handle, int* configuration) {
        *configuration = 1;
        return on_handle(handle, "get configuration");
    };
    p_libusb_set_configuration = [](libusb_device_handle* handle, int configuration) {
        return on_handle(handle, "set configuration " + std::to_string(configuration));
    };
    p_libusb_claim_interface = claim_interface;
    p_libusb_release_interface = [](libusb_device_handle* handle, int n) {
        return on_handle(handle, "release " + std::to_string(n));
    };
    p_libusb_set_interface_alt_setting = [](libusb_device_handle* handle, int n, int setting) {
        return on_handle(handle, "setting " + std::to_string(n) + "/" + std::to_string(setting));
    };
    p_libusb_clear_halt = [](libusb_device_handle* handle, unsigned char endpoint) {
        return on_handle(handle, "clear halt " + std::to_string(endpoint));
    };
    p_libusb_reset_device = [](libusb_device_handle* handle) { return on_handle(handle, "reset"); };
    p_libusb_kernel_driver_active = [](libusb_device_handle* handle, int n) {
        return on_handle(handle, "driver active " + std::to_string(n));
    };
    p_libusb_detach_kernel_driver = [](libusb_device_handle* handle, int n) {
        on_handle(handle, "detach " + std::to_string(n));
        return device_of(handle)->detach_rc;
    };
    p_libusb_control_transfer = control_transfer;
    p_libusb_bulk_transfer = interrupt_transfer;
    p_libusb_interrupt_transfer = interrupt_transfer;
}

}  // namespace

FakeUsb::FakeUsb() {
    fake = this;
    bind_lists_and_descriptors();
    bind_handles();
}

FakeUsb::~FakeUsb() {
    configurations.clear();
    p_libusb_init = nullptr;
    fake = nullptr;
}

FakeUsbDevice& FakeUsb::add(uint8_t bus, uint8_t address, uint16_t vendor, uint16_t product) {
    FakeUsbDevice& device = devices.emplace_back();
    device.bus = bus;
    device.address = address;
    device.descriptor.idVendor = vendor;
    device.descriptor.idProduct = product;
    device.descriptor.bcdDevice = 0x0123;
    device.descriptor.bNumConfigurations = 1;
    device.configurations.resize(1);
    return device;
}

FakeUsbDevice& FakeUsb::add_hub(uint8_t bus, uint8_t address) {
    FakeUsbDevice& hub = add(bus, address, 0x1d6b, 0x0002);
    hub.descriptor.bDeviceClass = LIBUSB_CLASS_HUB;
    return hub;
}

std::vector<std::string> FakeUsb::calls() const {
    const std::scoped_lock guard(lock);
    return call_texts;
}

void FakeUsb::note(const std::string& call) {
    const std::scoped_lock guard(lock);
    call_texts.push_back(call);
}

Bytes join(const std::vector<Bytes>& parts) {
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

libusb_device* as_libusb(FakeUsbDevice& device) {
    return reinterpret_cast<libusb_device*>(&device);
}

Bytes string_descriptor(const std::string& text) {
    Bytes bytes{static_cast<unsigned char>(2 + 2 * text.size()), LIBUSB_DT_STRING};
    for (const char c : text) {
        bytes.push_back(static_cast<unsigned char>(c));
        bytes.push_back(0);
    }
    return bytes;
}

Bytes hid_descriptor(int report_length) {
    return {9,
            LIBUSB_DT_HID,
            0x11,
            0x01,
            0,
            1,
            LIBUSB_DT_REPORT,
            static_cast<unsigned char>(report_length),
            static_cast<unsigned char>(report_length >> 8)};
}

libusb_endpoint_descriptor interrupt_endpoint(uint8_t address, uint16_t packet_size) {
    libusb_endpoint_descriptor endpoint{};
    endpoint.bEndpointAddress = address;
    endpoint.bmAttributes = LIBUSB_TRANSFER_TYPE_INTERRUPT;
    endpoint.wMaxPacketSize = packet_size;
    return endpoint;
}

Bytes item(uint8_t prefix, const Bytes& data) {
    const size_t code = data.size() == 4 ? 3 : data.size();
    return join({{static_cast<unsigned char>(prefix | code)}, data});
}

Bytes flash_report_descriptor(int output_size, int feature_size, bool with_ids) {
    const auto count = [](int size) {
        return item(0x94,
                    {static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8)});
    };
    const auto id = [with_ids](unsigned char value) {
        return with_ids ? item(0x84, {value}) : Bytes{};
    };
    return join({item(0x04, {0x45, 0xFF}), item(0x08, {0x00, 0xA0}), item(0xA0, {1}),
                 item(0x74, {8}), id(1), count(output_size), item(0x08, {0x01, 0xA0}),
                 item(0x90, {2}), id(2), count(8), item(0x08, {0x02, 0xA0}), item(0x80, {2}), id(3),
                 count(feature_size), item(0x08, {0x03, 0xA0}), item(0x08, {0x03, 0x16}),
                 item(0xB0, {2}), item(0xC0, {})});
}

void make_flash_device(FakeUsbDevice& device, bool with_ids, int output_size, int feature_size) {
    constexpr uint8_t serial_index = 3;
    constexpr uint8_t interface_index = 4;
    device.report_descriptor = flash_report_descriptor(output_size, feature_size, with_ids);
    device.descriptor.iSerialNumber = serial_index;
    device.strings[serial_index] = string_descriptor("SN-0042");
    device.strings[interface_index] = string_descriptor("Usage=A000 Usage Page=FF45");
    FakeSetting setting;
    setting.string_index = interface_index;
    setting.extra = hid_descriptor(static_cast<int>(device.report_descriptor.size()));
    setting.endpoints = {interrupt_endpoint(0x81, 64)};
    device.configurations = {{{{setting}}}};
}

std::string flash_path(const FakeUsbDevice& device, int interface_number) {
    char path[255];
    std::snprintf(path, sizeof path,
                  "//?/hid#vid_%04x&pid_%04x&mi_%02d&ec_%04x#bus_%02d&dev_%03d#hub_01&port_03"
                  "#usagepage_ff45&usage_a000",
                  device.descriptor.idVendor, device.descriptor.idProduct, interface_number,
                  device.descriptor.bcdDevice, device.bus, device.address);
    return path;
}
