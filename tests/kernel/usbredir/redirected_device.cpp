#include "usbredir/redirected_device.h"

#include "model/device/descriptors.h"
#include "model/device/request_codes.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <utility>

namespace zelfsim::usbredir {

namespace {

/// Marks the queue's names of the reads that keep an IN endpoint going.
constexpr std::uint32_t receiving_side = 0x80000000;

std::uint32_t receiving(std::uint8_t endpoint) {
    return receiving_side | endpoint;
}

std::uint8_t status_of(Completion completion) {
    switch (completion) {
        case Completion::ok:
            return usb_redir_success;
        case Completion::stall:
            return usb_redir_stall;
        case Completion::overflow:
            return usb_redir_babble;
        default:
            return usb_redir_ioerror;
    }
}

/// A packet's bytes, given back to the parser that owns them.
class Payload {
  public:
    Payload(usbredirparser* parser, std::uint8_t* data, int length)
        : parser_(parser), data_(data), length_(static_cast<std::size_t>(std::max(length, 0))) {}
    Payload(const Payload&) = delete;
    Payload& operator=(const Payload&) = delete;
    ~Payload() { usbredirparser_free_packet_data(parser_, data_); }
    ByteView bytes() const { return {data_, data_ != nullptr ? length_ : 0}; }

  private:
    usbredirparser* parser_;
    std::uint8_t* data_;
    std::size_t length_;
};

RedirectedDevice& self(void* device) {
    return *static_cast<RedirectedDevice*>(device);
}

int count_or_wait(ssize_t count) {
    if (count > 0) {
        return static_cast<int>(count);
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
}

int read_socket(void* device, std::uint8_t* data, int count) {
    return count_or_wait(recv(self(device).socket(), data, static_cast<std::size_t>(count), 0));
}

int write_socket(void* device, std::uint8_t* data, int count) {
    return count_or_wait(
        send(self(device).socket(), data, static_cast<std::size_t>(count), MSG_NOSIGNAL));
}

void complain(void* /*device*/, int level, const char* message) {
    if (level <= usbredirparser_warning) {
        std::fprintf(stderr, "usbredir: %s\n", message);
    }
}

}  // namespace

RedirectedDevice::RedirectedDevice(zelf::FileDescriptor socket, Peripheral& peripheral,
                                   TransferLog& log)
    : socket_(std::move(socket)),
      peripheral_(peripheral),
      log_(log),
      parser_(usbredirparser_create()) {
    set_callbacks();
    std::array<std::uint32_t, USB_REDIR_CAPS_SIZE> capabilities{};
    usbredirparser_caps_set_cap(capabilities.data(), usb_redir_cap_connect_device_version);
    usbredirparser_caps_set_cap(capabilities.data(), usb_redir_cap_ep_info_max_packet_size);
    usbredirparser_init(parser_.get(), "zelfwsim", capabilities.data(),
                        static_cast<int>(capabilities.size()), usbredirparser_fl_usb_host);
}

void RedirectedDevice::set_callbacks() {
    usbredirparser& parser = *parser_;
    parser.priv = this;
    parser.log_func = complain;
    parser.read_func = read_socket;
    parser.write_func = write_socket;
    parser.hello_func = [](void* device, usb_redir_hello_header*) { self(device).greeted_ = true; };
    parser.reset_func = [](void* device) { self(device).peripheral_.port_reset(); };
    parser.set_configuration_func = [](void* device, std::uint64_t id,
                                       usb_redir_set_configuration_header* header) {
        usb_redir_configuration_status_header answer{usb_redir_success, header->configuration};
        usbredirparser_send_configuration_status(self(device).parser_.get(), id, &answer);
    };
    parser.get_configuration_func = [](void* device, std::uint64_t id) {
        usb_redir_configuration_status_header answer{usb_redir_success, configuration_value};
        usbredirparser_send_configuration_status(self(device).parser_.get(), id, &answer);
    };
    parser.set_alt_setting_func = [](void* device, std::uint64_t id,
                                     usb_redir_set_alt_setting_header* header) {
        const std::uint8_t status = header->alt == 0 ? usb_redir_success : usb_redir_stall;
        usb_redir_alt_setting_status_header answer{status, header->interface, 0};
        usbredirparser_send_alt_setting_status(self(device).parser_.get(), id, &answer);
    };
    parser.get_alt_setting_func = [](void* device, std::uint64_t id,
                                     usb_redir_get_alt_setting_header* header) {
        usb_redir_alt_setting_status_header answer{usb_redir_success, header->interface, 0};
        usbredirparser_send_alt_setting_status(self(device).parser_.get(), id, &answer);
    };
    parser.control_packet_func = [](void* device, std::uint64_t id,
                                    usb_redir_control_packet_header* header, std::uint8_t* data,
                                    int length) {
        const Payload payload(self(device).parser_.get(), data, length);
        self(device).control(id, *header, payload.bytes());
    };
    parser.interrupt_packet_func = [](void* device, std::uint64_t id,
                                      usb_redir_interrupt_packet_header* header, std::uint8_t* data,
                                      int length) {
        const Payload payload(self(device).parser_.get(), data, length);
        self(device).interrupt_out(id, *header, payload.bytes());
    };
    parser.start_interrupt_receiving_func = [](void* device, std::uint64_t id,
                                               usb_redir_start_interrupt_receiving_header* header) {
        self(device).start_receiving(id, header->endpoint);
    };
    parser.stop_interrupt_receiving_func = [](void* device, std::uint64_t id,
                                              usb_redir_stop_interrupt_receiving_header* header) {
        self(device).stop_receiving(id, header->endpoint);
    };
    parser.cancel_data_packet_func = [](void* device, std::uint64_t id) {
        self(device).cancel(id);
    };
}

void RedirectedDevice::receive() {
    if (usbredirparser_do_read(parser_.get()) == usbredirparser_read_io_error) {
        over_ = true;
    }
}

void RedirectedDevice::proceed(TimePoint time) {
    peripheral_.advance(time);
    if (queue_) {
        for (const remote::Finished& finished : queue_->finish(time)) {
            finish(finished);
        }
        if (!queue_->connected(time)) {
            queue_.reset();
            controls_.clear();
            writes_.clear();
            usbredirparser_send_device_disconnect(parser_.get());
        }
    } else if (greeted_ && peripheral_.attached()) {
        plug_in(time);
    }
    while (wants_to_write() && !over_) {
        if (usbredirparser_do_write(parser_.get()) != 0) {
            over_ = true;
        } else if (wants_to_write()) {
            return;  // the socket is full
        }
    }
}

std::optional<TimePoint> RedirectedDevice::next_event(TimePoint time) const {
    return queue_ ? queue_->next_event(time) : std::nullopt;
}

void RedirectedDevice::plug_in(TimePoint time) {
    queue_.emplace(peripheral_, log_);
    send_interfaces();
    send_endpoints();
    const DeviceDescription& device = peripheral_.description();
    usb_redir_device_connect_header header{};
    header.speed = usb_redir_speed_full;
    header.vendor_id = device.vendor;
    header.product_id = device.product;
    header.device_version_bcd = peripheral_.state().bcd;
    usbredirparser_send_device_connect(parser_.get(), &header);
    if (!queue_->connected(time)) {
        usbredirparser_send_device_disconnect(parser_.get());
        queue_.reset();
    }
}

void RedirectedDevice::send_interfaces() {
    usb_redir_interface_info_header header{};
    const Bytes bytes = configuration_descriptor(peripheral_.description());
    for (std::size_t at = 0; at < bytes.size(); at += bytes[at]) {
        if (bytes[at + 1] == descriptor_interface &&
            header.interface_count < std::size(header.interface)) {
            const std::uint32_t index = header.interface_count++;
            header.interface[index] = bytes[at + 2];
            header.interface_class[index] = bytes[at + 5];
            header.interface_subclass[index] = bytes[at + 6];
            header.interface_protocol[index] = bytes[at + 7];
        }
    }
    usbredirparser_send_interface_info(parser_.get(), &header);
}

void RedirectedDevice::send_endpoints() {
    constexpr std::size_t first_in = 16;
    usb_redir_ep_info_header header{};
    std::fill(std::begin(header.type), std::end(header.type), usb_redir_type_invalid);
    header.type[0] = header.type[first_in] = usb_redir_type_control;
    header.max_packet_size[0] = header.max_packet_size[first_in] = 64;
    const Bytes bytes = configuration_descriptor(peripheral_.description());
    std::uint8_t interface = 0;
    for (std::size_t at = 0; at < bytes.size(); at += bytes[at]) {
        if (bytes[at + 1] == descriptor_interface) {
            interface = bytes[at + 2];
        } else if (bytes[at + 1] == descriptor_endpoint) {
            const std::size_t index =
                (bytes[at + 2] & 0x0FU) + ((bytes[at + 2] & direction_in) != 0 ? first_in : 0);
            header.type[index] = bytes[at + 3];
            header.interval[index] = bytes[at + 6];
            header.interface[index] = interface;
            header.max_packet_size[index] = bytes[at + 4];
        }
    }
    usbredirparser_send_ep_info(parser_.get(), &header);
}

void RedirectedDevice::control(std::uint64_t id, const usb_redir_control_packet_header& header,
                               ByteView data) {
    if (!queue_) {
        return;
    }
    const auto name = static_cast<std::uint32_t>(id);
    controls_[name] = header;
    const Setup setup{header.requesttype, header.request, header.value, header.index,
                      header.length};
    queue_->control(name, setup, data, now());
}

void RedirectedDevice::interrupt_out(std::uint64_t id,
                                     const usb_redir_interrupt_packet_header& header,
                                     ByteView data) {
    if (queue_) {
        const auto name = static_cast<std::uint32_t>(id);
        writes_[name] = header;
        queue_->interrupt_out(name, header.endpoint, data, now());
    }
}

void RedirectedDevice::poll_endpoint(std::uint8_t endpoint) {
    const InterfaceDescription* interface = peripheral_.interface_of_endpoint(endpoint);
    const std::size_t packet = interface != nullptr ? interface->in_packet : 8U;
    queue_->interrupt_in(receiving(endpoint), endpoint, packet);
}

void RedirectedDevice::start_receiving(std::uint64_t id, std::uint8_t endpoint) {
    usb_redir_interrupt_receiving_status_header answer{usb_redir_success, endpoint};
    usbredirparser_send_interrupt_receiving_status(parser_.get(), id, &answer);
    if (queue_ && !queue_->has(receiving(endpoint))) {
        poll_endpoint(endpoint);
    }
}

void RedirectedDevice::stop_receiving(std::uint64_t id, std::uint8_t endpoint) {
    if (queue_) {
        queue_->cancel(receiving(endpoint));
    }
    usb_redir_interrupt_receiving_status_header answer{usb_redir_success, endpoint};
    usbredirparser_send_interrupt_receiving_status(parser_.get(), id, &answer);
}

void RedirectedDevice::cancel(std::uint64_t id) {
    const auto name = static_cast<std::uint32_t>(id);
    if (!queue_ || !queue_->cancel(name)) {
        return;
    }
    if (auto control = controls_.extract(name)) {
        control.mapped().status = usb_redir_cancelled;
        control.mapped().length = 0;
        usbredirparser_send_control_packet(parser_.get(), id, &control.mapped(), nullptr, 0);
    } else if (auto write = writes_.extract(name)) {
        write.mapped().status = usb_redir_cancelled;
        write.mapped().length = 0;
        usbredirparser_send_interrupt_packet(parser_.get(), id, &write.mapped(), nullptr, 0);
    }
}

void RedirectedDevice::finish(const remote::Finished& finished) {
    if ((finished.id & receiving_side) != 0) {
        finish_interrupt(finished);
        return;
    }
    if (controls_.contains(finished.id)) {
        finish_control(finished);
        return;
    }
    if (auto write = writes_.extract(finished.id)) {
        write.mapped().status = status_of(finished.completion);
        write.mapped().length = static_cast<std::uint16_t>(finished.accepted);
        usbredirparser_send_interrupt_packet(parser_.get(), finished.id, &write.mapped(), nullptr,
                                             0);
    }
}

void RedirectedDevice::finish_control(const remote::Finished& finished) {
    auto control = controls_.extract(finished.id);
    usb_redir_control_packet_header& header = control.mapped();
    Bytes data = finished.data;
    header.status = status_of(finished.completion);
    header.length = static_cast<std::uint16_t>(
        (header.endpoint & direction_in) != 0 ? data.size() : finished.accepted);
    usbredirparser_send_control_packet(parser_.get(), finished.id, &header,
                                       data.empty() ? nullptr : data.data(),
                                       static_cast<int>(data.size()));
}

/// Passes a report on and asks for the next. An endpoint that failed is quiet until it is started
/// again.
void RedirectedDevice::finish_interrupt(const remote::Finished& finished) {
    const auto endpoint = static_cast<std::uint8_t>(finished.id & 0xFF);
    if (finished.completion != Completion::ok) {
        usb_redir_interrupt_receiving_status_header answer{status_of(finished.completion),
                                                           endpoint};
        usbredirparser_send_interrupt_receiving_status(parser_.get(), 0, &answer);
        return;
    }
    Bytes data = finished.data;
    usb_redir_interrupt_packet_header header{endpoint, usb_redir_success,
                                             static_cast<std::uint16_t>(data.size())};
    usbredirparser_send_interrupt_packet(parser_.get(), reports_++, &header,
                                         data.empty() ? nullptr : data.data(),
                                         static_cast<int>(data.size()));
    poll_endpoint(endpoint);
}

}  // namespace zelfsim::usbredir
