#include "remote/transfer_queue.h"

#include "model/device/request_codes.h"
#include "model/store/record_text.h"

#include <algorithm>
#include <utility>

namespace zelfsim::remote {

namespace {

/// How long to look away from a report that is ready and that nobody reads.
constexpr Duration unread_pause = std::chrono::milliseconds(5);

/// The record's codes, which are those of the USB library.
long code_of(Completion completion) {
    switch (completion) {
        case Completion::ok:
            return 0;
        case Completion::stall:
            return -9;
        case Completion::no_device:
            return -4;
        case Completion::timeout:
            return -7;
        case Completion::overflow:
            return -8;
        case Completion::io_error:
        case Completion::crash:
            break;
    }
    return -1;
}

}  // namespace

TransferQueue::TransferQueue(Peripheral& peripheral, TransferLog& log)
    : peripheral_(peripheral),
      log_(log),
      connection_(peripheral.connection()),
      address_(peripheral.address()) {}

bool TransferQueue::connected(TimePoint time) {
    peripheral_.advance(time);
    return peripheral_.attached() && peripheral_.connection() == connection_;
}

void TransferQueue::control(std::uint32_t id, const Setup& setup, ByteView out, TimePoint time) {
    if (!connected(time)) {
        return;
    }
    Entry entry;
    entry.result.id = id;
    entry.kind = "control";
    entry.setup = setup_text(setup);
    entry.out.assign(out.begin(), out.end());
    entry.endpoint = setup.type & direction_in;
    answer(std::move(entry), peripheral_.control(setup, out, Duration::max(), time), time);
}

void TransferQueue::interrupt_in(std::uint32_t id, std::uint8_t endpoint, std::size_t length) {
    Entry entry;
    entry.result.id = id;
    entry.kind = "interrupt";
    entry.setup = endpoint_text(endpoint, length);
    entry.endpoint = endpoint;
    entry.length = length;
    entry.waits_for_data = true;
    entries_.push_back(std::move(entry));
}

void TransferQueue::interrupt_out(std::uint32_t id, std::uint8_t endpoint, ByteView out,
                                  TimePoint time) {
    if (!connected(time)) {
        return;
    }
    Entry entry;
    entry.result.id = id;
    entry.kind = "interrupt";
    entry.setup = endpoint_text(endpoint, out.size());
    entry.out.assign(out.begin(), out.end());
    entry.endpoint = endpoint;
    const InterfaceDescription* interface = peripheral_.interface_of_endpoint(endpoint);
    if (interface != nullptr && interface->kind == InterfaceKind::storage) {
        entries_.push_back(std::move(entry));  // a stick answers nothing
        return;
    }
    answer(std::move(entry), peripheral_.interrupt_out(endpoint, out, Duration::max(), time), time);
}

void TransferQueue::answer(Entry entry, Reply reply, TimePoint time) {
    entry.result.completion = reply.completion;
    entry.result.data = std::move(reply.data);
    entry.result.accepted = reply.accepted;
    // No host sees a time-out but its own, and none is told by a device that it is gone.
    if (reply.completion != Completion::timeout && reply.completion != Completion::no_device) {
        entry.due = time + reply.duration;
    }
    entries_.push_back(std::move(entry));
}

void TransferQueue::poll(Entry& entry, TimePoint time) {
    auto reply = peripheral_.interrupt_in(entry.endpoint, entry.length, time);
    if (!reply || reply->completion == Completion::timeout ||
        reply->completion == Completion::no_device) {
        return;
    }
    entry.result.completion = reply->completion;
    entry.result.data = std::move(reply->data);
    entry.waits_for_data = false;
    entry.due = time;
}

std::vector<Finished> TransferQueue::finish(TimePoint time) {
    bool there = connected(time);
    std::vector<Finished> finished;
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (there && entry->waits_for_data) {
            poll(*entry, time);
            there = connected(time);
        }
        if (!entry->due || (there && *entry->due > time)) {
            ++entry;
            continue;
        }
        long code = code_of(entry->result.completion);
        if (code == 0 && entry->kind == "control") {
            code =
                static_cast<long>((entry->endpoint & direction_in) != 0 ? entry->result.data.size()
                                                                        : entry->result.accepted);
        }
        record(*entry, code);
        finished.push_back(std::move(entry->result));
        entry = entries_.erase(entry);
    }
    return finished;
}

bool TransferQueue::has(std::uint32_t id) const {
    return std::any_of(entries_.begin(), entries_.end(),
                       [id](const Entry& entry) { return entry.result.id == id; });
}

bool TransferQueue::cancel(std::uint32_t id) {
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [id](const Entry& entry) { return entry.result.id == id; });
    if (found == entries_.end()) {
        return false;
    }
    record(*found, code_of(Completion::timeout));
    entries_.erase(found);
    return true;
}

std::optional<TimePoint> TransferQueue::next_event(TimePoint time) const {
    std::optional<TimePoint> next = peripheral_.next_event();
    if (next && *next <= time) {
        next = time + unread_pause;
    }
    for (const Entry& entry : entries_) {
        if (entry.due) {
            next = std::min(next.value_or(*entry.due), *entry.due);
        }
    }
    return next;
}

void TransferQueue::record(const Entry& entry, long result) {
    log_.write(peripheral_.description().name, address_, entry.kind, entry.setup,
               entry.out.empty() ? ByteView(entry.result.data) : ByteView(entry.out), result);
}

}  // namespace zelfsim::remote
