#include "twin/device_faults.h"

#include "flash_protocol.h"
#include "twin/device_model.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::size_t most_faults = 500;
constexpr int device_gone = -4;
constexpr int not_claimed = -2;
/// Milliseconds that the updater gives a device to answer the stop command.
constexpr double patience_at_close = 900;
constexpr double half_stamp = 0.5;  ///< of a clock that tells whole milliseconds

// Codes of the USB library.
FaultAction action_of(int rc) {
    switch (rc) {
        case device_gone:
            return FaultAction::unplug;
        case -7:
            return FaultAction::timeout;
        case -9:
            return FaultAction::stall;
        case -8:
            return FaultAction::overflow;
        case 0:
            return FaultAction::empty;
        default:
            return FaultAction::io_error;
    }
}

Bytes without_padding(Bytes bytes) {
    while (bytes.size() > 1 && bytes.back() == 0) {
        bytes.pop_back();
    }
    return bytes;
}

/// Whether both say the same where both were kept; what is missing counts as 0.
bool is_same(ByteView expected, ByteView told) {
    for (std::size_t i = 0; i < std::max(expected.size(), told.size()); ++i) {
        const int left = i < expected.size() ? expected[i] : 0;
        const int right = i < told.size() ? told[i] : 0;
        if (i < told.size() && left != right) {
            return false;
        }
    }
    return true;
}

Duration milliseconds(double time) {
    return Duration(std::llround(std::clamp(time, 0.5, 600000.0) * 1000));
}

class FaultFinder {
  public:
    FaultFinder(const DeviceDescription& device, const ToldDevice& told)
        : device_(device), told_(told), model_(device) {}

    std::vector<FaultGuess> run() {
        for (std::size_t i = 0; i < told_.steps.size() && faults_.size() < most_faults; ++i) {
            take_sightings(i);
            take_step(i);
        }
        take_sightings(told_.steps.size());
        drop_repeated();
        return std::move(faults_);
    }

  private:
    void add(FaultEvent at, FaultAction action, unsigned number, double clock,
             const std::string& remark) {
        FaultGuess guess;
        guess.rule.at = at;
        guess.rule.action = action;
        guess.rule.number = number;
        guess.clock = clock;
        guess.remark = remark;
        faults_.push_back(std::move(guess));
    }

    /// One transfer is hit once by a kind of fault: of a device that left twice behind the same
    /// command, the first time counts.
    void drop_repeated() {
        std::set<std::string> keys;
        std::erase_if(faults_, [&](const FaultGuess& guess) {
            return !keys.insert(guess.rule.key()).second;
        });
    }

    /// A fault of the present step's command.
    void add_command(const Step& step, FaultAction action, const std::string& remark) {
        const bool first = event_ != FaultEvent::record || number_ > longest_image_;
        add(first ? event_ : FaultEvent::command, action, first ? number_ : commands_, step.clock,
            remark);
    }

    void take_sightings(std::size_t step) {
        for (; sighted_ < told_.sightings.size() && told_.sightings[sighted_].step <= step;
             ++sighted_) {
            const Sighting& sighting = told_.sightings[sighted_];
            const bool was_away = away_;
            switch (sighting.kind) {
                case Sighting::Kind::missing:
                    take_absence(sighting, step);
                    break;
                case Sighting::Kind::listed:
                    come_back(sighting);
                    opens_ += 2;
                    count_claims();
                    break;
                case Sighting::Kind::opened:
                    ++opens_;
                    count_claims();
                    break;
                case Sighting::Kind::refused:
                    if (!was_away) {
                        add(FaultEvent::open, FaultAction::refuse, ++opens_, sighting.clock,
                            "it could not be opened");
                    }
                    break;
            }
        }
    }

    /// The kernel's driver makes the first claim fail; it is back when the device comes back.
    void count_claims() {
        claims_before_ = claims_;
        claims_ += std::exchange(has_driver_, false) ? 2 : 1;
    }

    void take_absence(const Sighting& sighting, std::size_t step) {
        if (away_) {
            return;
        }
        if (commands_ == 0) {
            add(FaultEvent::open, FaultAction::refuse, ++opens_, sighting.clock,
                step == 0 ? "it was not found at first" : "it was not found again");
            return;
        }
        const double since = told_.steps[step - 1].clock;
        leave(false, since + std::min(10.0, (sighting.clock - since) / 2));
        add(FaultEvent::command, FaultAction::unplug, commands_, since, "it was not found again");
        faults_.back().rule.delay = milliseconds(left_at_ - since);
        unplug_ = faults_.size() - 1;
    }

    void leave(bool for_reset, double clock) {
        away_ = true;
        away_for_reset_ = for_reset;
        left_at_ = clock;
        model_.restart();
        halted_ = false;
        has_driver_ = true;
    }

    void come_back(const Sighting& sighting) {
        if (away_ && !away_for_reset_ && unplug_ < faults_.size()) {
            faults_[unplug_].rule.replug =
                milliseconds(std::max(1.0, (sighting.clock - left_at_) / 2));
        }
        away_ = false;
    }

    void unplug(const Step& step, double clock, double delay, const std::string& remark) {
        add_command(step, FaultAction::unplug, remark);
        if (delay > 0) {
            faults_.back().rule.delay = milliseconds(delay);
        }
        unplug_ = faults_.size() - 1;
        leave(false, clock);
    }

    void count_command(const Step& step) {
        ++commands_;
        event_ = command_event(step.kind, model_.stoppable());
        if (event_ == FaultEvent::command) {
            number_ = commands_;  // one that the device does not know counts as any
        } else if (event_ == FaultEvent::record) {
            number_ = ++records_;
        } else {
            number_ = ++counts_[event_];
        }
    }

    /// Records are counted anew from each erasing that the device carries out.
    void restart_records() {
        longest_image_ = std::max(longest_image_, records_);
        records_ = 0;
    }

    void take_step(std::size_t index) {
        const Step& step = told_.steps[index];
        if (step.write_rc == not_claimed) {
            if (!away_ && !told_unclaimed_) {
                told_unclaimed_ = true;
                add(FaultEvent::claim, FaultAction::busy, claims_before_ + 1, step.clock,
                    "its interface could not be claimed");
                faults_.back().rule.always = true;
            }
            return;
        }
        if (away_ && step.write_rc == device_gone) {
            return;
        }
        away_ = false;
        count_command(step);
        if (step.write_rc && !(step.kind == CommandKind::reset && step.write_rc == device_gone)) {
            const FaultAction action = action_of(*step.write_rc);
            const std::string remark =
                "the message was not taken, rc=" + std::to_string(*step.write_rc);
            if (action == FaultAction::unplug) {
                unplug(step, step.clock, 0, remark);
            } else {
                add_command(step, action, remark);
                take_failures(step);
            }
            return;
        }
        if (step.kind == CommandKind::reset) {
            take_reset(index);
            return;
        }
        take_answer(index);
        take_data(step, index);
    }

    const Step* next_of(std::size_t index) const {
        return index + 1 < told_.steps.size() ? &told_.steps[index + 1] : nullptr;
    }

    void take_reset(std::size_t index) {
        const Step& step = told_.steps[index];
        const Step* next = next_of(index);
        const bool stays = next != nullptr && !next->write_rc && next->closes &&
                           (!step.reports.empty() || step.failures.empty());
        if (!stays) {
            if (step.write_rc == device_gone && !device_.flash->reset_fails) {
                unplug(step, step.clock, 0, "it was gone at the reset");
            } else {
                leave(true, step.clock);
            }
        } else if (!step.reports.empty()) {
            ++interrupts_;
            add_status(step, step.reports.front().bytes);
        } else {
            add_command(step, FaultAction::no_answer, "it did not restart");
        }
    }

    void add_status(const Step& step, const Bytes& told) {
        const Bytes bytes = without_padding(told);
        if (bytes == Bytes{status_flag::reject}) {
            add_command(step, FaultAction::reject, "it rejected the command");
        } else if (bytes == Bytes{status_flag::operation_error}) {
            add_command(step, FaultAction::operation_error, "it reported an operation error");
        } else {
            add_command(step, FaultAction::answer, "its status was another one");
            faults_.back().rule.bytes = bytes;
        }
    }

    /// A failed read that is no consequence of an earlier one.
    std::optional<ToldFailure> fresh_failure(const Step& step) const {
        for (const ToldFailure& failure : step.failures) {
            if (!(halted_ && failure.rc == -9)) {
                return failure;
            }
        }
        return std::nullopt;
    }

    /// How many milliseconds after the message it went. Both stamps are whole ones, so that it may
    /// have been one earlier: data that could not be fetched any more must not be in the twin.
    static double gone_after(const Step& step, const ToldFailure& failure) {
        const double told = failure.clock - step.clock;
        const bool lost_data = std::any_of(step.data.begin(), step.data.end(),
                                           [](const ToldData& data) { return !data.bytes; });
        if (!lost_data) {
            return std::max(half_stamp, told);
        }
        const double heard = step.reports.empty() ? 0 : step.reports.back().clock - step.clock;
        return std::max(heard + half_stamp, told - 3 * half_stamp);
    }

    void take_failures(const Step& step) {
        const auto failure = fresh_failure(step);
        if (failure && failure->rc == device_gone) {
            unplug(step, failure->clock, gone_after(step, *failure),
                   "it was gone while its status was read");
        }
    }

    void take_carried_out(const Step& step) {
        if (step.kind == CommandKind::erase) {
            restart_records();
        }
    }

    void take_answer(std::size_t index) {
        const Step& step = told_.steps[index];
        const std::size_t late = late_answers_ > 0 && step.reports.size() > 1 ? late_answers_ : 0;
        const std::size_t own = std::min(late, step.reports.size());
        late_answers_ -= own;
        interrupts_ += static_cast<unsigned>(own);
        if (step.reports.size() == own) {
            take_silence(index);
            return;
        }
        const ToldReport& report = step.reports[own];
        const CommandResult result = model_.take(step.message);
        const Bytes expected =
            result.status ? Bytes(result.status->begin(), result.status->end()) : Bytes{};
        ++interrupts_;
        if (is_same(expected, report.bytes)) {
            take_carried_out(step);
            take_delay(step, report);
        } else {
            take_wrong_status(index, report);
        }
        interrupts_ += static_cast<unsigned>(step.reports.size() - own - 1);
        take_late_failures(step);
    }

    /// What happened after the status was there.
    void take_late_failures(const Step& step) {
        const auto failure = fresh_failure(step);
        if (!failure) {
            return;
        }
        if (failure->rc == device_gone) {
            take_failures(step);
        } else if (step.reports.size() > 1) {
            add_interrupt(*failure);
        }
    }

    void add_interrupt(const ToldFailure& failure) {
        add(FaultEvent::interrupt, action_of(failure.rc), ++interrupts_, failure.clock,
            "its status could not be read, rc=" + std::to_string(failure.rc));
        halted_ = halted_ || failure.rc == -9;
    }

    void take_wrong_status(std::size_t index, const ToldReport& report) {
        const Step& step = told_.steps[index];
        const bool changes = step.kind == CommandKind::erase || step.kind == CommandKind::record ||
                             step.kind == CommandKind::checksum;
        const bool bad = report.bytes.empty() || is_bad_status(report.bytes[0]);
        if (changes && !bad && was_carried_out(index)) {
            take_carried_out(step);
            add(FaultEvent::interrupt, FaultAction::answer, interrupts_, report.clock,
                "its status was another one");
            faults_.back().rule.bytes = without_padding(report.bytes);
            return;
        }
        model_.forget_last();
        add_status(step, report.bytes);
    }

    /// Whether the next message of the image was taken.
    bool was_carried_out(std::size_t index) const {
        const Step* next = next_of(index);
        if (next == nullptr || next->reports.empty() ||
            (next->kind != CommandKind::record && next->kind != CommandKind::checksum)) {
            return true;
        }
        return next->reports.front().bytes.empty() ||
               !is_bad_status(next->reports.front().bytes[0]);
    }

    void take_delay(const Step& step, const ToldReport& report) {
        const Timing& timing = device_.timing;
        const Duration usual = step.kind == CommandKind::erase      ? timing.erase
                               : step.kind == CommandKind::record   ? timing.record
                               : step.kind == CommandKind::checksum ? timing.checksum
                                                                    : timing.query;
        const double expected = static_cast<double>(usual.count()) / 1000;
        const double waited = report.clock - step.clock;
        const bool waits_for_reader = step.kind == CommandKind::device_info;
        if (waited > 3 * expected + (waits_for_reader ? 150 : 40)) {
            add_command(step, FaultAction::late, "its status came late");
            faults_.back().rule.delay = milliseconds(waited - expected);
        }
    }

    /// No status came before the next message.
    void take_silence(std::size_t index) {
        const Step& step = told_.steps[index];
        const Step* next = next_of(index);
        const auto failure = fresh_failure(step);
        // The end of the host's own patience ends its read in the same way.
        if (failure && failure->rc == device_gone && step.closes &&
            failure->clock - step.clock >= patience_at_close) {
            add_command(step, FaultAction::no_answer, "no status came");
            return;
        }
        if (failure && failure->rc == device_gone) {
            model_.take(step.message);
            take_carried_out(step);
            take_failures(step);
            return;
        }
        if (failure) {
            model_.take(step.message);
            take_carried_out(step);
            add_interrupt(*failure);
            return;
        }
        if (halted_) {
            model_.take(step.message);
            take_carried_out(step);
            return;
        }
        if (next != nullptr && next->reports.size() > 1 + late_answers_) {
            model_.take(step.message);
            take_carried_out(step);
            ++late_answers_;
            add_command(step, FaultAction::late, "its status came after the next message");
            const double usual = static_cast<double>(device_.timing.query.count()) / 1000;
            faults_.back().rule.delay =
                milliseconds(next->reports.front().clock - step.clock - usual);
            return;
        }
        // A reader that has just failed leaves without the answer to the stop command.
        if (step.closes && index > 0 && !told_.steps[index - 1].failures.empty()) {
            model_.take(step.message);
            return;
        }
        add_command(step, FaultAction::no_answer, "no status came");
    }

    void take_data(const Step& step, std::size_t index) {
        for (std::size_t i = 0; i < step.data.size(); ++i) {
            const ToldData& data = step.data[i];
            ++features_;
            if (!data.bytes) {
                take_failed_data(step, index, data);
            } else if (step.kind != CommandKind::read_records && !away_) {
                const Bytes expected = model_.data();
                if (!is_same(expected, *data.bytes)) {
                    add(FaultEvent::get_feature, FaultAction::answer, features_, step.clock,
                        "its data were others");
                    faults_.back().rule.bytes = without_padding(*data.bytes);
                }
            }
        }
    }

    void take_failed_data(const Step& step, std::size_t index, const ToldData& data) {
        if (data.usage != device_.flash->feature_usage || away_) {
            return;
        }
        const Step* next = next_of(index);
        const bool gone =
            data.rc == device_gone || (next != nullptr && next->write_rc == device_gone);
        add(FaultEvent::get_feature,
            gone           ? FaultAction::unplug
            : data.rc == 0 ? FaultAction::stall
                           : action_of(data.rc),
            features_, step.clock, "its data could not be fetched");
        if (gone) {
            unplug_ = faults_.size() - 1;
            leave(false, step.clock);
        }
    }

    const DeviceDescription& device_;
    const ToldDevice& told_;
    DeviceModel model_;
    std::vector<FaultGuess> faults_;
    std::map<FaultEvent, unsigned> counts_;
    FaultEvent event_ = FaultEvent::command;
    unsigned number_ = 0;
    unsigned commands_ = 0, records_ = 0, longest_image_ = 0, interrupts_ = 0, features_ = 0,
             opens_ = 0;
    std::size_t sighted_ = 0;
    std::size_t unplug_ = 0;
    std::size_t late_answers_ = 0;
    bool away_ = false, away_for_reset_ = false, halted_ = false, told_unclaimed_ = false;
    unsigned claims_ = 0, claims_before_ = 0;
    bool has_driver_ = true;
    double left_at_ = 0;
};

}  // namespace

std::vector<FaultGuess> find_faults(const DeviceDescription& device, const ToldDevice& told) {
    return FaultFinder(device, told).run();
}

}  // namespace zelfsim
