// A till's trace gives a bus that fails in the same way: each fault is met once for its trace, and
// once more on the twin that was made from it.
#include "twin/twin.h"

#include "support/workspace.h"
#include "twin/story.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace {

using zelfsim::Step;
using zelfsim::Story;

constexpr const char* one_bus = R"(
[[device]]
name = "printer"
vendor = 0x7A01
product = 0x3C35
serial = "PR40021"

[[device.interface]]
kind = "flash"

[[device.interface.component]]
id = 0
level = "01.02"
build = 3

[[device.interface.component]]
id = 1
level = "02.10"
type = "configuration"
control = "random"

[[device.interface.component]]
id = 2
level = "01.00"
type = "font"

[[device]]
name = "scanner"
vendor = 0x7A02
product = 0x3C12
serial = "SC77310"

[[device.interface]]
kind = "flash"
list = "plain"

[[device.interface.component]]
id = 0
level = "01.05"

[[device.interface.component]]
id = 1
level = "01.01"
type = "configuration"
)";

struct Fault {
    const char* device;
    const char* at;
    int number;
    const char* action;
    const char* keys = "";

    std::string text() const {
        return std::string("\n[[fault]]\ndevice = \"") + device + "\"\nat = \"" + at +
               "\"\nnumber = " + std::to_string(number) + "\naction = \"" + action + "\"\n" + keys;
    }
};

/// What a run leaves behind.
struct RunEnd {
    int code = -1;
    std::string console;
    Story story;
};

/// Without what tells the time or an address.
std::string timeless(const std::string& text) {
    return std::regex_replace(text, std::regex("USB Flash (Started|ended) at [^\n]*"), "");
}

/// Each message to a device and what came of it.
std::vector<std::string> messages_of(const Story& story) {
    std::vector<std::string> messages;
    for (const zelfsim::ToldDevice& device : story.devices) {
        for (const Step& step : device.steps) {
            std::string line = std::to_string(device.product) + " ";
            for (const std::uint8_t byte : step.message) {
                line += std::to_string(byte) + ".";
            }
            messages.push_back(line +
                               (step.write_rc ? " rc=" + std::to_string(*step.write_rc) : ""));
        }
    }
    return messages;
}

class Twin : public testing::Test {
  protected:
    RunEnd run_on(const std::string& bus, const std::string& name, const std::string& command) {
        const std::string place = workspace_.path(name);
        std::filesystem::create_directory(place);
        workspace_.write(name + "/bus.toml", bus);
        const Outcome run = ::run("cd " + place +
                                  " && timeout 50 " ZELFWSIM_TOOL
                                  " run --virtual --state state bus.toml -- " ZELFWUPDATE " " +
                                  command + " -l log -t trace");
        return {run.code, timeless(run.output), zelfsim::read_story(place + "/trace", -1)};
    }

    /// Why the twin's run is not the same; empty when it is.
    std::string difference(const Fault& fault, const std::string& command = update_arguments) {
        const std::string number = std::to_string(++cases_);
        const RunEnd first = run_on(bus_ + fault.text(), "a" + number, command);
        const std::string bus = zelfsim::twin_of(first.story, "trace");
        const RunEnd second = run_on(bus, "b" + number, command);
        std::string text;
        if (first.code != second.code) {
            text += "exit codes " + std::to_string(first.code) + " and " +
                    std::to_string(second.code) + "\n";
        }
        if (first.console != second.console) {
            text += "console:\n" + first.console + "\ntwin's console:\n" + second.console;
        }
        const auto left = messages_of(first.story);
        const auto right = messages_of(second.story);
        if (left != right) {
            const auto [a, b] = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
            text += "message " + std::to_string(a - left.begin()) + " of " +
                    std::to_string(left.size()) + " differs, of " + std::to_string(right.size()) +
                    "\n" + (a == left.end() ? "end" : *a) + "\n" + (b == right.end() ? "end" : *b) +
                    "\n";
        }
        return text.empty()
                   ? text
                   : fault.text() + text + bus.substr(std::min(bus.find("[[fault]]"), bus.size()));
    }

    static constexpr const char* update_arguments = "-U -p " DEMO_FIRMWARE;
    const Workspace workspace_;
    std::string bus_ = one_bus;
    int cases_ = 0;
};

struct Kind {
    const char* name;
    const char* action;
    const char* keys = "";
};

/// Where a fault strikes, and whether it is a command, a report or data that are read, or another
/// call.
struct Place {
    const char* at;
    int number;
    enum class Group { command, reading, opening, claiming } group;
    const char* device = "printer";
};

std::vector<Kind> kinds_at(const Place& place) {
    if (place.group == Place::Group::opening) {
        return {{"refused", "refuse"}, {"always refused", "refuse", "times = \"always\"\n"}};
    }
    if (place.group == Place::Group::claiming) {
        return {{"busy", "busy"}, {"always busy", "busy", "times = \"always\"\n"}};
    }
    std::vector<Kind> kinds = {{"unplug", "unplug"},
                               {"unplug soon", "unplug", "ms = 0.5\n"},
                               {"unplug and replug", "unplug", "replug_ms = 200\n"},
                               {"stall", "stall"},
                               {"time-out", "timeout"},
                               {"I/O error", "io-error"},
                               {"overflow", "overflow"},
                               {"short", "short"},
                               {"empty", "empty"},
                               {"bad garbage", "answer", "bytes = \"ff fe ff fd ff ff fb ff\"\n"},
                               {"good garbage", "answer", "bytes = \"15 23 0a 99 03 00 ff ee\"\n"}};
    if (place.group == Place::Group::command) {
        kinds.push_back({"reject", "reject"});
        kinds.push_back({"operation error", "operation-error"});
        kinds.push_back({"late", "late", "ms = 150\n"});
        kinds.push_back({"too late", "late", "ms = 2600\n"});
        kinds.push_back({"no answer", "no-answer"});
    }
    return kinds;
}

class TwinOfAFault : public Twin, public testing::WithParamInterface<Place> {};

TEST_P(TwinOfAFault, FailsInTheSameWay) {
    const Place& place = GetParam();
    for (const Kind& kind : kinds_at(place)) {
        EXPECT_EQ(difference({place.device, place.at, place.number, kind.action, kind.keys}), "")
            << kind.name;
    }
}

using Group = Place::Group;
INSTANTIATE_TEST_SUITE_P(
    OfCommands, TwinOfAFault,
    testing::Values(Place{"erase", 1, Group::command}, Place{"erase", 3, Group::command},
                    Place{"record", 1, Group::command}, Place{"record", 7, Group::command},
                    Place{"record", 50, Group::command}, Place{"checksum", 1, Group::command},
                    Place{"checksum", 2, Group::command}, Place{"reset", 1, Group::command},
                    Place{"extended-list", 1, Group::command},
                    Place{"extended-list", 2, Group::command},
                    Place{"device-info", 1, Group::command},
                    Place{"device-info", 2, Group::command}, Place{"ec-level", 1, Group::command},
                    Place{"ec-level", 2, Group::command}, Place{"command", 30, Group::command},
                    Place{"component-list", 1, Group::command, "scanner"},
                    Place{"record", 20, Group::command, "scanner"}));
INSTANTIATE_TEST_SUITE_P(
    OfReading, TwinOfAFault,
    testing::Values(Place{"interrupt", 1, Group::reading}, Place{"interrupt", 2, Group::reading},
                    Place{"interrupt", 3, Group::reading}, Place{"interrupt", 6, Group::reading},
                    Place{"interrupt", 7, Group::reading}, Place{"interrupt", 30, Group::reading},
                    Place{"interrupt", 129, Group::reading},
                    Place{"interrupt", 60, Group::reading, "scanner"},
                    Place{"get-feature", 1, Group::reading},
                    Place{"get-feature", 2, Group::reading}));
INSTANTIATE_TEST_SUITE_P(
    OfOpening, TwinOfAFault,
    testing::Values(Place{"open", 1, Group::opening}, Place{"open", 2, Group::opening},
                    Place{"open", 3, Group::opening}, Place{"open", 4, Group::opening},
                    Place{"open", 6, Group::opening}, Place{"detach", 1, Group::opening},
                    Place{"detach", 2, Group::opening}, Place{"claim", 1, Group::claiming},
                    Place{"claim", 2, Group::claiming}, Place{"claim", 4, Group::claiming}));

TEST_F(Twin, OfAGoodRunHasNoFaults) {
    const RunEnd first = run_on(one_bus, "good", update_arguments);
    EXPECT_EQ(first.code, 0);
    EXPECT_THAT(zelfsim::twin_of(first.story, "trace"),
                testing::Not(testing::HasSubstr("[[fault]]")));
}

std::string printer(const std::string& name, const std::string& serial, const std::string& level) {
    return "\n[[device]]\nname = \"" + name + "\"\nvendor = 0x7A01\nproduct = 0x3C35\n" +
           (serial.empty() ? "" : "serial = \"" + serial + "\"\n") +
           "[[device.interface]]\nkind = \"flash\"\n[[device.interface.component]]\nid = 0\nlevel "
           "= \"" +
           level + "\"\n";
}

TEST_F(Twin, OfSeveralDevicesOfOneProductFailsAtTheSameOne) {
    bus_ = printer("one", "PR1", "01.02") + printer("two", "PR2", "01.01") +
           printer("three", "PR3", "01.04");
    for (const char* device : {"one", "two", "three"}) {
        for (const char* action : {"stall", "reject", "no-answer", "unplug"}) {
            EXPECT_EQ(difference({device, "record", 17, action}), "") << device << " " << action;
            EXPECT_EQ(
                difference({device, "record", 17, action}, std::string(update_arguments) + " -a"),
                "")
                << device << " " << action << " -a";
        }
        EXPECT_EQ(difference({device, "record", 17, "unplug", "replug_ms = 200\n"}), "") << device;
        EXPECT_EQ(difference({device, "reset", 1, "no-answer"}), "") << device;
    }
}

TEST_F(Twin, OfDevicesWithoutSerialNumbersFailsAtTheSameOne) {
    bus_ = printer("one", "", "01.02") + printer("two", "", "01.02");
    for (const char* action : {"stall", "reject", "no-answer"}) {
        EXPECT_EQ(difference({"two", "record", 17, action}), "") << action;
    }
}

TEST_F(Twin, IsOfTheRunThatIsAskedFor) {
    workspace_.write("bus.toml", one_bus + Fault{"printer", "record", 17, "stall"}.text());
    const std::string at = "cd " + workspace_.path("") + " && ";
    const std::string updater =
        at + ZELFWSIM_TOOL " run --virtual --state state bus.toml -- " ZELFWUPDATE " ";
    ::run(updater + update_arguments + " -l log -t trace");
    EXPECT_EQ(::run(updater + "-L -l log -t trace").code, 0);
    const auto twin = [&](const std::string& options) {
        return ::run(at + ZELFWSIM_TOOL " from-trace trace " + options);
    };
    const Outcome first = twin("--run 1");
    EXPECT_THAT(first.output, testing::HasSubstr("action = \"stall\""));
    EXPECT_EQ(twin("--run -2").output, first.output);
    EXPECT_THAT(first.output, testing::HasSubstr(" -l log -t trace\n"));
    const Outcome last = twin("");
    EXPECT_THAT(last.output, testing::AllOf(testing::HasSubstr("of run 2 of 2"),
                                            testing::Not(testing::HasSubstr("[[fault]]"))));
    EXPECT_EQ(twin("--run -1").output, last.output);
    EXPECT_EQ(twin("--run 2").output, last.output);
    for (const char* none : {"3", "-3"}) {
        const Outcome outcome = twin(std::string("--run ") + none);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_THAT(outcome.output,
                    testing::HasSubstr(std::string("there is no run ") + none + ", it has 2 runs"));
    }
    for (const char* wrong : {"0", "x", "1x", ""}) {
        EXPECT_EQ(twin("--run '" + std::string(wrong) + "'").code, 1) << wrong;
    }
}

TEST_F(Twin, OfARedactedTraceFailsInTheSameWay) {
    for (const char* action : {"stall", "reject", "no-answer", "unplug"}) {
        const std::string fault = Fault{"printer", "record", 17, action}.text();
        const RunEnd first = run_on(one_bus + fault, action, update_arguments);
        const std::string copy = workspace_.path("copy");
        const Outcome redacted =
            ::run(ZELFWTRACE " redact " + workspace_.path(std::string(action) + "/trace") + " -o " +
                  copy);
        ASSERT_EQ(redacted.code, 0) << redacted.output;
        const std::string bus = zelfsim::twin_of(zelfsim::read_story(copy, -1), "copy");
        EXPECT_THAT(bus, testing::Not(testing::HasSubstr("PR40021")));
        const RunEnd second = run_on(bus, std::string("twin-") + action, update_arguments);
        EXPECT_EQ(second.code, first.code) << action;
        EXPECT_EQ(messages_of(second.story), messages_of(first.story)) << action;
    }
}

TEST_F(Twin, StepsOverADamagedPlaceAndNamesIt) {
    const RunEnd first = run_on(one_bus, "first", "-L");
    const RunEnd second =
        run_on(one_bus + Fault{"printer", "record", 7, "stall"}.text(), "second", update_arguments);
    workspace_.write("trace", workspace_.read("first/trace") + std::string(40, 'x') +
                                  workspace_.read("second/trace"));
    const Outcome twin = ::run(ZELFWSIM_TOOL " from-trace " + workspace_.path("trace"));
    EXPECT_EQ(twin.code, 0);
    EXPECT_THAT(twin.output, testing::HasSubstr(": offset "));
    EXPECT_THAT(twin.output, testing::HasSubstr("action = \"stall\""));
}

TEST_F(Twin, SaysWhenItDiffers) {
    // The comparison itself: a twin that lost its faults is told from the run.
    const RunEnd first =
        run_on(one_bus + Fault{"printer", "record", 7, "stall"}.text(), "a", update_arguments);
    const RunEnd second = run_on(one_bus, "b", update_arguments);
    EXPECT_NE(first.code, second.code);
    EXPECT_NE(messages_of(first.story), messages_of(second.story));
}

}  // namespace
