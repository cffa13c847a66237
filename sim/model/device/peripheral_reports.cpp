// Class requests: HID reports, and through them the commands of the flash interface.
#include "model/device/descriptors.h"
#include "model/device/peripheral.h"
#include "model/device/request_codes.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::size_t waiting_reports = 16;

/// How much later than usual the rule lets the own status come.
Duration answer_delay(const FaultRule* rule) {
    if (rule == nullptr) {
        return Duration{0};
    }
    return rule->action == FaultAction::late ? rule->delay : rule->answer_delay;
}

/// Bytes of the input report of an ordinary interface.
std::size_t input_size(InterfaceKind kind) {
    return kind == InterfaceKind::mouse ? 3 : 8;
}

}  // namespace

/// An output report of the right ID to the flash interface.
bool Peripheral::is_output_report(const Setup& setup) const {
    const std::uint16_t id = flash_ && description_.flash->report_ids ? command_report_id : 0;
    return flash_interface_ != nullptr && setup.type == class_interface_out &&
           setup.request == set_report_request &&
           (setup.index & 0xFF) == flash_interface_->number &&
           setup.value == (output_report << 8 | id);
}

ByteView Peripheral::message_of(ByteView report) const {
    return description_.flash->report_ids && !report.empty() ? report.subspan(1) : report;
}

std::optional<Bytes> Peripheral::class_in(const Setup& setup) {
    if (description_.is_hub && setup.type == class_device_in) {
        return setup.request == get_descriptor_request && setup.value >> 8 == descriptor_hub
                   ? std::optional<Bytes>(hub_descriptor(description_))
                   : std::nullopt;
    }
    const InterfaceDescription* target = interface(static_cast<std::uint8_t>(setup.index & 0xFF));
    if (setup.type != class_interface_in || target == nullptr || !is_hid(*target)) {
        return std::nullopt;
    }
    if (setup.request == get_idle_request || setup.request == get_protocol_request) {
        return Bytes{setup.request == get_protocol_request ? std::uint8_t{1} : std::uint8_t{0}};
    }
    if (setup.request != get_report_request) {
        return std::nullopt;
    }
    if (target != flash_interface_) {
        return setup.value == input_report << 8
                   ? std::optional<Bytes>(Bytes(input_size(target->kind), 0))
                   : std::nullopt;
    }
    const FlashDescription& flash = *description_.flash;
    const bool ids = flash.report_ids;
    if (setup.value == (input_report << 8 | (ids ? status_report_id : 0))) {
        Bytes report = last_status_;
        report.resize(status_size + (ids ? 1 : 0));
        return report;
    }
    if (setup.value == (feature_report << 8 | (ids ? data_report_id : 0))) {
        Bytes report = flash_->next_data();
        report.resize(flash.feature_size);
        if (ids) {
            report.insert(report.begin(), data_report_id);
        }
        return report;
    }
    return std::nullopt;
}

bool Peripheral::class_out(const Setup& setup, ByteView out, const FaultRule* rule, Reply& reply,
                           Duration patience, TimePoint time) {
    const InterfaceDescription* target = interface(static_cast<std::uint8_t>(setup.index & 0xFF));
    if (setup.type != class_interface_out || target == nullptr || !is_hid(*target)) {
        return false;
    }
    if (setup.request == set_idle_request || setup.request == set_protocol_request) {
        return true;
    }
    if (is_output_report(setup)) {
        return take_command(out, rule, reply, patience, time);
    }
    // A keyboard's lamps.
    return setup.request == set_report_request && target->kind == InterfaceKind::keyboard &&
           setup.value == output_report << 8 && out.size() == 1;
}

Reply Peripheral::interrupt_out(std::uint8_t endpoint, ByteView out, Duration patience,
                                TimePoint time) {
    advance(time);
    Reply reply;
    if (!attached_) {
        reply.completion = Completion::no_device;
        return reply;
    }
    if (flash_interface_ == nullptr || flash_interface_->out_packet == 0 ||
        endpoint != out_endpoint(description_, *flash_interface_)) {
        reply.completion = Completion::io_error;
        return reply;
    }
    const ByteView message = message_of(out);
    const std::array events{FaultEvent::command,
                            command_event(parse_command(message).kind, flash_->stoppable())};
    const FaultRule* rule = strike(events, context_of(message));
    if (rule != nullptr && hits_transfer(rule->action)) {
        if (auto hit = hit_transfer(*rule, time)) {
            return *hit;
        }
    }
    if (const auto cut = cut_by(rule)) {
        reply.accepted = std::min(*cut, out.size());
        return reply;
    }
    reply.accepted = out.size();
    if (!take_command(out, rule, reply, patience, time)) {
        reply.completion = Completion::stall;
    }
    return reply;
}

/// False for a report that does not fit the report descriptor.
bool Peripheral::take_command(ByteView report, const FaultRule* rule, Reply& reply,
                              Duration patience, TimePoint time) {
    const FlashDescription& flash = *description_.flash;
    if (flash.report_ids && (report.empty() || report.front() != command_report_id)) {
        return false;
    }
    const ByteView message = message_of(report);
    if (message.size() > flash.output_size) {
        return false;
    }
    const TimePoint start = std::max(time, busy_until_);
    if (start - time > patience) {
        reply.completion = Completion::timeout;
        return true;
    }
    reply.duration = description_.timing.transfer + (start - time);
    run_command(message, rule, reply, start + description_.timing.transfer);
    return true;
}

void Peripheral::run_command(ByteView message, const FaultRule* rule, Reply& reply,
                             TimePoint time) {
    const FaultAction action = rule != nullptr ? rule->action : FaultAction::stall;
    const TimePoint soon = time + description_.timing.query;
    switch (action) {
        case FaultAction::no_answer:
            return;
        case FaultAction::reject:
            return queue_status(plain_status(rejected), soon);
        case FaultAction::operation_error:
            return queue_status(plain_status(operation_error), soon);
        case FaultAction::answer:
            return queue_status(rule->bytes, soon);
        default:
            break;
    }
    const FlashCommand command = parse_command(message);
    if (command.kind == CommandKind::reset) {
        return restart_for_command(reply, time);
    }
    if (command.kind == CommandKind::erase) {
        faults_.restart_record_count();
    }
    const CommandResult result = flash_->carry_out(command);
    if (action == FaultAction::data) {
        flash_->set_data(rule->bytes);
    }
    if (result.busy) {
        busy_until_ = time + result.delay;
    }
    if (result.status) {
        queue_status(*result.status, time + result.delay + answer_delay(rule));
    }
    if (action == FaultAction::unasked) {
        queue_status(rule->bytes, time + rule->delay);
    }
}

void Peripheral::restart_for_command(Reply& reply, TimePoint time) {
    drop(DropReason::reset, description_.timing.reset, time);
    if (description_.flash->reset_fails) {
        reply.completion = Completion::no_device;
    }
}

void Peripheral::queue_status(ByteView status, TimePoint ready) {
    WaitingReport report{ready, Bytes(status.begin(), status.end())};
    if (description_.flash->report_ids) {
        report.bytes.insert(report.bytes.begin(), status_report_id);
    }
    last_status_ = report.bytes;
    const auto later = std::find_if(waiting_.begin(), waiting_.end(),
                                    [&](const auto& waiting) { return waiting.ready > ready; });
    waiting_.insert(later, std::move(report));
    if (waiting_.size() > waiting_reports) {
        waiting_.pop_front();
    }
}

}  // namespace zelfsim
