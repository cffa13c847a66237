// Control transfers: faults, standard requests (USB 2.0 section 9.4), the way to the reports.
#include "model/device/descriptors.h"
#include "model/device/peripheral.h"
#include "model/device/request_codes.h"

#include <algorithm>
#include <utility>

namespace zelfsim {

namespace {

bool is_get_descriptor(const Setup& setup) {
    return (setup.type & type_mask) == standard_type && (setup.type & direction_in) != 0 &&
           setup.request == get_descriptor_request;
}

}  // namespace

std::vector<FaultEvent> Peripheral::events_of(const Setup& setup, ByteView message) const {
    std::vector<FaultEvent> events{FaultEvent::control};
    if (is_get_descriptor(setup)) {
        events.push_back(FaultEvent::get_descriptor);
        if (setup.value >> 8 == descriptor_string) {
            events.push_back(FaultEvent::string);
        } else if (setup.value >> 8 == descriptor_report) {
            events.push_back(FaultEvent::report_descriptor);
        }
    } else if (setup.type == class_interface_out && setup.request == set_report_request) {
        events.push_back(FaultEvent::set_report);
        if (is_output_report(setup)) {
            events.push_back(FaultEvent::command);
            events.push_back(command_event(parse_command(message).kind, flash_->stoppable()));
        }
    } else if (setup.type == class_interface_in && setup.request == get_report_request &&
               setup.value >> 8 == feature_report) {
        events.push_back(FaultEvent::get_feature);
        if (flash_ && flash_->reading_records()) {
            events.push_back(FaultEvent::record_read);
        }
    }
    return events;
}

FaultContext Peripheral::context_of(ByteView message) const {
    FaultContext context;
    if (!flash_ || message.empty()) {
        return context;
    }
    context.byte = message.front();
    context.component = flash_->image_component();
    const FlashCommand command = parse_command(message);
    if (command.kind == CommandKind::record && !context.component) {
        context.component = ImageReceiver::named_component(command.record);
    }
    return context;
}

Reply Peripheral::control(const Setup& setup, ByteView out, Duration patience, TimePoint time) {
    advance(time);
    Reply reply;
    if (!attached_) {
        reply.completion = Completion::no_device;
        return reply;
    }
    const ByteView message = is_output_report(setup) ? message_of(out) : ByteView{};
    const FaultRule* rule = strike(events_of(setup, message), context_of(message));
    if (rule != nullptr && hits_transfer(rule->action)) {
        if (auto hit = hit_transfer(*rule, time)) {
            hit->duration = description_.timing.transfer;
            return *hit;
        }
    }
    return answer_request(setup, out, rule, patience, time);
}

std::optional<std::size_t> cut_by(const FaultRule* rule) {
    if (rule != nullptr && rule->action == FaultAction::empty) {
        return 0;
    }
    if (rule != nullptr && rule->action == FaultAction::short_packet) {
        return rule->length;
    }
    return std::nullopt;
}

Reply Peripheral::answer_request(const Setup& setup, ByteView out, const FaultRule* rule,
                                 Duration patience, TimePoint time) {
    Reply reply;
    reply.duration = description_.timing.transfer;
    const bool class_request = (setup.type & type_mask) == class_type;
    const auto cut = cut_by(rule);
    if ((setup.type & direction_in) != 0) {
        std::optional<Bytes> data;
        if (rule != nullptr && rule->action == FaultAction::answer) {
            data = rule->bytes;
        } else {
            data = class_request ? class_in(setup) : standard_in(setup);
        }
        if (!data) {
            reply.completion = Completion::stall;
            return reply;
        }
        data->resize(
            std::min({data->size(), std::size_t{setup.length}, cut.value_or(setup.length)}));
        reply.data = std::move(*data);
        return reply;
    }
    if (cut) {
        reply.accepted = std::min(*cut, out.size());
        return reply;
    }
    reply.accepted = out.size();
    const bool taken =
        class_request ? class_out(setup, out, rule, reply, patience, time) : standard_out(setup);
    if (!taken) {
        reply.completion = Completion::stall;
    }
    if (reply.completion != Completion::ok) {
        reply.accepted = 0;
    }
    return reply;
}

std::optional<Bytes> Peripheral::get_descriptor(const Setup& setup) const {
    const auto kind = static_cast<std::uint8_t>(setup.value >> 8);
    const auto index = static_cast<std::uint8_t>(setup.value & 0xFF);
    if ((setup.type & recipient_mask) == to_interface) {
        const InterfaceDescription* target = interface(static_cast<std::uint8_t>(setup.index));
        if (target == nullptr || !is_hid(*target) || index != 0) {
            return std::nullopt;
        }
        if (kind == descriptor_hid) {
            return hid_descriptor(description_, *target);
        }
        return kind == descriptor_report
                   ? std::optional<Bytes>(report_descriptor(description_, *target))
                   : std::nullopt;
    }
    switch (kind) {
        case descriptor_device:
            return device_descriptor(description_, state_.bcd);
        case descriptor_configuration:
            return index == 0 ? std::optional<Bytes>(configuration_descriptor(description_))
                              : std::nullopt;
        case descriptor_string:
            return string_descriptor(description_, index, setup.index);
        default:
            return std::nullopt;
    }
}

std::optional<Bytes> Peripheral::standard_in(const Setup& setup) {
    if ((setup.type & type_mask) != standard_type) {
        return std::nullopt;
    }
    const auto index = static_cast<std::uint8_t>(setup.index & 0xFF);
    switch (setup.request) {
        case get_status_request:
            return Bytes{static_cast<std::uint8_t>((setup.type & recipient_mask) == to_endpoint &&
                                                   halted_.contains(index)),
                         0};
        case get_descriptor_request:
            return get_descriptor(setup);
        case get_configuration_request:
            return Bytes{configuration_value};
        case get_interface_request:
            return interface(index) != nullptr ? std::optional<Bytes>(Bytes{0}) : std::nullopt;
        default:
            return std::nullopt;
    }
}

bool Peripheral::standard_out(const Setup& setup) {
    if ((setup.type & type_mask) != standard_type) {
        return false;
    }
    const auto index = static_cast<std::uint8_t>(setup.index & 0xFF);
    switch (setup.request) {
        case set_configuration_request:
            return setup.value == configuration_value || setup.value == 0;
        case set_interface_request:
            return setup.value == 0 && interface(index) != nullptr;
        case clear_feature_request:
            if ((setup.type & recipient_mask) == to_endpoint && setup.value == 0) {
                clear_halt(index);
                return true;
            }
            return false;
        default:
            return false;
    }
}

}  // namespace zelfsim
