/// \file
/// Whether each message of an image had an answer of its own. The hand-over between reader and main
/// thread can't tell: a read that fails hands over the report before it, and a report too many is
/// taken for the answer to the next message.
#pragma once

#include <atomic>

/// Counts over one image. The reader notes what it takes, the main thread all else.
class AnswerCount {
  public:
    /// Before the first message of an image.
    void start();
    /// Before each message that is to be answered.
    void message_sent();
    /// Before the report is handed over.
    void report_taken() { ++reports_; }
    void read_failed() { ++failures_; }
    /// Logs why the result of an image that counts as sent is uncertain; nothing when it is not.
    void tell_doubts() const;

  private:
    int surplus() const { return reports_ - reports_before_ - messages_; }

    std::atomic<int> reports_ = 0;
    std::atomic<int> failures_ = 0;
    int reports_before_ = 0;
    int failures_before_ = 0;
    int messages_ = 0;
    int most_surplus_ = 0;
};
