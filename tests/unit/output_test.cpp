#include "journal/output.h"

#include "journal/zelfwtrace.h"
#include "support/child_process.h"
#include "support/output_capture.h"
#include "support/private_tmp.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

/// What a call wrote to each of the three.
struct Reached {
    std::string console;
    std::string log;
    std::vector<std::string> trace;

    bool operator==(const Reached& other) const {
        return console == other.console && log == other.log && trace == other.trace;
    }
};

std::ostream& operator<<(std::ostream& out, const Reached& reached) {
    return out << "console " << testing::PrintToString(reached.console) << ", log "
               << testing::PrintToString(reached.log) << ", trace "
               << testing::PrintToString(reached.trace);
}

template <typename Call>
Reached reached_by(Call call) {
    const TemporaryDirectory directory;
    OutputCapture capture;
    trace = std::make_unique<Trace>(directory.path("trace").c_str(), 0, 0);
    call();
    trace.reset();
    const WrittenOutput output = capture.take();
    return {output.console, output.log, trace_texts(directory.path("trace"))};
}

class WriterLevels : public testing::TestWithParam<int> {
  protected:
    WriterLevels() { OutputLevel = GetParam(); }
    static bool is_quiet() { return GetParam() == 0; }
    static bool shows_debug() { return GetParam() > 2; }
};

}  // namespace

TEST_P(WriterLevels, WritelogGoesToLogAndTraceAndWhenAskedToTheConsole) {
    EXPECT_EQ(reached_by([] { writelog(1, "EC %02x.%02x\n", 1, 0x2A); }),
              (Reached{is_quiet() ? "" : "EC 01.2a\n", "EC 01.2a\n", {"EC 01.2a\n"}}));
    EXPECT_EQ(reached_by([] { writelog(0, "EC %02x\n", 1); }),
              (Reached{"", "EC 01\n", {"EC 01\n"}}));
    EXPECT_EQ(reached_by([] { writelog(2, "x"); }), (Reached{"", "x", {"x"}}));
    EXPECT_EQ(reached_by([] { writelog(-1, "x"); }), (Reached{"", "x", {"x"}}));
}

TEST_P(WriterLevels, WritelogNotraceLeavesOutTheTrace) {
    EXPECT_EQ(reached_by([] { writelog_notrace(1, "%d.", 5); }),
              (Reached{is_quiet() ? "" : "5.", "5.", {}}));
    EXPECT_EQ(reached_by([] { writelog_notrace(0, "%d.", 5); }), (Reached{"", "5.", {}}));
    EXPECT_EQ(reached_by([] { writelog_notrace(2, "x"); }), (Reached{"", "x", {}}));
}

TEST_P(WriterLevels, WritedebugNeverGoesToTheConsole) {
    const std::string line = std::to_string(GetParam()) + ":rc=7\n";
    EXPECT_EQ(reached_by([] { writedebug("rc=%d\n", 7); }),
              shows_debug() ? (Reached{"", line, {"rc=7\n"}}) : (Reached{"", "", {}}));
}

TEST_P(WriterLevels, ShowMessageDoesNothing) {
    EXPECT_EQ(reached_by([] { ShowMessage("Update %s?\n", "now"); }), (Reached{"", "", {}}));
}

INSTANTIATE_TEST_SUITE_P(Each, WriterLevels, testing::Values(0, 1, 2, 3, 4, 42),
                         testing::PrintToStringParamName());

TEST(Writers, HaveTheirLevelsAtFirst) {
    EXPECT_EQ(OutputLevel, 1);
    EXPECT_EQ(Verbose, 0);
    EXPECT_EQ(hLogFile, nullptr);
    EXPECT_EQ(trace, nullptr);
}

TEST(Writers, AddNothingToAMessage) {
    EXPECT_EQ(reached_by([] {
                  writelog(1, "a");
                  writelog(1, "%s", "");
                  writelog_notrace(1, "b\n");
              }),
              (Reached{"ab\n", "ab\n", {"a", ""}}));
}

TEST(Writers, WorkWithoutLogAndTrace) {
    OutputLevel = 3;
    testing::internal::CaptureStdout();
    writelog(1, "a");
    writelog_notrace(1, "b");
    writedebug("c");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ab");
}

TEST(Writers, FlushEachMessage) {
    const TemporaryDirectory directory;
    open_log_file(directory.path("log").c_str());
    writelog(0, "one, ");
    EXPECT_EQ(read_file(directory.path("log")), "one, ");
    writelog_notrace(0, "two, ");
    EXPECT_EQ(read_file(directory.path("log")), "one, two, ");
    OutputLevel = 3;
    writedebug("three");
    EXPECT_EQ(read_file(directory.path("log")), "one, two, 3:three");
    close_log_file();
    const ChildEnd end = run_in_child([] {
        writelog(1, "shown, ");
        writelog_notrace(1, "shown too");
        _exit(3);
    });
    EXPECT_EQ(end.exit_code, 3);
    EXPECT_EQ(end.output, "shown, shown too");
}

TEST(Writers, NeverTakeTextForAFormat) {
    const std::string text = "100%% %s%n%d %";
    EXPECT_EQ(reached_by([&text] { writelog_notrace(1, "%s", text.c_str()); }),
              (Reached{text, text, {}}));
}

TEST(Writers, InterpretTheTraceCopyASecondTimeWithoutArguments) {
    const auto traced = [](const char* text) {
        OutputLevel = 3;
        const Reached by_log = reached_by([text] { writelog(0, "%s", text); });
        EXPECT_EQ(by_log.log, text);
        const Reached by_debug = reached_by([text] { writedebug("%s", text); });
        EXPECT_EQ(by_debug.log, std::string("3:") + text);
        EXPECT_EQ(by_debug.trace, by_log.trace);
        EXPECT_EQ(by_log.trace.size(), 1U);
        return by_log.trace.at(0);
    };
    EXPECT_EQ(traced("100%%"), "100%");
    EXPECT_EQ(traced("%%%%"), "%%");
    EXPECT_EQ(traced("%%%"), "%%");
    EXPECT_EQ(traced("50%"), "50%");
    EXPECT_EQ(traced(" %50  complete\n"), " %50  complete\n");
    EXPECT_EQ(traced("%s%s%s%s%s%s%s%s"), "%s%s%s%s%s%s%s%s");
    EXPECT_EQ(traced("%n%hhn%1$n%*d"), "%n%hhn%1$n%*d");
    EXPECT_EQ(traced("%2147483647d"), "%2147483647d");
    EXPECT_EQ(traced("%%n"), "%n");
}

TEST(Writers, CutAMessageAtTheBuffer) {
    const std::string longer(5000, 'x');
    const Reached by_log = reached_by([&longer] { writelog(1, "%s", longer.c_str()); });
    EXPECT_EQ(by_log.log, std::string(4195, 'x'));
    EXPECT_EQ(by_log.console, by_log.log);
    EXPECT_EQ(by_log.trace, std::vector<std::string>{by_log.log});
    const Reached untraced = reached_by([&longer] { writelog_notrace(1, "%s", longer.c_str()); });
    EXPECT_EQ(untraced.log, std::string(4195, 'x'));
    const std::string whole(4195, 'y');
    EXPECT_EQ(reached_by([&whole] { writelog(0, "%s", whole.c_str()); }).log, whole);
}

TEST(Writers, CutADebugMessageAtItsBuffer) {
    OutputLevel = 3;
    const std::string longer(50000, 'x');
    const Reached reached = reached_by([&longer] { writedebug("%s", longer.c_str()); });
    EXPECT_EQ(reached.log, "3:" + std::string(41957, 'x'));
    EXPECT_EQ(reached.trace, std::vector<std::string>{std::string(41957, 'x')});
}

TEST(Writers, PassControlCharactersToPipesAndLogs) {
    const std::string text = "\x1b[2J\a\r\x9b 7\x7f\n";
    EXPECT_EQ(reached_by([&text] { writelog(1, "%s", text.c_str()); }),
              (Reached{text, text, {text}}));
}

namespace {

/// What arrives at a terminal that is standard output for the length of `call`.
template <typename Call>
std::string shown_on_terminal(Call call) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(terminal, 0);
    EXPECT_EQ(grantpt(terminal), 0);
    EXPECT_EQ(unlockpt(terminal), 0);
    const int program_side = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(program_side, 0);
    termios settings = {};
    tcgetattr(program_side, &settings);
    cfmakeraw(&settings);
    tcsetattr(program_side, TCSANOW, &settings);
    std::fflush(stdout);
    const int console = dup(STDOUT_FILENO);
    dup2(program_side, STDOUT_FILENO);
    prepare_console();
    call();
    std::fflush(stdout);
    dup2(console, STDOUT_FILENO);
    close(console);
    // Without a program side a terminal gives what is left and then hangs up.
    close(program_side);
    std::string shown;
    pollfd waiting = {terminal, POLLIN, 0};
    while (poll(&waiting, 1, 10000) > 0 && (waiting.revents & POLLIN) != 0) {
        char part[4096];
        const ssize_t count = read(terminal, part, sizeof(part));
        if (count <= 0) {
            break;
        }
        shown.append(part, static_cast<std::size_t>(count));
    }
    close(terminal);
    return shown;
}

std::string text_on_terminal(const std::string& text) {
    std::string shown = shown_on_terminal([&text] { writelog(1, "%s", text.c_str()); });
    EXPECT_EQ(shown, shown_on_terminal([&text] { writelog_notrace(1, "%s", text.c_str()); }));
    return shown;
}

}  // namespace

TEST(Terminal, ShowsControlCharactersAsQuestionMarks) {
    EXPECT_EQ(text_on_terminal("a\x1b[2Jb"), "a?[2Jb");
    EXPECT_EQ(text_on_terminal("\a\b\r\v\f\x01\x1f\x7f"), "????????");
    EXPECT_EQ(text_on_terminal("\x9b"
                               "31m"),
              "?31m");
    EXPECT_EQ(text_on_terminal("\xc2\x9b"
                               "31m"),
              "\xc2?31m");
    EXPECT_EQ(text_on_terminal("\xc2\x80\xc2\x9f"), "\xc2?\xc2?");
}

TEST(Terminal, ShowsTextAsItIs) {
    EXPECT_EQ(text_on_terminal("tab\tline\n %50  complete\n"), "tab\tline\n %50  complete\n");
    EXPECT_EQ(text_on_terminal("~ !"), "~ !");
    const std::string european =
        "Gr\xc3\xb6\xc3\x9f"
        "e 5 \xe2\x82\xac \xc2\xa0";
    EXPECT_EQ(text_on_terminal(european), european);
    const std::string eastern = "\xd0\x9b\xe2\x9b\x84\xe6\x9b\xb4\xe6\x96\xb0\xf0\x9f\x9b\x92";
    EXPECT_EQ(text_on_terminal(eastern), eastern);
}

TEST(Terminal, IsNotFooledByIllFormedCharacters) {
    // A lone continuation byte, characters cut short, and control characters in too long a form.
    EXPECT_EQ(text_on_terminal("\xe2\x9b"), "\xe2?");
    EXPECT_EQ(text_on_terminal("\xe2\x9b"
                               "a"),
              "\xe2?a");
    EXPECT_EQ(text_on_terminal("\xf0\x9f\x9b"), "\xf0??");
    EXPECT_EQ(text_on_terminal("\xc1\x9b"), "\xc1?");
    EXPECT_EQ(text_on_terminal("\xe0\x80\x9b"), "\xe0??");
    EXPECT_EQ(text_on_terminal("\xe0\x82\x9b"), "\xe0??");
    EXPECT_EQ(text_on_terminal("\xf0\x80\x82\x9b"), "\xf0???");
    EXPECT_EQ(text_on_terminal("\xed\xa0\x80"), "\xed\xa0?");
    EXPECT_EQ(text_on_terminal("\xf4\x90\x80\x80"), "\xf4???");
    EXPECT_EQ(text_on_terminal("\xf5\x80\x80\x80"), "\xf5???");
}

TEST(Terminal, ShowsNewlinesAndTabsOfArgumentsAsQuestionMarks) {
    const auto message = [](const char* serial) {
        return shown_on_terminal([serial] { writelog(1, "\tSN='%s'\nend\n", serial); });
    };
    EXPECT_EQ(message("A"), "\tSN='A'\nend\n");
    EXPECT_EQ(message("\n\tUpdated 9 devices\n"), "\tSN='??Updated 9 devices?'\nend\n");
    EXPECT_EQ(message("\x01\n\x01"),
              "\tSN='?"
              "?"
              "?'\nend\n");
    EXPECT_EQ(message(std::string(5000, '\n').c_str()), "\tSN='" + std::string(4190, '?'));
}

TEST(Terminal, LeavesLogAndTraceAlone) {
    const TemporaryDirectory directory;
    open_log_file(directory.path("log").c_str());
    trace = std::make_unique<Trace>(directory.path("trace").c_str(), 0, 0);
    EXPECT_EQ(shown_on_terminal([] { writelog(1, "%s", "\x1b[2J\n"); }), "?[2J\n");
    trace.reset();
    close_log_file();
    EXPECT_EQ(read_file(directory.path("log")), "\x1b[2J\n");
    EXPECT_EQ(trace_texts(directory.path("trace")), std::vector<std::string>{"\x1b[2J\n"});
}

TEST(LogFile, StartsAnew) {
    const TemporaryDirectory directory;
    const std::string name = directory.write("log", "an earlier run");
    open_log_file(name.c_str());
    ASSERT_NE(hLogFile, nullptr);
    EXPECT_EQ(read_file(name), "");
    writelog(0, "x\n");
    close_log_file();
    EXPECT_EQ(hLogFile, nullptr);
    EXPECT_EQ(read_file(name), "x\n");
}

TEST(LogFile, ThatCannotBeOpenedIsSilent) {
    const TemporaryDirectory directory;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    open_log_file(directory.path("none/log").c_str());
    EXPECT_EQ(hLogFile, nullptr);
    writelog(1, "x\n");
    close_log_file();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "x\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LogFile, ThatIsAFifoNobodyReadsIsNone) {
    const TemporaryDirectory directory;
    const std::string name = directory.path("log");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    open_log_file(name.c_str());
    EXPECT_EQ(hLogFile, nullptr);
}

TEST(LogFile, MayBeAFifoThatIsRead) {
    const TemporaryDirectory directory;
    const std::string name = directory.path("log");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    const int reader = open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    open_log_file(name.c_str());
    writelog(0, "x\n");
    // A full pipe is waited for, as that of the console is.
    EXPECT_EQ(fcntl(fileno(hLogFile), F_GETFL) & O_NONBLOCK, 0);
    close_log_file();
    char text[8] = {};
    EXPECT_EQ(read(reader, text, sizeof(text)), 2);
    EXPECT_STREQ(text, "x\n");
    close(reader);
}

TEST(LogFile, IsClosedOnceAndWrittenNoMore) {
    const TemporaryDirectory directory;
    open_log_file(directory.path("log").c_str());
    writelog(0, "w\n");
    close_log_file();
    writelog(0, "x\n");
    close_log_file();
    EXPECT_EQ(read_file(directory.path("log")), "w\n");
}

TEST(LogFile, MayBeClosedWhileAnotherThreadWrites) {
    const TemporaryDirectory directory;
    open_log_file(directory.path("log").c_str());
    std::atomic<bool> started{false};
    std::atomic<bool> over{false};
    std::thread writer([&] {
        while (!over) {
            writelog(0, "0123456789\n");
            started = true;
        }
    });
    while (!started) {
        std::this_thread::yield();
    }
    close_log_file();
    const auto size = std::filesystem::file_size(directory.path("log"));
    over = true;
    writer.join();
    EXPECT_EQ(hLogFile, nullptr);
    EXPECT_GT(size, 0U);
    EXPECT_EQ(size % 11, 0U);
    EXPECT_EQ(std::filesystem::file_size(directory.path("log")), size);
}

TEST(LogFile, AChosenNameMayBeALink) {
    const TemporaryDirectory directory;
    const std::string target = directory.write("target", "old");
    std::filesystem::create_symlink(target, directory.path("log"));
    open_log_file(directory.path("log").c_str());
    writelog(0, "x\n");
    close_log_file();
    EXPECT_EQ(read_file(target), "x\n");
}

TEST(LogFile, TheDefaultNameIsNeverALink) {
    const TemporaryDirectory directory;
    const std::string target = directory.write("target", "old");
    const ChildEnd end = run_in_child([&] {
        const int holder = open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        enter_private_tmp();
        EXPECT_EQ(symlink(("/proc/self/fd/" + std::to_string(holder) + "/target").c_str(),
                          default_log_filename),
                  0);
        open_log_file(default_log_filename);
        writelog(0, "x\n");
        close_log_file();
        std::printf("%s", read_file(default_log_filename).c_str());
        std::printf("%s", std::filesystem::is_symlink(default_log_filename) ? "link" : "file");
    });
    if (end.exit_code == no_right_to_mount) {
        GTEST_SKIP() << "no right to mount a private /tmp";
    }
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.output, "x\nfile");
    EXPECT_EQ(read_file(target), "old");
}

TEST(LogFile, OfAnotherRunIsAppendedToAndSaysSo) {
    const TemporaryDirectory directory;
    const std::string name = directory.path("log");
    open_log_file(name.c_str());
    writelog(0, "first\n");
    const std::string note = "Another run writes to this log, which is not started anew\n";
    FILE* const ours = hLogFile;
    hLogFile = nullptr;
    open_log_file(name.c_str());
    writelog(0, "second\n");
    close_log_file();
    hLogFile = ours;
    writelog(0, "first again\n");
    close_log_file();
    EXPECT_EQ(read_file(name), "first\n" + note + "second\nfirst again\n");
    open_log_file(name.c_str());
    close_log_file();
    EXPECT_EQ(read_file(name), "");
}

TEST(LogFile, ThatIsCutUnderARunHasNoHole) {
    const TemporaryDirectory directory;
    const std::string name = directory.path("log");
    open_log_file(name.c_str());
    writelog(0, "first\n");
    std::filesystem::resize_file(name, 0);
    writelog(0, "second\n");
    close_log_file();
    EXPECT_EQ(read_file(name), "second\n");
}

TEST(LogFile, WhoseReaderHasStoppedHoldsOneWriterAndTheOthersForABoundedTime) {
    const TemporaryDirectory directory;
    const std::string name = directory.path("log");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    const int reader = open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    open_log_file(name.c_str());
    ASSERT_NE(hLogFile, nullptr);
    std::atomic<int> written{0};
    std::atomic<bool> over{false};
    std::thread stuck([&] {
        while (!over) {
            writelog(0, "%s", std::string(4000, 'x').c_str());
            ++written;
        }
    });
    // The pipe is full when no more is written for a while.
    for (int before = -1; before != written; std::this_thread::sleep_for(300ms)) {
        before = written;
    }
    std::atomic<bool> came_back{false};
    std::thread other([&] {
        writelog(0, "left out");
        close_log_file();
        came_back = true;
    });
    for (int i = 0; i < 1000 && !came_back; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_TRUE(came_back);
    EXPECT_NE(hLogFile, nullptr);
    over = true;
    std::string rest(1 << 20, ' ');
    while (read(reader, rest.data(), rest.size()) > 0 || !came_back) {
    }
    stuck.join();
    other.join();
    close_log_file();
    close(reader);
}
