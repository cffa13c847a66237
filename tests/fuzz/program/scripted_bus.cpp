#include "program/scripted_bus.h"

#include "program/turns.h"
#include "support/check.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr unsigned int most_devices = 4;
constexpr unsigned int most_faults = 4;
constexpr unsigned int most_skipped = 4;
/// A run with more transfers finds its devices gone.
constexpr int most_transfers = 4000;
/// Numbers from here on are deviations; below them a number says how long all goes as usual.
constexpr std::uint8_t first_deviation = 0x80;
constexpr std::uint8_t image_data_operation = 0x02;
constexpr std::uint8_t class_request = 0x20;
constexpr std::int64_t answer_time = 1;  // milliseconds
constexpr int longest_patience = 60;     // seconds
constexpr std::size_t status_size = 8;
constexpr std::uint8_t status_report_id = 2;
constexpr std::uint8_t data_report_id = 3;
constexpr std::size_t longest_answer = 300;

constexpr int errors[] = {
    LIBUSB_ERROR_IO,        LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_BUSY,
    LIBUSB_ERROR_TIMEOUT,   LIBUSB_ERROR_OVERFLOW,  LIBUSB_ERROR_PIPE,
    LIBUSB_ERROR_OTHER,     LIBUSB_ERROR_ACCESS,    LIBUSB_ERROR_INTERRUPTED,
    LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_NO_MEM,    LIBUSB_ERROR_INVALID_PARAM};

ScriptedBus* bus = nullptr;

// What the fake library does when all goes as usual.
PLIBUSB_GET_DEVICE_LIST usual_list;
PLIBUSB_GET_DEVICE_DESCRIPTOR usual_descriptor;
PLIBUSB_GET_ACTIVE_CONFIG_DESCRIPTOR usual_active_configuration;
PLIBUSB_GET_CONFIG_DESCRIPTOR usual_configuration;
PLIBUSB_OPEN usual_open;
PLIBUSB_CLOSE usual_close;
PLIBUSB_CLAIM_INTERFACE usual_claim;
PLIBUSB_RELEASE_INTERFACE usual_release;
PLIBUSB_DETACH_KERNEL_DRIVER usual_detach;
PLIBUSB_CONTROL_TRANSFER usual_control;

/// The result of a call that may fail.
template <typename Usual>
int unless_it_fails(Usual usual) {
    const unsigned int how = bus->deviation();
    return how != 0 ? ScriptedBus::error(how) : usual();
}

int control_transfer(libusb_device_handle* handle, uint8_t type, uint8_t request, uint16_t value,
                     uint16_t index, unsigned char* data, uint16_t length, unsigned int timeout) {
    Peripheral* const device = bus->find(handle);
    if (device == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if ((type & class_request) != 0) {
        return (type & LIBUSB_ENDPOINT_IN) != 0
                   ? bus->give_data(*device, data, length)
                   : bus->take_report(*device, Bytes(data, data + length));
    }
    const unsigned int how = bus->deviation();
    return how != 0 ? bus->give_standard(how, data, length)
                    : usual_control(handle, type, request, value, index, data, length, timeout);
}

int interrupt_transfer(libusb_device_handle* handle, unsigned char, unsigned char* data, int length,
                       int* actual, unsigned int) {
    Peripheral* const device = bus->find(handle);
    return device != nullptr ? bus->give_report(*device, data, length, actual)
                             : int{LIBUSB_ERROR_NO_DEVICE};
}

void keep_usual_functions() {
    usual_list = p_libusb_get_device_list;
    usual_descriptor = p_libusb_get_device_descriptor;
    usual_active_configuration = p_libusb_get_active_config_descriptor;
    usual_configuration = p_libusb_get_config_descriptor;
    usual_open = p_libusb_open;
    usual_close = p_libusb_close;
    usual_claim = p_libusb_claim_interface;
    usual_release = p_libusb_release_interface;
    usual_detach = p_libusb_detach_kernel_driver;
    usual_control = p_libusb_control_transfer;
}

void bind_lists_and_descriptors() {
    p_libusb_get_device_list = [](libusb_context* context, libusb_device*** list) -> ssize_t {
        const unsigned int how = bus->deviation();
        return how != 0 ? ScriptedBus::error(how) : usual_list(context, list);
    };
    p_libusb_get_device_descriptor = [](libusb_device* device,
                                        libusb_device_descriptor* descriptor) {
        return unless_it_fails([=] { return usual_descriptor(device, descriptor); });
    };
    p_libusb_get_active_config_descriptor = [](libusb_device* device,
                                               libusb_config_descriptor** config) {
        return unless_it_fails([=] { return usual_active_configuration(device, config); });
    };
    p_libusb_get_config_descriptor = [](libusb_device* device, uint8_t index,
                                        libusb_config_descriptor** config) {
        return unless_it_fails([=] { return usual_configuration(device, index, config); });
    };
}

void bind_handles() {
    p_libusb_open = [](libusb_device* device, libusb_device_handle** handle) {
        return unless_it_fails([=] { return usual_open(device, handle); });
    };
    p_libusb_close = [](libusb_device_handle* handle) {
        if (Peripheral* const device = bus->find(handle); device != nullptr) {
            device->is_claimed = device->is_erased = false;
        }
        usual_close(handle);
    };
    p_libusb_claim_interface = [](libusb_device_handle* handle, int n) {
        const int rc = unless_it_fails([=] { return usual_claim(handle, n); });
        if (Peripheral* const device = bus->find(handle); device != nullptr && rc == 0) {
            device->is_claimed = true;
        }
        return rc;
    };
    p_libusb_release_interface = [](libusb_device_handle* handle, int n) {
        if (Peripheral* const device = bus->find(handle); device != nullptr) {
            device->is_claimed = false;
        }
        return unless_it_fails([=] { return usual_release(handle, n); });
    };
    p_libusb_detach_kernel_driver = [](libusb_device_handle* handle, int n) {
        return unless_it_fails([=] { return usual_detach(handle, n); });
    };
    p_libusb_control_transfer = control_transfer;
    p_libusb_interrupt_transfer = interrupt_transfer;
    p_libusb_bulk_transfer = interrupt_transfer;
}

}  // namespace

ScriptedBus* scripted_bus() {
    return bus;
}

ScriptedBus::ScriptedBus(FuzzInput& input) : input_(input) {
    const unsigned int count = 1 + input.below(most_devices);
    for (unsigned int i = 0; i < count; ++i) {
        FakeUsbDevice& device = usb.add(1, static_cast<uint8_t>(2 + i), 0, 0);
        peripherals_.emplace_back(device, input);
    }
    take_faults();
    bus = this;
    keep_usual_functions();
    bind_lists_and_descriptors();
    bind_handles();
}

ScriptedBus::~ScriptedBus() {
    bus = nullptr;
}

void ScriptedBus::check_all_given_back() const {
    check(usb.null_handles == 0, "no call comes without a handle");
    check(usb.live_contexts == 0, "every context is closed");
    check(usb.live_lists == 0, "every device list is freed");
    check(usb.live_handles == 0, "every handle is closed");
    check(usb.live_configurations == 0, "every configuration is freed");
    for (const FakeUsbDevice& device : usb.devices) {
        check(device.references == 0, "every reference is given back");
    }
}

unsigned int ScriptedBus::deviation() {
    if (usual_left_ > 0) {
        --usual_left_;
        return 0;
    }
    const std::uint8_t number = input_.byte();
    if (number < first_deviation) {
        usual_left_ = number / 2;
        return 0;
    }
    return number;
}

void ScriptedBus::take_faults() {
    for (unsigned int left = input_.below(most_faults + 1); left > 0; --left) {
        const unsigned int kind = input_.below(2 * command_kinds);
        const unsigned int skipped = input_.below(most_skipped + 1);
        faults_.push_back({kind / 2, kind % 2 != 0, skipped,
                           static_cast<unsigned int>(first_deviation | input_.byte())});
    }
}

unsigned int ScriptedBus::deviation_of(const Bytes& command, bool is_data) {
    for (Fault& fault : faults_) {
        if (fault.how == 0 || fault.is_of_data != is_data ||
            fault.command_kind != kind_of(command)) {
            continue;
        }
        if (fault.skipped == 0) {
            return std::exchange(fault.how, 0U);
        }
        --fault.skipped;
    }
    return deviation();
}

int ScriptedBus::error(unsigned int number) {
    return errors[number / 8 % std::size(errors)];
}

Peripheral* ScriptedBus::find(libusb_device* device) {
    const auto found = std::find_if(peripherals_.begin(), peripherals_.end(),
                                    [=](const auto& p) { return as_libusb(p.usb) == device; });
    return found != peripherals_.end() ? &*found : nullptr;
}

Peripheral* ScriptedBus::find(libusb_device_handle* handle) {
    return handle != nullptr ? find(p_libusb_get_device(handle)) : nullptr;
}

int ScriptedBus::give(const Bytes& bytes, unsigned char* buffer, std::size_t length) const {
    const std::size_t count = std::min(bytes.size(), length);
    std::copy_n(bytes.begin(), count, buffer);
    return static_cast<int>(count);
}

void ScriptedBus::count_transfer() {
    if (++transfers_ > most_transfers) {
        for (Peripheral& device : peripherals_) {
            device.is_gone = true;
        }
    }
}

int ScriptedBus::give_standard(unsigned int how, unsigned char* buffer, std::size_t length) {
    return how % 2 != 0 ? error(how) : give(input_.bytes(input_.byte()), buffer, length);
}

int ScriptedBus::take_report(Peripheral& device, const Bytes& message) {
    count_transfer();
    const Bytes command = device.without_id(message);
    const unsigned int how = deviation_of(command, false);
    if (device.is_gone || how % 8 == 1) {
        return device.is_gone ? int{LIBUSB_ERROR_NO_DEVICE} : error(how);
    }
    device.take(command);
    const bool is_image_data = command.size() > 4 && command[2] == image_data_operation;
    check(!is_image_data || device.is_erased, "an image goes to a device that was erased for it");

    std::int64_t at = turns::now() + answer_time;
    Bytes report = device.report_on(command);
    switch (how % 8) {
        case 2:
            device.is_gone = true;
            return LIBUSB_ERROR_NO_DEVICE;
        case 3:
            report.clear();
            break;
        case 4:
            report = input_.bytes(status_size);
            break;
        case 5:
            at += input_.byte() * 16;
            break;
        case 6:
            device.reports.push_back({at, 0, input_.bytes(1 + input_.below(64))});
            break;
        case 7:
            report.clear();
            device.reports.push_back({at, error(how), {}});
            break;
        default:
            break;
    }
    if (!report.empty()) {
        device.reports.push_back({at, 0, device.with_id(status_report_id, report)});
    }
    // A transfer that went only in part is seldom, but may come.
    return how == 0xFF ? static_cast<int>(message.size() / 2) : static_cast<int>(message.size());
}

int ScriptedBus::give_data(Peripheral& device, unsigned char* buffer, std::size_t length) {
    count_transfer();
    if (device.is_gone) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    const unsigned int how = deviation_of(device.last_command(), true);
    if (how % 2 != 0) {
        return error(how);
    }
    const Bytes usual = device.with_id(data_report_id, device.data());
    return give(
        how == 0 ? usual : input_.bytes(std::min<std::size_t>(input_.word(), longest_answer)),
        buffer, length);
}

int ScriptedBus::give_report(Peripheral& device, unsigned char* buffer, int length, int* actual) {
    count_transfer();
    *actual = 0;
    if (const unsigned int how = deviation(); how != 0) {
        turns::sleep(1);
        return how % 2 != 0 ? error(how) : 0;
    }
    const auto is_over = [&device] { return device.is_gone || !device.is_claimed; };
    const auto due = [&device, is_over] {
        if (is_over()) {
            return turns::now();
        }
        return device.reports.empty() ? turns::never : device.reports.front().at;
    };
    // Without a time-out the main thread reads by itself, until somebody pulls the plug.
    for (int seconds = 0; due() > turns::now(); seconds += turns::is_main_thread() ? 1 : 0) {
        device.is_gone = device.is_gone || seconds > longest_patience;
        turns::wait(due);
    }
    if (is_over()) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    const TimedReport report = device.reports.front();
    device.reports.pop_front();
    *actual = give(report.bytes, buffer, static_cast<std::size_t>(std::max(length, 0)));
    return report.rc;
}

int ScriptedBus::give_hub_ports(unsigned char* answer, std::size_t size) {
    const unsigned int how = deviation();
    if (how % 2 != 0) {
        return -1;
    }
    Bytes ports{4, 2, 3, 4, 5};
    if (how != 0) {
        ports = input_.bytes(size);
    }
    return give(ports, answer, size);
}
