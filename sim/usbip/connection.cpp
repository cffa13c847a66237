#include "usbip/connection.h"

#include "model/device/request_codes.h"
#include "remote/bus_id.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace zelfsim::usbip {

namespace {

constexpr std::size_t longest_transfer = 65536;
constexpr std::size_t most_transfers = 256;
/// A host that does not read its answers is not read from either.
constexpr std::size_t most_output = std::size_t{1} << 20U;
/// How long a host has to close its side once its device is gone.
constexpr Duration leave_patience = std::chrono::seconds(1);

int error_number(Completion completion) {
    switch (completion) {
        case Completion::ok:
            return 0;
        case Completion::stall:
            return -EPIPE;
        case Completion::overflow:
            return -EOVERFLOW;
        default:
            return -EPROTO;
    }
}

}  // namespace

Connection::Connection(zelf::FileDescriptor socket, Exports& exports)
    : socket_(std::move(socket)), exports_(exports) {}

Connection::Connection(zelf::FileDescriptor socket, Exports& exports, Peripheral& peripheral,
                       TimePoint time)
    : Connection(std::move(socket), exports) {
    peripheral.advance(time);
    attach(peripheral);
}

Connection::~Connection() {
    if (peripheral_ != nullptr) {
        exports_.log().write(peripheral_->description().name, address_, "end",
                             remote::bus_id(*peripheral_), {}, 0);
        exports_.give_back(*peripheral_);
    }
}

bool Connection::wants_to_read() const {
    return !over() && output_.size() < most_output;
}

void Connection::receive(TimePoint time) {
    std::array<std::uint8_t, 16384> part{};
    const ssize_t count = recv(socket_.get(), part.data(), part.size(), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        phase_ = Phase::over;
        return;
    }
    if (count < 0 || phase_ == Phase::leaving) {
        return;
    }
    input_.insert(input_.end(), part.begin(), part.begin() + count);
    bool more = true;
    while (more) {
        more = (phase_ == Phase::asking && take_operation(time)) ||
               (phase_ == Phase::attached && take_urb(time));
    }
}

bool Connection::take_operation(TimePoint time) {
    if (input_.size() < operation_size) {
        return false;
    }
    const auto code = static_cast<OperationCode>(read_operation(input_).code);
    if (code == OperationCode::list_request) {
        send_device_list(time);
        leave(time);
    } else if (code != OperationCode::import_request) {
        phase_ = Phase::over;
    } else if (input_.size() < operation_size + bus_id_size) {
        return false;
    } else {
        import_device(time);
    }
    return true;
}

void Connection::send_device_list(TimePoint time) {
    const auto devices = exports_.available(time);
    send(operation_reply(OperationCode::list_reply, OperationStatus::ok));
    send(count_bytes(devices.size()));
    for (const Peripheral* device : devices) {
        send(device_record(*device));
        send(interface_records(*device));
    }
}

void Connection::import_device(TimePoint time) {
    const std::string id = read_bus_id(ByteView(input_).subspan(operation_size));
    input_.erase(input_.begin(), input_.begin() + operation_size + bus_id_size);
    Peripheral* device = exports_.find(id, time);
    OperationStatus status = OperationStatus::ok;
    if (device == nullptr) {
        status = OperationStatus::no_device;
    } else if (!exports_.take(*device)) {
        status = OperationStatus::busy;
    }
    send(operation_reply(OperationCode::import_reply, status));
    if (status != OperationStatus::ok) {
        leave(time);
        return;
    }
    send(device_record(*device));
    attach(*device);
}

void Connection::attach(Peripheral& peripheral) {
    peripheral_ = &peripheral;
    address_ = peripheral.address();
    peripheral.port_reset();
    queue_.emplace(peripheral, exports_.log());
    exports_.log().write(peripheral.description().name, address_, "import",
                         remote::bus_id(peripheral), {}, 0);
    phase_ = Phase::attached;
}

bool Connection::take_urb(TimePoint time) {
    if (input_.size() < urb_header_size) {
        return false;
    }
    const UrbRequest request = read_urb(input_);
    const bool submits = request.is(UrbCommand::submit);
    if ((!submits && !request.is(UrbCommand::unlink)) || request.isochronous() ||
        request.length > longest_transfer) {
        phase_ = Phase::over;
        return false;
    }
    const std::size_t payload = submits && !request.in ? request.length : 0;
    const std::size_t whole = urb_header_size + payload;
    if (input_.size() < whole) {
        return false;
    }
    const Bytes out(input_.begin() + urb_header_size,
                    input_.begin() + static_cast<std::ptrdiff_t>(whole));
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(whole));
    if (submits) {
        submit(request, out, time);
    } else {
        unlink(request);
    }
    return true;
}

void Connection::submit(const UrbRequest& request, ByteView out, TimePoint time) {
    if (outstanding_ >= most_transfers || queue_->has(request.sequence)) {
        phase_ = Phase::over;
        return;
    }
    ++outstanding_;
    const auto endpoint = static_cast<std::uint8_t>(request.endpoint & 0x0FU);
    if (endpoint == 0) {
        Setup setup = request.setup;
        setup.length = static_cast<std::uint16_t>(std::min<std::uint32_t>(request.length, 0xFFFF));
        if (request.length > 0 && request.in != ((setup.type & direction_in) != 0)) {
            phase_ = Phase::over;
            return;
        }
        queue_->control(request.sequence, setup, out, time);
    } else if (request.in) {
        queue_->interrupt_in(request.sequence, endpoint | direction_in, request.length);
    } else {
        queue_->interrupt_out(request.sequence, endpoint, out, time);
    }
}

void Connection::unlink(const UrbRequest& request) {
    const bool found = queue_->cancel(request.unlinked);
    outstanding_ -= found ? 1 : 0;
    send(unlink_reply(request.sequence, found ? -ECONNRESET : 0));
}

void Connection::answer(const remote::Finished& finished) {
    --outstanding_;
    const bool good = finished.completion == Completion::ok;
    const std::size_t actual = finished.data.empty() ? finished.accepted : finished.data.size();
    send(submit_reply(finished.id, error_number(finished.completion), good ? actual : 0,
                      good ? ByteView(finished.data) : ByteView{}));
}

void Connection::proceed(TimePoint time) {
    if (phase_ == Phase::attached) {
        for (const remote::Finished& finished : queue_->finish(time)) {
            answer(finished);
        }
        if (!queue_->connected(time)) {
            leave(time);
        }
    }
    flush();
    if (phase_ == Phase::leaving && output_.empty()) {
        // The host closes in turn; closing first could take the last answers from it.
        shutdown(socket_.get(), SHUT_WR);
    }
    if (phase_ == Phase::leaving && time >= give_up_at_) {
        phase_ = Phase::over;
    }
}

std::optional<TimePoint> Connection::next_event(TimePoint time) const {
    switch (phase_) {
        case Phase::attached:
            return queue_->next_event(time);
        case Phase::leaving:
            return give_up_at_;
        default:
            return std::nullopt;
    }
}

void Connection::leave(TimePoint time) {
    phase_ = Phase::leaving;
    give_up_at_ = time + leave_patience;
}

void Connection::send(const Bytes& bytes) {
    output_.insert(output_.end(), bytes.begin(), bytes.end());
}

void Connection::flush() {
    while (!output_.empty() && !over()) {
        const ssize_t count =
            ::send(socket_.get(), output_.data(), output_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            phase_ = errno == EAGAIN ? phase_ : Phase::over;
            return;
        }
        output_.erase(output_.begin(), output_.begin() + count);
    }
}

}  // namespace zelfsim::usbip
