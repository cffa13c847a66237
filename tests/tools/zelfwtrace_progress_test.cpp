// What zelfwtrace show --follow shows on a terminal while an image is sent.
#include "support/child_process.h"
#include "trace_bytes.h"
#include "trace_tool.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char rejected[] = "80 00 00 00 00 00 00 00";

/// A program on a terminal.
class OnATerminal {
  public:
    OnATerminal(const std::vector<std::string>& words, unsigned short columns)
        : terminal_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
        const winsize size = {.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
        EXPECT_TRUE(terminal_ >= 0 && grantpt(terminal_) == 0 && unlockpt(terminal_) == 0 &&
                    ioctl(terminal_, TIOCSWINSZ, &size) == 0);
        const std::string name = ptsname(terminal_);
        child_ = std::make_unique<ChildProcess>([&] {
            const int end = open(name.c_str(), O_RDWR | O_NOCTTY);
            dup2(end, STDOUT_FILENO);
            std::vector<std::string> arguments = words;
            execv(arguments[0].c_str(), pointers_to(arguments).data());
            return 1;
        });
    }
    ~OnATerminal() {
        child_->send_signal(SIGTERM);
        child_.reset();
        close(terminal_);
    }
    OnATerminal(const OnATerminal&) = delete;
    OnATerminal& operator=(const OnATerminal&) = delete;

    /// What was written since the last call, up to the first time that it ends with `text`.
    std::string until(const std::string& text) {
        const bool came = child_->wait_until([&] {
            char bytes[4096];
            for (ssize_t got = 0; (got = read(terminal_, bytes, sizeof bytes)) > 0;) {
                written_.append(bytes, static_cast<std::size_t>(got));
            }
            return written_.ends_with(text);
        });
        EXPECT_TRUE(came) << "'" << text << "' did not come, but " << written_;
        return std::exchange(written_, "");
    }

  private:
    int terminal_;
    std::string written_;
    std::unique_ptr<ChildProcess> child_;
};

class ZelfwtraceProgress : public TraceToolTest {
  protected:
    /// An erase, and the line that tells of `records` records; none when 0.
    static TraceBytes image(int records) {
        TraceBytes trace;
        trace.version().sent(erase_report).at(300).status(done_report);
        if (records > 0) {
            trace.text("Erase completed, now sending " + std::to_string(records) +
                       " firmware update records\n");
        }
        return trace;
    }
    /// Records of 104 bytes in the file, each answered after 100 ms.
    static TraceBytes& add_records(TraceBytes& trace, int first, int last) {
        for (int i = first; i <= last; ++i) {
            trace.at(1000 + (i - 1) * 100).record(100).at(1000 + i * 100).status(done_report);
        }
        return trace;
    }
    std::unique_ptr<OnATerminal> follow(const std::vector<std::string>& options = {},
                                        unsigned short columns = 100) const {
        std::vector<std::string> words = {ZELFWTRACE, "show", "--follow", "--utc"};
        words.insert(words.end(), options.begin(), options.end());
        words.push_back(path("trace.bin"));
        return std::make_unique<OnATerminal>(words, columns);
    }
    void append(const TraceBytes& trace) const {
        write_file(path("more"), trace.bytes());
        EXPECT_EQ(run_tool("cat " + quoted(path("more")) + " >>" + quoted(path("trace.bin"))).code,
                  0);
    }
};

}  // namespace

TEST_F(ZelfwtraceProgress, RunningImageIsOneLineThatIsRewritten) {
    TraceBytes begin = image(50);
    set_trace(add_records(begin, 1, 17).bytes());
    const auto terminal = follow();
    const std::string first = terminal->until("0:03 left");
    EXPECT_THAT(first, EndsWith("\r3c35  component 0  record 17 of 50  34 %  1.0 b/s  0:03 left"));
    EXPECT_THAT(first, Not(HasSubstr("record 16")));
    TraceBytes more;
    append(add_records(more, 18, 40));
    const std::string second = terminal->until("record 40 of 50  80 %  1.0 b/s  0:01 left");
    EXPECT_THAT(second, EndsWith("\r3c35  component 0  record 40 of 50  80 %  1.0 b/s  0:01 left"));
    EXPECT_THAT(second, Not(HasSubstr("\n")));
}

TEST_F(ZelfwtraceProgress, LineStaysWhenTheImageIsThrough) {
    TraceBytes trace = image(5);
    set_trace(add_records(trace, 1, 4).bytes());
    const auto terminal = follow();
    terminal->until(" left");
    TraceBytes more;
    add_records(more, 5, 5).sent(checksum_report);
    append(more);
    const std::string end = terminal->until("checksum (1e.86)\r\n");
    EXPECT_THAT(
        end, HasSubstr("\r3c35  component 0  record 5 of 5  100 %  1.0 b/s  after 0:01\r\n2023-"));
}

TEST_F(ZelfwtraceProgress, ImageThatBreaksOffShowsHowFarItCame) {
    TraceBytes trace = image(50);
    add_records(trace, 1, 2).record(100).status(rejected).sent(stop_report);
    set_trace(trace.bytes());
    const std::string shown = follow()->until("stop\r\n");
    EXPECT_THAT(shown,
                HasSubstr("3c35  component 0  record 3 of 50  4 %  1.0 b/s  after 0:00\r\n"));
    EXPECT_THAT(shown, HasSubstr("status rejected (record, 0 ms)\r\n"));
}

TEST_F(ZelfwtraceProgress, WithoutATotalThereIsNoShareAndNoTimeLeft) {
    TraceBytes trace = image(0);
    set_trace(add_records(trace, 1, 3).bytes());
    EXPECT_THAT(follow()->until("1.0 b/s"), EndsWith("\r3c35  component 0  record 3  1.0 b/s"));
}

TEST_F(ZelfwtraceProgress, LineOfTheLogStandsAboveTheRewrittenLine) {
    TraceBytes trace = image(50);
    set_trace(add_records(trace, 1, 2).bytes());
    const auto terminal = follow();
    terminal->until(" left");
    append(TraceBytes().text("A remark\n"));
    const std::string shown = terminal->until(" left");
    EXPECT_THAT(shown, testing::StartsWith("\r   "));
    EXPECT_THAT(shown, HasSubstr("   \r2023-"));
    EXPECT_THAT(shown, HasSubstr("text: A remark\r\n\r3c35  component 0  record 2 of 50  4 %"));
}

TEST_F(ZelfwtraceProgress, LineIsNoWiderThanTheTerminal) {
    TraceBytes trace = image(50);
    set_trace(add_records(trace, 1, 17).bytes());
    EXPECT_THAT(follow({}, 31)->until(" 17 o"), EndsWith("\n\r3c35  component 0  record 17 o"));
}

TEST_F(ZelfwtraceProgress, WhoAsksForBytesOrKindsSeesEachRecord) {
    TraceBytes trace = image(50);
    set_trace(add_records(trace, 1, 2).bytes());
    EXPECT_THAT(follow({"--hex"})->until(" | 00 00 00 00 00 00 00 00\r\n"), HasSubstr("erase | "));
    EXPECT_THAT(
        follow({"-k", "sent"})->until("record 2 of 50 (component 0, data 000000, 100 bytes)\r\n"),
        HasSubstr("record 1 of 50 ("));
}
