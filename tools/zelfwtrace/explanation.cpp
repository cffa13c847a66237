#include "zelfwtrace/explanation.h"

#include "common/pattern.h"
#include "zelfwtrace/escape.h"

#include <algorithm>

namespace {

constexpr std::size_t most_consequences = 8;

bool is_named(const Finding& finding, const char* name) {
    return finding.cause == cause_named(name);
}

/// After its restart a device is not connected: that is no failure.
bool is_expected(const Finding& finding) {
    return finding.is_after_reset && is_named(finding, "device-gone");
}

/// Texts that say only that something else was lost.
bool is_a_doubt(const Finding& finding) {
    return is_named(finding, "answer-lost") || is_named(finding, "answer-surplus");
}

/// The log goes on to tell how it met the failure; a code of the transfer says more than a code of
/// the exchange, and the first one says what all others follow from.
const Finding* first_cause(const Attempt& attempt, bool is_overcome) {
    const Finding* doubt = nullptr;
    for (const Finding& finding : attempt.findings) {
        if (is_expected(finding) || finding.is_overcome != is_overcome) {
            continue;
        }
        if (!is_a_doubt(finding)) {
            return &finding;
        }
        doubt = &finding;
    }
    return doubt;
}

const Finding* doubt_of(const Attempt& attempt) {
    const auto found = std::find_if(attempt.findings.begin(), attempt.findings.end(), is_a_doubt);
    return found == attempt.findings.end() ? nullptr : &*found;
}

void set_cause(Explanation& explanation, Outcome outcome, const Cause* cause) {
    explanation.outcome = outcome;
    explanation.cause = cause;
    explanation.remedy = cause->remedy;
}

void take_finding(Explanation& explanation, const Attempt& attempt, const Finding& first) {
    explanation.evidence.push_back(first.line);
    for (const Finding& finding : attempt.findings) {
        if (finding.line.offset > first.line.offset &&
            explanation.consequences.size() < most_consequences) {
            explanation.consequences.push_back(finding.line);
        }
    }
}

std::string state_without_erase(const ImageProgress& image, const Explanation& explanation) {
    if (!image.erase_sent) {
        return "Nothing was sent of the image: the component is as it was.";
    }
    const bool is_silent =
        explanation.cause == cause_named("no-answer") || explanation.outcome == Outcome::unfinished;
    return is_silent ? "It is not known whether the component was erased: it is as it was, or "
                       "empty and waiting for an image."
                     : "The device did not confirm the erase: the component most likely is as it "
                       "was.";
}

std::string state_of_image(const Attempt& attempt, const Explanation& explanation) {
    const ImageProgress& image = attempt.image;
    if (image.is_complete) {
        return attempt.reset_sent ? "The new image is in the device, which runs it once it has "
                                    "restarted."
                                  : "The new image is in the device.";
    }
    if (!image.is_erased) {
        return state_without_erase(image, explanation);
    }
    if (image.checksum_sent) {
        const bool is_refused = explanation.cause == cause_named("rejected") ||
                                explanation.cause == cause_named("operation-error");
        return is_refused ? "The device refused the image: the component has none that is whole, "
                            "and waits for one."
                          : "It is not known whether the device took the image; -L shows its "
                            "level.";
    }
    return image.records_taken == 0
               ? "The component is erased and has no image; the device waits for one."
               : "The component's image is incomplete; the device keeps its flash interface and "
                 "waits for a whole image.";
}

std::string state_of(const Attempt& attempt, const Explanation& explanation) {
    switch (attempt.kind) {
        case Attempt::Kind::update:
            return state_of_image(attempt, explanation);
        case Attempt::Kind::reset:
            return "It is not known whether the device restarted.";
        default:
            return "Nothing was changed in the device.";
    }
}

/// A main component that went in, told to restart: whether the device did so and came back.
const Cause* cause_after_reset(const Run& run, std::size_t index) {
    const Attempt& attempt = run.attempts[index];
    if (!attempt.reset_sent || (attempt.answered_after_reset && !attempt.gone_after_reset)) {
        return attempt.reset_sent ? cause_named("reset-ignored") : nullptr;
    }
    if (run.searches.size() < 2) {
        return nullptr;
    }
    const auto count = [&attempt](const std::map<unsigned int, int>& search) {
        const auto found = search.find(attempt.product);
        return found == search.end() ? 0 : found->second;
    };
    const int missing = count(run.searches.front()) - count(run.searches.back());
    const auto restarted =
        std::count_if(run.attempts.begin(), run.attempts.end(), [&attempt](const Attempt& other) {
            return other.reset_sent && other.product == attempt.product;
        });
    // With several devices of the product it is not known which one is missing.
    return missing > 0 && missing >= restarted ? cause_named("not-back") : nullptr;
}

Explanation explain_success(const Run& run, std::size_t index) {
    const Attempt& attempt = run.attempts[index];
    Explanation explanation;
    const Finding* const first = first_cause(attempt, false);
    const bool was_left_alone = first != nullptr && (is_named(*first, "device-not-opened") ||
                                                     is_named(*first, "no-reader"));
    if (was_left_alone) {
        set_cause(explanation, Outcome::not_sent, first->cause);
        take_finding(explanation, attempt, *first);
    } else if (first != nullptr && !is_a_doubt(*first)) {
        set_cause(explanation, Outcome::disturbed, first->cause);
        take_finding(explanation, attempt, *first);
    } else if (const Finding* doubt = doubt_of(attempt)) {
        const Finding* const origin = first_cause(attempt, true);
        const Finding& shown = origin != nullptr ? *origin : *doubt;
        set_cause(explanation, Outcome::disturbed, shown.cause);
        explanation.remedy = doubt->cause->remedy;
        take_finding(explanation, attempt, shown);
    } else if (const Finding* overcome = first_cause(attempt, true)) {
        set_cause(explanation, Outcome::disturbed, overcome->cause);
        explanation.remedy = "Nothing: the device went on with the same image.";
        take_finding(explanation, attempt, *overcome);
    } else if (const Cause* cause = cause_after_reset(run, index)) {
        set_cause(explanation, Outcome::disturbed, cause);
    }
    return explanation;
}

Explanation explain_failure(const Run& run, const Attempt& attempt) {
    Explanation explanation;
    const Finding* const first = first_cause(attempt, false);
    if (first != nullptr) {
        set_cause(explanation, Outcome::failed, first->cause);
        take_finding(explanation, attempt, *first);
        return explanation;
    }
    set_cause(explanation, Outcome::failed, cause_named("unknown"));
    explanation.evidence.assign(run.last_lines.begin(), run.last_lines.end());
    return explanation;
}

/// The finding about the run that says most: a signal or a crash before "No devices updated".
const Finding* finding_of(const Run& run) {
    const Finding* chosen = nullptr;
    for (const Finding& finding : run.findings) {
        const bool is_weak = is_named(finding, "nothing-updated");
        if (is_named(finding, "version-mismatch")) {
            continue;
        }
        if (chosen == nullptr || (is_named(*chosen, "nothing-updated") && !is_weak)) {
            chosen = &finding;
        }
    }
    return chosen;
}

Explanation explain_unfinished(const Run& run, const Attempt& attempt) {
    Explanation explanation;
    const Finding* const of_run = finding_of(run);
    set_cause(explanation, Outcome::unfinished,
              of_run != nullptr ? of_run->cause : cause_named("cut-off"));
    if (of_run != nullptr) {
        explanation.evidence.push_back(of_run->line);
    } else if (!run.last_lines.empty()) {
        explanation.evidence.push_back(run.last_lines.back());
    }
    explanation.state = state_of(attempt, explanation);
    return explanation;
}

/// The products that -d names.
std::vector<unsigned int> selected_products(const std::string& command) {
    std::vector<unsigned int> products;
    static const zelf::Pattern option(R"((?:^| )-d ?([0-9A-Fa-f]{1,4})(?: |$))");
    for (const zelf::Match& words : option.find_all(command)) {
        products.push_back(static_cast<unsigned int>(std::stoul(words[1], nullptr, 16)));
    }
    return products;
}

bool was_found(const Run& run, unsigned int product) {
    return std::any_of(run.searches.begin(), run.searches.end(),
                       [product](const auto& search) { return search.count(product) != 0; });
}

Outcome worst_attempt(const Run& run) {
    Outcome worst = Outcome::well;
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        worst = std::max(worst, explain_attempt(run, i).outcome);
    }
    return worst;
}

void explain_nothing_updated(const Run& run, const Finding& finding, Explanation& explanation) {
    if (explanation.outcome != Outcome::well) {
        return;
    }
    const auto mismatch =
        std::find_if(run.findings.begin(), run.findings.end(),
                     [](const Finding& one) { return is_named(one, "version-mismatch"); });
    if (mismatch != run.findings.end()) {
        set_cause(explanation, Outcome::failed, mismatch->cause);
        explanation.evidence.push_back(mismatch->line);
        return;
    }
    const std::vector<unsigned int> products = selected_products(run.command);
    const bool is_missing =
        std::any_of(products.begin(), products.end(),
                    [&run](unsigned int product) { return !was_found(run, product); });
    if (is_missing) {
        set_cause(explanation, Outcome::failed, cause_named("device-not-found"));
        explanation.evidence.push_back(finding.line);
    } else if (run.not_due.empty()) {
        set_cause(explanation, Outcome::failed, finding.cause);
        explanation.evidence.push_back(finding.line);
    }
}

}  // namespace

const char* outcome_name(Outcome outcome) {
    switch (outcome) {
        case Outcome::well:
            return "well";
        case Outcome::disturbed:
            return "disturbed";
        case Outcome::not_sent:
            return "nothing sent";
        case Outcome::failed:
            return "failed";
        case Outcome::unfinished:
            break;
    }
    return "unfinished";
}

Explanation explain_attempt(const Run& run, std::size_t index) {
    const Attempt& attempt = run.attempts[index];
    const bool is_last = index + 1 == run.attempts.size();
    if (!run.is_over && is_last && !attempt.is_over) {
        return explain_unfinished(run, attempt);
    }
    Explanation explanation =
        attempt.code.value_or(0) == 0 ? explain_success(run, index) : explain_failure(run, attempt);
    if (explanation.cause != nullptr) {
        explanation.state = state_of(attempt, explanation);
    }
    return explanation;
}

Explanation explain_run(const Run& run) {
    Explanation explanation;
    explanation.outcome = worst_attempt(run);
    const Finding* const finding = finding_of(run);
    if (finding != nullptr && is_named(*finding, "nothing-updated")) {
        explain_nothing_updated(run, *finding, explanation);
    } else if (finding != nullptr) {
        set_cause(explanation, Outcome::failed, finding->cause);
        explanation.evidence.push_back(finding->line);
    } else if (!run.is_over && run.has_command) {
        set_cause(explanation, Outcome::unfinished, cause_named("cut-off"));
        explanation.evidence.assign(run.last_lines.begin(), run.last_lines.end());
    }
    return explanation;
}

std::string step_words(const ImageProgress& image) {
    if (image.is_complete) {
        return "the restart";
    }
    if (image.checksum_sent) {
        return "the checksum";
    }
    if (image.records_sent > 0) {
        return image.records ? printed("record %u of %u", image.records_sent, *image.records)
                             : printed("record %u", image.records_sent);
    }
    return image.erase_sent ? "the erase" : "before the erase";
}

double kilobytes_per_second(const ImageProgress& image) {
    const double milliseconds = image.last_clock - image.first_clock;
    return image.records_taken > 1 && milliseconds > 0
               ? static_cast<double>(image.offset) / milliseconds
               : 0;
}
