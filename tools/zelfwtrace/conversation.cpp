#include "zelfwtrace/conversation.h"

#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"

#include <algorithm>

namespace {

/// More processes than write to one file at a time; the one that was silent longest is forgotten.
constexpr std::size_t most_conversations = 64;
/// Images beyond these are shown without their number of records.
constexpr std::size_t most_images = 1U << 20U;

/// What the updater says between the erase of an image and its first record.
constexpr std::string_view announcement = "Erase completed, now sending ";
constexpr std::size_t most_announced_digits = 6;

std::optional<std::uint32_t> announced_records(std::string_view text) {
    if (!text.starts_with(announcement)) {
        return std::nullopt;
    }
    text.remove_prefix(announcement.size());
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > most_announced_digits) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::stoul(std::string(text.substr(0, digits))));
}

}  // namespace

std::string Meaning::title() const {
    std::string title = message;
    if (record) {
        title += " " + std::to_string(*record);
        if (records) {
            title += " of " + std::to_string(*records);
        }
    }
    return title;
}

Conversations::Conversation& Conversations::conversation_of(const TraceEntry& entry) {
    auto found =
        std::find_if(conversations_.begin(), conversations_.end(),
                     [&entry](const Conversation& one) { return one.process == entry.process; });
    if (found == conversations_.end()) {
        if (conversations_.size() < most_conversations) {
            found = conversations_.emplace(conversations_.end());
        } else {
            found = std::min_element(conversations_.begin(), conversations_.end(),
                                     [](const Conversation& left, const Conversation& right) {
                                         return left.last_use < right.last_use;
                                     });
        }
        *found = Conversation{};
        found->process = entry.process;
    }
    found->last_use = ++uses_;
    return *found;
}

void Conversations::begin_run(const TraceEntry& entry) {
    Conversation& conversation = conversation_of(entry);
    conversation = Conversation{};
    conversation.process = entry.process;
    conversation.last_use = uses_;
}

Meaning Conversations::follow(const TraceEntry& entry) {
    Meaning meaning;
    if (entry.kind == trace_kind::version) {
        begin_run(entry);
        meaning.message = "version";
        meaning.details = "a run begins";
        return meaning;
    }
    if (!entry.is_transfer()) {
        meaning.message = "text";
        follow_text(entry);
        return meaning;
    }
    Conversation& conversation = conversation_of(entry);
    if (entry.kind == trace_kind::report_written) {
        return follow_sent(conversation, entry);
    }
    if (entry.kind == trace_kind::status_read) {
        return follow_status(conversation, entry);
    }
    meaning.message = "data";
    meaning.details = data_words(entry.report(), conversation.query);
    return meaning;
}

void Conversations::follow_text(const TraceEntry& entry) {
    if (const auto records = announced_records(entry.payload)) {
        Conversation& conversation = conversation_of(entry);
        if (conversation.in_image && conversation.records == 0) {
            conversation.announced = records;
        }
    }
}

Meaning Conversations::follow_sent(Conversation& conversation, const TraceEntry& entry) {
    SentMessage message = read_sent_message(entry.report());
    // A device that is opened is asked for its information twice, as a probe and for the answer,
    // and then for its level. Everywhere else these bytes are the stop command.
    if (message.is(FlashCommand::stop) && conversation.device_information_queries > 1) {
        message.command = &command_row(FlashCommand::ec_level_query);
    }
    conversation.device_information_queries =
        message.is(FlashCommand::device_information_query)
            ? std::min(conversation.device_information_queries, 1) + 1
            : 0;
    conversation.query = message.command;
    Meaning meaning;
    meaning.message = message.name();
    meaning.details = message.details;
    meaning.component = message.component;
    follow_image(conversation, message, meaning);
    conversation.unanswered = meaning.message;
    conversation.unanswered_offset = entry.offset;
    conversation.unanswered_clock = entry.clock;
    return meaning;
}

void Conversations::follow_image(Conversation& conversation, const SentMessage& message,
                                 Meaning& meaning) {
    if (message.is(FlashCommand::erase)) {
        conversation.in_image = true;
        conversation.image = images_++;
        conversation.records = 0;
        conversation.announced.reset();
    } else if (message.kind == SentMessage::Kind::image_record) {
        if (conversation.in_image) {
            meaning.record = ++conversation.records;
            if (conversation.image < totals_.size() && totals_[conversation.image] != 0) {
                meaning.records = totals_[conversation.image];
            } else if (conversation.announced >= meaning.record) {
                meaning.records = conversation.announced;
            }
        }
    } else if (message.kind == SentMessage::Kind::checksum) {
        if (conversation.in_image && conversation.image < most_images) {
            counted_.resize(std::max(counted_.size(), conversation.image + 1));
            counted_[conversation.image] = conversation.records;
        }
        conversation.in_image = false;
    } else {
        conversation.in_image = false;
    }
}

Meaning Conversations::follow_status(Conversation& conversation, const TraceEntry& entry) {
    Meaning meaning;
    meaning.message = "status";
    meaning.details = status_words(entry.report());
    if (!conversation.unanswered.empty()) {
        meaning.answered = conversation.unanswered;
        meaning.answered_offset = conversation.unanswered_offset;
        // Stamps are taken before the record is written, and threads may overtake each other.
        meaning.answer_time =
            static_cast<std::uint32_t>(std::max(0.0, entry.clock - conversation.unanswered_clock));
        conversation.unanswered.clear();
    }
    return meaning;
}
