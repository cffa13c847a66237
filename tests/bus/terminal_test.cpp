// Text of devices and file names on a terminal, which obeys control characters.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::Not;

namespace {

/// A terminal without processing of its own: what is written to it is what it shows.
class Terminal {
  public:
    Terminal()
        : screen_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)),
          // Kept open: without a program side a terminal hangs up.
          program_side_(open_program_side()) {
        termios settings = {};
        tcgetattr(program_side_, &settings);
        cfmakeraw(&settings);
        tcsetattr(program_side_, TCSANOW, &settings);
    }
    ~Terminal() {
        close(program_side_);
        close(screen_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    std::string name() const { return name_; }
    /// What stands on it, until nothing more comes.
    std::string shown() const {
        std::string text;
        pollfd waiting = {screen_, POLLIN, 0};
        char bytes[4096];
        while (poll(&waiting, 1, 100) > 0 && (waiting.revents & POLLIN) != 0) {
            const ssize_t size = read(screen_, bytes, sizeof(bytes));
            if (size <= 0) {
                break;
            }
            text.append(bytes, static_cast<std::size_t>(size));
        }
        return text;
    }

  private:
    int open_program_side() {
        EXPECT_EQ(grantpt(screen_), 0);
        EXPECT_EQ(unlockpt(screen_), 0);
        name_ = ptsname(screen_);
        return open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }

    std::string name_;
    int screen_;
    int program_side_;
};

class TerminalText : public BusTest {
  protected:
    TerminalText() {
        SimDevice device;
        device.serial = serial_in_bus_file;
        device.components = {{}, {.id = 1}};
        set_bus({device});
    }
    std::string shown_by(const std::vector<std::string>& arguments) {
        const Terminal terminal;
        settings.console_file = terminal.name();
        log = run(arguments).log;
        return terminal.shown();
    }

    static constexpr char serial_in_bus_file[] = R"(A\u001B[2J\u0007\nUpdated 9 devices\tB)";
    static constexpr char shown_serial[] = "(SN='A?[2J??Updated 9 devices?B')";
    static constexpr char raw_serial[] = "(SN='A\x1b[2J\a\nUpdated 9 devices\tB')";
    std::string log;
};

}  // namespace

TEST_F(TerminalText, SerialNumbersShowControlCharactersAsQuestionMarks) {
    EXPECT_THAT(shown_by({"-L"}), HasSubstr(shown_serial));
    EXPECT_THAT(log, Not(HasSubstr(shown_serial)));
    add_firmware("boot.dat", {.component = 1});
    const std::string update = shown_by({"-U", "-p", firmware_directory()});
    EXPECT_THAT(update, HasSubstr(shown_serial));
    EXPECT_THAT(update, HasSubstr("\nUpdated 1 device\n"));
    EXPECT_THAT(update, Not(HasSubstr("\nUpdated 9 devices")));
    EXPECT_THAT(shown_by({"-R"}), HasSubstr("SN='A?[2J??Updated 9 devices?B'\n"));
}

TEST_F(TerminalText, LogTraceAndPipedOutputStayAsTheyAre) {
    const RunResult result = run({"-L"});
    EXPECT_THAT(result.console, HasSubstr(raw_serial));
    EXPECT_THAT(result.log, HasSubstr(raw_serial));
    const auto records = trace();
    EXPECT_TRUE(std::any_of(records.begin(), records.end(), [](const TraceRecord& one) {
        return one.payload.find(raw_serial) != std::string::npos;
    }));
}

TEST_F(TerminalText, FileNamesShowControlCharactersAsQuestionMarks) {
    add_firmware("a\x1b[31m\nb.dat", {.component = 1});
    EXPECT_THAT(shown_by({"-S", "-p", firmware_directory()}), HasSubstr("\n  a?[31m?b.dat "));
    EXPECT_THAT(shown_by({"-U", "-p", firmware_directory()}),
                HasSubstr("\nFirmware file found:  " + firmware_path("a?[31m?b.dat") + "\n"));
}

TEST_F(TerminalText, ComponentNamesShowControlCharactersAsQuestionMarks) {
    const std::string name = "N\x1b[0m\nB";
    const std::string file = add_firmware(
        "boot.dat",
        {.component = 1,
         .data_records = 0,
         .further_records = {std::string({static_cast<char>(name.size()), '\xF1', 0, 0}) + name}});
    EXPECT_THAT(shown_by({"-D", file}), HasSubstr("\nComponent 1 ID String: N?[0m?B\n"));
}
