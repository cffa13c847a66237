#include "session/answer_count.h"

#include "journal/output.h"
#include "session/plural.h"

#include <algorithm>

void AnswerCount::start() {
    messages_ = 0;
    most_surplus_ = 0;
}

void AnswerCount::message_sent() {
    if (messages_ == 0) {
        // What came before the first message is nobody's answer.
        reports_before_ = reports_;
        failures_before_ = failures_;
    }
    most_surplus_ = std::max(most_surplus_, surplus());
    ++messages_;
}

void AnswerCount::tell_doubts() const {
    const int unread = failures_ - failures_before_;
    if (unread > 0) {
        writelog(0, "The result is uncertain: %d status report%s could not be read\n", unread,
                 plural(unread));
    }
    const int unasked = std::max(most_surplus_, surplus());
    if (unasked > 0) {
        writelog(0, "The result is uncertain: %d status report%s more than messages sent\n",
                 unasked, plural(unasked));
    }
}
