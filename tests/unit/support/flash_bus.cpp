#include "support/flash_bus.h"

#include <algorithm>
#include <chrono>
#include <iterator>

namespace {

std::list<FlashPeripheral> peripherals;
std::map<FakeUsbDevice*, FlashPeripheral*> by_device;

// Large enough for every record and data answer.
constexpr int output_size = 300;
constexpr int feature_size = 300;
constexpr uint8_t class_request_bit = LIBUSB_REQUEST_TYPE_CLASS;

decltype(p_libusb_control_transfer) other_control_transfer = nullptr;
decltype(p_libusb_claim_interface) other_claim = nullptr;
decltype(p_libusb_release_interface) other_release = nullptr;

FlashPeripheral* find(libusb_device_handle* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    auto* const device = reinterpret_cast<FakeUsbDevice*>(p_libusb_get_device(handle));
    const auto found = by_device.find(device);
    return found != by_device.end() ? found->second : nullptr;
}

}  // namespace

std::vector<Bytes> FlashPeripheral::commands() const {
    const std::scoped_lock guard(lock);
    return commands_taken;
}

int FlashPeripheral::count(const Bytes& command) const {
    const std::vector<Bytes> taken = commands();
    return static_cast<int>(std::count(taken.begin(), taken.end(), command));
}

int FlashPeripheral::feature_requests() const {
    const std::scoped_lock guard(lock);
    return features_asked;
}

void FlashPeripheral::report(const Bytes& status) {
    const std::scoped_lock guard(lock);
    packets.push_back({0, status, -1});
    changed.notify_all();
}

void FlashPeripheral::report_failure(int rc) {
    const std::scoped_lock guard(lock);
    packets.push_back({rc, {}, 0});
    changed.notify_all();
}

void FlashPeripheral::unplug() {
    const std::scoped_lock guard(lock);
    is_unplugged = true;
    changed.notify_all();
}

void FlashPeripheral::let_reads_end() {
    const std::scoped_lock guard(lock);
    reads_may_end = true;
    changed.notify_all();
}

bool FlashPeripheral::read_is_pending_within(int milliseconds) const {
    std::unique_lock guard(lock);
    // Against the system's clock: the thread sanitizer does not know the waits on the other one.
    return changed.wait_until(
        guard, std::chrono::system_clock::now() + std::chrono::milliseconds(milliseconds),
        [this] { return pending_reads > 0; });
}

void FlashPeripheral::set_claimed(bool claimed) {
    const std::scoped_lock guard(lock);
    is_claimed = claimed;
    if (!claimed) {
        packets.clear();
    }
    changed.notify_all();
}

int FlashPeripheral::take_command(const Bytes& command) {
    if (on_command) {
        on_command(command);
    }
    const std::scoped_lock guard(lock);
    commands_taken.push_back(command);
    if (is_unplugged) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (!next_write_results.empty()) {
        const int rc = next_write_results.front();
        next_write_results.pop_front();
        if (rc != 0) {
            return rc;
        }
    }
    std::vector<Bytes> reports = other_answer;
    auto& once = next_answers[command];
    if (!once.empty()) {
        reports = once.front();
        once.pop_front();
    } else if (const auto found = answers.find(command); found != answers.end()) {
        reports = found->second;
    }
    for (const Bytes& status : reports) {
        packets.push_back({0, status, -1});
    }
    changed.notify_all();
    return static_cast<int>(command.size());
}

int FlashPeripheral::give_feature(unsigned char* buffer, int length) {
    const std::scoped_lock guard(lock);
    ++features_asked;
    if (is_unplugged) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    FeatureAnswer answer{LIBUSB_ERROR_PIPE, {}};
    if (!next_features.empty()) {
        answer = next_features.front();
        next_features.pop_front();
    } else if (!commands_taken.empty()) {
        const auto found = data.find(commands_taken.back());
        if (found != data.end()) {
            answer = {0, found->second};
        }
    }
    if (answer.rc != 0) {
        return answer.rc;
    }
    const size_t count = std::min(answer.data.size(), static_cast<size_t>(length));
    std::copy_n(answer.data.begin(), count, buffer);
    return static_cast<int>(count);
}

int FlashPeripheral::give_report(unsigned char* buffer, int length, int* actual) {
    if (on_read) {
        on_read();
    }
    std::unique_lock guard(lock);
    ++pending_reads;
    changed.notify_all();
    changed.wait(guard, [this] {
        return !packets.empty() || is_unplugged || reads_may_end ||
               (!is_claimed && !ignores_release);
    });
    --pending_reads;
    *actual = 0;
    if (packets.empty()) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    const FakePacket packet = packets.front();
    packets.pop_front();
    const size_t count = std::min(packet.data.size(), static_cast<size_t>(length));
    std::copy_n(packet.data.begin(), count, buffer);
    *actual = static_cast<int>(count);
    return packet.rc;
}

FlashBus::FlashBus(FakeUsb& fake_usb) : usb(fake_usb) {
    other_control_transfer = p_libusb_control_transfer;
    other_claim = p_libusb_claim_interface;
    other_release = p_libusb_release_interface;
    p_libusb_control_transfer = [](libusb_device_handle* handle, uint8_t type, uint8_t request,
                                   uint16_t value, uint16_t index, unsigned char* data,
                                   uint16_t length, unsigned int timeout) {
        FlashPeripheral* const peripheral = find(handle);
        if (peripheral == nullptr || (type & class_request_bit) == 0) {
            return other_control_transfer(handle, type, request, value, index, data, length,
                                          timeout);
        }
        return (type & LIBUSB_ENDPOINT_IN) != 0
                   ? peripheral->give_feature(data, length)
                   : peripheral->take_command(Bytes(data, data + length));
    };
    p_libusb_interrupt_transfer = [](libusb_device_handle* handle, unsigned char,
                                     unsigned char* data, int length, int* actual, unsigned int) {
        FlashPeripheral* const peripheral = find(handle);
        return peripheral != nullptr ? peripheral->give_report(data, length, actual)
                                     : int{LIBUSB_ERROR_NO_DEVICE};
    };
    p_libusb_claim_interface = [](libusb_device_handle* handle, int n) {
        const int rc = other_claim(handle, n);
        if (FlashPeripheral* const peripheral = find(handle); peripheral != nullptr && rc == 0) {
            peripheral->set_claimed(true);
        }
        return rc;
    };
    p_libusb_release_interface = [](libusb_device_handle* handle, int n) {
        if (FlashPeripheral* const peripheral = find(handle); peripheral != nullptr) {
            peripheral->set_claimed(false);
        }
        return other_release(handle, n);
    };
}

FlashBus::~FlashBus() {
    peripherals.clear();
    by_device.clear();
}

FlashPeripheral& FlashBus::add(uint16_t product, uint16_t vendor, const std::string& serial) {
    const auto address = static_cast<uint8_t>(usb.devices.size() + 2);
    FakeUsbDevice& device = usb.add(1, address, vendor, product);
    make_flash_device(device, false, output_size, feature_size);
    device.strings[device.descriptor.iSerialNumber] = string_descriptor(serial);
    FlashPeripheral& peripheral = peripherals.emplace_back();
    peripheral.device = &device;
    by_device[&device] = &peripheral;
    return peripheral;
}
