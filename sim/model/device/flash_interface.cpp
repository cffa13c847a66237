#include "model/device/flash_interface.h"

#include "model/device/factory_image.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

namespace zelfsim {

FlashInterface::FlashInterface(const DeviceDescription& device, DeviceState& state,
                               DeviceStore& store)
    : device_(device), state_(state), store_(store) {
    if (stoppable()) {
        resume();
    }
}

/// The records that arrived before the process ended are what the device holds.
void FlashInterface::resume() {
    const Bytes staged = store_.load_staging();
    receiver_.emplace(device_.product);
    for (std::size_t at = 0; at < staged.size(); at += stored_record_head + staged[at]) {
        receiver_->take(ByteView(staged).subspan(at + 1, staged[at] + stored_record_head - 1));
    }
    if (state_.component(receiver_->component().value_or(0)) == nullptr) {
        // The bus file no longer has the component that was being updated.
        receiver_.reset();
        store_.drop_staging();
        state_.phase = FlashPhase::idle;
        return;
    }
    state_.phase = receiver_->records() > 0 ? FlashPhase::receiving : FlashPhase::erased;
    if (receiver_->downloads() > 0) {
        break_component();
    }
}

bool FlashInterface::stoppable() const {
    return state_.phase == FlashPhase::erased || state_.phase == FlashPhase::receiving;
}

std::optional<std::uint8_t> FlashInterface::image_component() const {
    return receiver_ ? receiver_->component() : std::nullopt;
}

CommandResult FlashInterface::answer(std::uint8_t flags) const {
    return {plain_status(flags), device_.timing.query, false};
}

CommandResult FlashInterface::answer_with(Bytes data) {
    set_data(std::move(data));
    return answer(completed);
}

void FlashInterface::set_data(Bytes data) {
    data_ = std::move(data);
    reading_.reset();
}

Bytes FlashInterface::next_data() {
    if (reading_) {
        return record_block(reading_->image, reading_->at);
    }
    return data_;
}

CommandResult FlashInterface::carry_out(const FlashCommand& command) {
    switch (command.kind) {
        case CommandKind::status_request:
            return answer(completed);
        case CommandKind::reset:
            return {};
        case CommandKind::level_or_stop:
            return level_or_stop();
        case CommandKind::device_info:
            return flash().device_info
                       ? CommandResult{device_info_status(flash()), device_.timing.query, false}
                       : answer(rejected);
        case CommandKind::erase:
            return erase();
        case CommandKind::record:
            return record(command.record);
        case CommandKind::checksum:
            return checksum(command.checksum);
        case CommandKind::component_version:
            return component_version(command.component);
        case CommandKind::component_list:
            return component_list(false);
        case CommandKind::extended_list:
            return component_list(true);
        case CommandKind::read_records:
            return read_records(command.component);
        case CommandKind::unknown:
            break;
    }
    return answer(rejected);
}

CommandResult FlashInterface::level_or_stop() {
    if (stoppable()) {
        give_up("stopped");
        return answer(completed);
    }
    if (!flash().ec_level) {
        return answer(rejected);
    }
    return {level_status(state_), device_.timing.query, false};
}

CommandResult FlashInterface::erase() {
    give_up("erased");
    store_.begin_staging();
    receiver_.emplace(device_.product);
    state_.phase = FlashPhase::erased;
    store_.save(state_);
    return {plain_status(completed), device_.timing.erase, true};
}

CommandResult FlashInterface::record(ByteView record) {
    CommandResult result{plain_status(completed), device_.timing.record, true};
    if (!receiver_) {
        return answer(rejected);
    }
    const auto named = ImageReceiver::named_component(record);
    const bool first_download = receiver_->downloads() == 0 && ImageReceiver::is_download(record);
    if ((named && state_.component(*named) == nullptr) || !receiver_->take(record)) {
        result.status = plain_status(operation_error);
        return result;
    }
    Bytes stored{static_cast<std::uint8_t>(record.size() - 3)};
    stored.insert(stored.end(), record.begin(), record.end());
    store_.append_staging(stored);
    const bool changed =
        std::exchange(state_.phase, FlashPhase::receiving) != FlashPhase::receiving;
    if (first_download) {
        break_component();
    }
    if (changed || first_download) {
        store_.save(state_);
    }
    return result;
}

void FlashInterface::break_component() {
    if (ComponentState* component = state_.component(receiver_->component().value_or(0))) {
        component->broken = true;
        component->pending.reset();
    }
}

CommandResult FlashInterface::checksum(std::uint16_t sum) {
    CommandResult result{plain_status(completed), device_.timing.checksum, true};
    if (!receiver_ || receiver_->records() == 0) {
        return answer(rejected);
    }
    if (receiver_->downloads() == 0 || receiver_->checksum() != sum) {
        give_up("bad-checksum");
        result.status = plain_status(operation_error);
        return result;
    }
    take_image();
    return result;
}

void FlashInterface::take_image() {
    ComponentState& component = *state_.component(*receiver_->component());
    const std::uint16_t sum = receiver_->checksum();
    ComponentLevel level = component.current;
    if (const auto& carried = receiver_->level()) {
        level.version = {carried->major, carried->minor, carried->build.value_or(0)};
        level.type = carried->type.value_or(level.type);
        level.random = carried->random.value_or(level.random);
    }
    const Bytes end{0, static_cast<std::uint8_t>(sum >> 8), static_cast<std::uint8_t>(sum & 0xFF)};
    store_.append_staging(end);
    store_.keep_staging(component.id);
    add_history(version_text(component.current.version), version_text(level.version), sum, "ok");
    component.broken = false;
    if (component.id == 0) {
        component.pending = level;
    } else {
        component.current = level;
    }
    receiver_.reset();
    ++state_.updates;
    state_.phase = FlashPhase::complete;
    store_.save(state_);
}

void FlashInterface::give_up(const char* result) {
    if (receiver_ && receiver_->records() > 0) {
        const ComponentState* component = state_.component(receiver_->component().value_or(0));
        const std::string version = version_text(component->current.version);
        add_history(version, version_text(reported_version(*component)), receiver_->checksum(),
                    result);
        ++state_.failed_updates;
    }
    receiver_.reset();
    store_.drop_staging();
    state_.phase = FlashPhase::idle;
    store_.save(state_);
}

void FlashInterface::add_history(const std::string& before, const std::string& after,
                                 std::uint16_t sum, const char* result) {
    const auto component = receiver_->component();
    char line[128];
    std::snprintf(line, sizeof line, "%lld\t%s\t%s\t%s\t%u\t%04x\t%s\n",
                  static_cast<long long>(std::time(nullptr)),
                  component ? std::to_string(*component).c_str() : "-", before.c_str(),
                  after.c_str(), receiver_->records(), sum, result);
    store_.add_history(line);
}

CommandResult FlashInterface::component_version(std::uint8_t id) {
    const ComponentState* component = state_.component(id);
    return component == nullptr ? answer(rejected) : answer_with(version_data(*component));
}

CommandResult FlashInterface::component_list(bool extended) {
    const ListKind needed = extended ? ListKind::extended : ListKind::plain;
    if (flash().list != ListKind::extended && flash().list != needed) {
        return answer(rejected);
    }
    return answer_with(extended ? extended_list_data(state_) : plain_list_data(state_));
}

CommandResult FlashInterface::read_records(std::uint8_t id) {
    const ComponentState* component = state_.component(id);
    if (!flash().read_records || component == nullptr) {
        return answer(rejected);
    }
    if (component->broken) {
        return answer(operation_error);
    }
    Bytes image = store_.image(id);
    if (image.empty()) {
        const auto description =
            std::find_if(flash().components.begin(), flash().components.end(),
                         [&](const ComponentDescription& entry) { return entry.id == id; });
        image = factory_image(device_, *description);
    }
    reading_ = Reading{std::move(image), 0};
    return answer(completed);
}

void FlashInterface::restart() {
    give_up("lost");
    set_data({});
    ComponentState& main = state_.components.front();
    if (main.pending) {
        state_.previous = main.current.version;
        main.current = *main.pending;
        main.pending.reset();
        state_.bcd = static_cast<std::uint16_t>(main.current.version.major * 256 +
                                                main.current.version.minor);
    } else if (main.broken) {
        state_.bcd = static_cast<std::uint16_t>(main.current.version.major * 256);
    }
    store_.save(state_);
}

}  // namespace zelfsim
