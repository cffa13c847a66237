#include "model/device/peripheral.h"

#include "model/device/descriptors.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zelfsim {

namespace {

/// Longer absences do not exist; a later time was written before the machine was restarted.
constexpr Duration longest_absence = std::chrono::minutes(20);

Reply failed(Completion completion) {
    Reply reply;
    reply.completion = completion;
    return reply;
}

}  // namespace

Peripheral::Peripheral(const DeviceDescription& description, DeviceStore store,
                       AddressPool& addresses, TransferLog& log)
    : description_(description),
      store_(std::move(store)),
      addresses_(addresses),
      log_(log),
      state_(factory_state(description)),
      faults_(description.faults, state_.fired) {
    store_.load(state_);
    if (std::exchange(state_.unplugged, false)) {
        store_.save(state_);
    }
    if (state_.away_until > now() + longest_absence) {
        state_.away_until = {};
    }
    attached_ = state_.away_until <= now();
    addresses_.take(description_.bus, state_.address);
    if (description_.flash) {
        flash_.emplace(description_, state_, store_);
        for (const InterfaceDescription& candidate : description_.interfaces) {
            if (candidate.kind == InterfaceKind::flash) {
                flash_interface_ = &candidate;
            }
        }
    }
}

void Peripheral::adopt(Peripheral& child) {
    children_.push_back(&child);
    child.hub_ = this;
}

void Peripheral::advance(TimePoint time) {
    if (hub_ != nullptr) {
        hub_->advance(time);
    }
    if (attached_ && drop_at_ && time >= *drop_at_) {
        drop_for_fault(*drop_rule_, *drop_at_);
    }
    if (!attached_ && !state_.unplugged && time >= state_.away_until) {
        arrive();
    }
}

void Peripheral::arrive() {
    attached_ = true;
    ++connection_;
}

void Peripheral::drop_for_fault(const FaultRule& rule, TimePoint time) {
    drop(rule.replug ? DropReason::replug : DropReason::unplug, rule.replug.value_or(Duration{0}),
         time);
}

void Peripheral::drop(DropReason reason, Duration away, TimePoint time) {
    constexpr std::array<const char*, 3> names{"reset", "unplug", "unplug-replug"};
    for (Peripheral* child : children_) {
        child->drop(reason, away, time);
    }
    state_.unplugged = state_.unplugged || reason == DropReason::unplug;
    state_.away_until = std::max(state_.away_until, time + away);
    if (!std::exchange(attached_, false)) {
        store_.save(state_);
        return;
    }
    const std::uint8_t old_address = state_.address;
    state_.address = addresses_.exchange(description_.bus, old_address);
    state_.detached.clear();
    state_.resets += reason == DropReason::reset ? 1 : 0;
    waiting_.clear();
    last_status_.clear();
    halted_.clear();
    busy_until_ = {};
    drop_at_.reset();
    if (flash_) {
        flash_->restart();
    } else {
        store_.save(state_);
    }
    log_.write(description_.name, old_address, "drop", names.at(static_cast<std::size_t>(reason)),
               {}, state_.unplugged ? 0 : state_.address);
}

void Peripheral::port_reset() {
    waiting_.clear();
    last_status_.clear();
    halted_.clear();
}

const FaultRule* Peripheral::strike(std::span<const FaultEvent> events,
                                    const FaultContext& context) {
    const FaultRule* rule = faults_.strike(events, context);
    if (rule != nullptr) {
        if (!rule->always) {
            store_.save(state_);
        }
        log_.write(description_.name, state_.address, "fault", rule->key(), {}, 0);
        if (rule->action == FaultAction::signal) {
            signal_ = SentSignal{rule->signal, rule->delay};
        }
    }
    return rule;
}

std::optional<Reply> Peripheral::hit_transfer(const FaultRule& rule, TimePoint time) {
    switch (rule.action) {
        case FaultAction::unplug:
            if (rule.delay > Duration{0}) {
                drop_at_ = time + rule.delay;
                drop_rule_ = &rule;
                return std::nullopt;
            }
            drop_for_fault(rule, time);
            return failed(Completion::no_device);
        case FaultAction::stall:
            return failed(Completion::stall);
        case FaultAction::timeout:
            return failed(Completion::timeout);
        case FaultAction::io_error:
            return failed(Completion::io_error);
        case FaultAction::overflow:
            return failed(Completion::overflow);
        case FaultAction::crash:
            return failed(Completion::crash);
        default:
            return std::nullopt;
    }
}

HostFault Peripheral::host_fault(FaultEvent event, TimePoint time) {
    const FaultRule* rule = strike(std::array{event}, {});
    if (rule == nullptr) {
        return HostFault::none;
    }
    switch (rule->action) {
        case FaultAction::refuse:
            return HostFault::refused;
        case FaultAction::busy:
            return HostFault::busy;
        case FaultAction::crash:
            return HostFault::crash;
        default:
            break;
    }
    return hit_transfer(*rule, time) ? HostFault::unplugged : HostFault::none;
}

std::optional<Reply> Peripheral::interrupt_in(std::uint8_t endpoint, std::size_t length,
                                              TimePoint time) {
    advance(time);
    if (!attached_) {
        return failed(Completion::no_device);
    }
    if (halted_.contains(endpoint)) {
        return failed(Completion::stall);
    }
    if (flash_interface_ == nullptr || endpoint != in_endpoint(description_, *flash_interface_) ||
        waiting_.empty() || waiting_.front().ready > time) {
        return std::nullopt;
    }
    Reply reply;
    reply.data = std::move(waiting_.front().bytes);
    waiting_.pop_front();
    if (const FaultRule* rule = strike(std::array{FaultEvent::interrupt}, {})) {
        if (rule->action == FaultAction::stall) {
            halted_.insert(endpoint);
        }
        if (auto hit = hit_transfer(*rule, time)) {
            return hit;
        }
        if (rule->action == FaultAction::answer) {
            reply.data = rule->bytes;
        } else if (const auto cut = cut_by(rule)) {
            reply.data.resize(std::min(*cut, reply.data.size()));
        }
    }
    if (reply.data.size() > length) {
        if (length == 0 || length % flash_interface_->in_packet != 0) {
            return failed(Completion::overflow);
        }
        const auto cut = reply.data.begin() + static_cast<std::ptrdiff_t>(length);
        waiting_.push_front({time, Bytes(cut, reply.data.end())});
        reply.data.resize(length);
    }
    return reply;
}

std::optional<TimePoint> Peripheral::next_event() const {
    std::optional<TimePoint> next = attached_ ? drop_at_ : std::nullopt;
    if (!waiting_.empty()) {
        next = std::min(next.value_or(waiting_.front().ready), waiting_.front().ready);
    }
    if (hub_ != nullptr && hub_->drop_at_) {
        next = std::min(next.value_or(*hub_->drop_at_), *hub_->drop_at_);
    }
    return next;
}

bool Peripheral::driver_bound(std::uint8_t number) const {
    const InterfaceDescription* found = interface(number);
    return found != nullptr && found->driver && !state_.detached.contains(number);
}

void Peripheral::bind_driver(std::uint8_t number, bool bound) {
    if (bound) {
        state_.detached.erase(number);
    } else {
        state_.detached.insert(number);
    }
    store_.save(state_);
}

const InterfaceDescription* Peripheral::interface(std::uint8_t number) const {
    for (const InterfaceDescription& candidate : description_.interfaces) {
        if (candidate.number == number) {
            return &candidate;
        }
    }
    return nullptr;
}

const InterfaceDescription* Peripheral::interface_of_endpoint(std::uint8_t endpoint) const {
    for (const InterfaceDescription& candidate : description_.interfaces) {
        const bool has_out = candidate.out_packet > 0 || candidate.kind == InterfaceKind::storage;
        if (endpoint == in_endpoint(description_, candidate) ||
            (has_out && endpoint == out_endpoint(description_, candidate))) {
            return &candidate;
        }
    }
    return nullptr;
}

}  // namespace zelfsim
