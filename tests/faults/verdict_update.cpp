// The verdict over an update with a fault.
#include "journal.h"
#include "verdict_parts.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr int result_forced = 10;
constexpr int result_not_attempted = 11;
constexpr int result_no_file = 8;
constexpr int result_level_matches = 4;

int product_of(const Target& target) {
    return static_cast<int>(target.file.product);
}

std::string name_of(const Target& target) {
    return std::string(target.device) + " component " + std::to_string(target.file.component);
}

/// The device's opening in which the target is updated, when nothing goes wrong.
int update_opening(const Target& target) {
    return target.file.component == 0 ? opening::first_update : opening::second_update;
}

class UpdateVerdict {
  public:
    explicit UpdateVerdict(const Evidence& evidence)
        : evidence_(evidence), journal_(read_journal(evidence.run.log)) {}

    Violations judge() {
        for (const Target& target : targets()) {
            judge_target(target);
        }
        judge_exit_code();
        judge_marker();
        judge_results();
        if (std::string_view(evidence_.injection.kind->name) == "late" &&
            evidence_.run.end.exit_code != exit_ok) {
            add("an answer within the time-out made the update fail");
        }
        return found_;
    }

  private:
    void add(const std::string& violation) { found_.push_back(violation); }

    bool is_kind(std::string_view name) const { return evidence_.injection.kind->name == name; }

    void judge_target(const Target& target) {
        const Claim* claim = journal_.find(product_of(target), target.file.component);
        if (claim == nullptr) {
            judge_unclaimed(target);
        } else if (claim->rc == 0) {
            judge_success(target);
        } else {
            judge_failure(target, *claim);
        }
        if (!has_sent_image(evidence_.run.record, target) &&
            (evidence_.place.has_image(target.device, target.file.component) ||
             evidence_.place.is_broken(target))) {
            add(name_of(target) + " changed though nothing was sent to it");
        }
    }

    /// A target of which the log says nothing: it was not due, or its device was not there.
    void judge_unclaimed(const Target& target) {
        if (has_sent_image(evidence_.run.record, target)) {
            add(name_of(target) + " was sent an image, and the log does not say how it ended");
        }
        if (is_pass_run(target.file.component) && !may_be_missing(target)) {
            add(name_of(target) + " was left out");
        }
    }

    /// Whether the fault can be the reason that the device was not seen, or seen otherwise.
    bool may_be_missing(const Target& target) const {
        if (!evidence_.is_struck(target.device)) {
            return false;
        }
        const int at = evidence_.strike.opening;
        const int update = update_opening(target);
        const bool in_discovery = at == update - 1 || at == update - 2;
        return in_discovery || (at < update && has_lasting_effect());
    }

    /// A device that stays away, or whose answer is still to come when the next session begins.
    bool has_lasting_effect() const {
        return evidence_.strike.leaves_device_gone || is_kind("too-late");
    }

    /// The second pass is skipped after a failure in the first.
    bool is_pass_run(int component) const {
        return component == 0 || evidence_.injection.goes_on ||
               std::none_of(journal_.claims.begin(), journal_.claims.end(), [](const Claim& claim) {
                   return claim.component == 0 && claim.rc != 0;
               });
    }

    void judge_success(const Target& target) {
        if (evidence_.place.holds_image(target)) {
            return;
        }
        if (!evidence_.is_struck(target.device)) {
            add(name_of(target) + " counts as updated and is not");
        } else if (!was_left_alone(target) && !was_lied_about(target)) {
            add(name_of(target) + " counts as updated and is not, after the fault");
        }
    }

    /// A device that can't be opened for its update is left alone and counts as a success.
    bool was_left_alone(const Target& target) const {
        int sent = 0;
        for (const Target& other : targets()) {
            sent += std::string_view(other.device) == target.device &&
                            has_sent_image(evidence_.run.record, other)
                        ? 1
                        : 0;
        }
        return !has_sent_image(evidence_.run.record, target) &&
               count_erases(evidence_.run.record, target.device) == sent;
    }

    /// The device did not take the checksum and answered as if it had: nobody can know.
    bool was_lied_about(const Target& target) const {
        return is_kind("plausible-garbage") && evidence_.injection.event == "command" &&
               struck_checksum(evidence_.run.record, evidence_.strike, target);
    }

    void judge_failure(const Target& target, const Claim& claim) {
        if (!evidence_.is_struck(target.device)) {
            add(name_of(target) + " failed without a fault");
            return;
        }
        if (evidence_.strike.opening > update_opening(target) && !has_lasting_effect()) {
            add(name_of(target) + " failed before the fault");
        }
        if (evidence_.place.holds_image(target) && struck_before_checksum(target) &&
            !struck_checksum(evidence_.run.record, evidence_.strike, target)) {
            add(name_of(target) + " counts as failed, and holds its file's bytes");
        }
        if (!claim.has_reason) {
            add("the log has no reason for the failure of " + name_of(target));
        }
    }

    /// A report that was read just before may be handed over when the checksum has been sent.
    bool struck_before_checksum(const Target& target) const {
        constexpr double longest_hand_over = 45;  // milliseconds
        const auto lines = evidence_.run.record.all();
        const std::size_t checksum = find_checksum(evidence_.run.record, target);
        if (checksum == lines.size() || !evidence_.injection.belongs_to(Family::unasked)) {
            return evidence_.strike.at < checksum;
        }
        return lines[evidence_.strike.at].time + longest_hand_over < lines[checksum].time;
    }

    /// The passes' arithmetic: without `-a` a failure sets the result to minus its code, and later
    /// successes of the pass add 1 each.
    void judge_exit_code() {
        int updated = 0;
        int result = 0;
        for (const bool main_components : {true, false}) {
            if (result < 0) {
                break;
            }
            result = 0;
            for (const Claim& claim : journal_.claims) {
                if ((claim.component == 0) != main_components) {
                    continue;
                }
                result = claim.rc == 0 || evidence_.injection.goes_on
                             ? result + (claim.rc == 0 ? 1 : 0)
                             : -claim.rc;
            }
            updated += std::max(result, 0);
        }
        int expected = updated > 0 ? exit_ok : exit_nothing_updated;
        expected = journal_.says_no_devices ? exit_no_devices : expected;
        if (evidence_.run.end.exit_code != expected) {
            add("exit code " + std::to_string(evidence_.run.end.exit_code) + " and not " +
                std::to_string(expected));
        }
        if (journal_.updated.value_or(0) != updated) {
            add("the log counts other updates than it tells of");
        }
        if (journal_.error.value_or(0) != std::min(result, 0)) {
            add("the log's error is not that of the pass");
        }
        if (journal_.says_no_devices) {
            add("no device was found, though only one was struck");
        }
    }

    void judge_marker() {
        for (const Target& target : targets()) {
            if (!target.is_forced) {
                continue;
            }
            const Claim* claim = journal_.find(product_of(target), target.file.component);
            const bool was_forced = claim != nullptr && claim->is_forced && claim->rc == 0;
            if (was_forced == evidence_.place.has_marker()) {
                add(was_forced ? "the marker is still there after its update"
                               : "the marker is gone without its update");
            }
        }
    }

    void judge_results() {
        const Results results = read_results(evidence_.run.results);
        int last = 0;
        for (const ResultRow& row : results.rows) {
            judge_row(row);
            last = result_code(row.text);
        }
        const int expected = last == result_forced ? 0 : last;
        if (results.overall != expected) {
            add("the result file's code is " + std::to_string(results.overall) + " and not " +
                std::to_string(expected));
        }
        for (const Target& target : targets()) {
            const bool has_row = std::any_of(
                results.rows.begin(), results.rows.end(),
                [&](const ResultRow& row) { return row.product == product_of(target); });
            if (!has_row && !evidence_.is_struck(target.device)) {
                add("the result file has no row for the " + std::string(target.device));
            }
        }
    }

    void judge_row(const ResultRow& row) {
        // A rebuilt table knows the second pass only.
        const Claim* last = nullptr;
        for (const Claim& claim : journal_.claims) {
            const bool counts = !journal_.is_table_rebuilt || claim.component != 0;
            last = counts && claim.product == row.product ? &claim : last;
        }
        const std::string device = device_of(row.product);
        if (device.empty() || device == bystander) {
            add("the result file has a row for another device");
            return;
        }
        const int code = result_code(row.text);
        if (last == nullptr) {
            if (code != result_not_attempted && code != result_no_file &&
                code != result_level_matches) {
                add("the result file says \"" + row.text + "\" of the " + device +
                    ", which was not updated");
            }
            return;
        }
        const int expected = last->rc == 0 && last->is_forced ? result_forced : last->rc;
        // Behind the last one with a file there may be components that only a false answer names.
        const bool is_other_component = code == result_no_file && evidence_.is_struck(device) &&
                                        evidence_.injection.family() == "garbage answer";
        if (code != expected && !is_other_component) {
            add("the result file says \"" + row.text + "\" of the " + device +
                ", the log rc=" + std::to_string(last->rc));
        }
    }

    const Evidence& evidence_;
    Journal journal_;
    Violations found_;
};

}  // namespace

Violations judge_update(const Evidence& evidence) {
    return UpdateVerdict(evidence).judge();
}
