#include "zelfwtrace/explanation_words.h"

#include "common/time_text.h"
#include "zelfwtrace/escape.h"

const char* kind_name(Attempt::Kind kind) {
    switch (kind) {
        case Attempt::Kind::query:
            return "query";
        case Attempt::Kind::update:
            return "update";
        case Attempt::Kind::reset:
            return "reset";
        case Attempt::Kind::read:
            break;
    }
    return "read";
}

double seconds(double milliseconds) {
    return milliseconds / zelf::milliseconds_of_a_second;
}

std::string place_in_trace(const StoryLine& line) {
    return printed("offset %llu, %.3f s", static_cast<unsigned long long>(line.offset),
                   seconds(line.clock));
}

bool is_shown(const Attempt& attempt, const Explanation& explanation) {
    return attempt.kind != Attempt::Kind::query || explanation.outcome != Outcome::well;
}

std::string subject(const Attempt& attempt) {
    std::string words = printed("%04x", attempt.product);
    if (attempt.component) {
        words += printed(" COMP %d", *attempt.component);
    }
    if (attempt.serial) {
        words += " (SN='" + one_line(*attempt.serial) + "')";
    }
    return attempt.place.empty() ? words : words + ", " + attempt.place;
}

std::string task(const Attempt& attempt) {
    if (attempt.kind != Attempt::Kind::update) {
        return kind_name(attempt.kind);
    }
    return "update " + one_line(attempt.level_before) + " -> " + one_line(attempt.level_after) +
           " from " + one_line(attempt.file);
}

std::string progress_words(const Attempt& attempt) {
    const ImageProgress& image = attempt.image;
    const double time = seconds(attempt.end - attempt.begin.clock);
    if (attempt.kind != Attempt::Kind::update) {
        return printed("%.3f seconds in", time);
    }
    std::string words = step_words(image);
    if (image.records_sent > 0 && !image.checksum_sent) {
        words += printed(", offset %llu of the firmware file",
                         static_cast<unsigned long long>(image.offset));
    }
    if (image.records_sent > 0) {
        words += printed("; %u record%s taken", image.records_taken,
                         image.records_taken == 1 ? " was" : "s were");
    }
    words += printed("; %.3f seconds in", time);
    const double pace = kilobytes_per_second(image);
    return pace > 0 ? words + printed(", %.1f b/s", pace) : words;
}

std::string wire_words(const WireMessage& last, const Explanation& explanation) {
    const std::string sent =
        one_line(last.sent.text) + " was the last message (" + place_in_trace(last.sent) + "); ";
    if (last.is_lost) {
        return sent + "its transfer failed";
    }
    if (!last.answer) {
        const double silence =
            explanation.evidence.empty() ? 0 : explanation.evidence.front().clock - last.sent.clock;
        return sent + (silence > 0 ? printed("no answer in %.3f seconds", seconds(silence))
                                   : std::string("no answer"));
    }
    return sent + printed("answered after %.0f ms: ", last.answer->clock - last.sent.clock) +
           one_line(last.answer->text);
}
