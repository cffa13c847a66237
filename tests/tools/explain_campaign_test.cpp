// zelfwtrace explain on the traces of runs with a fault of every kind in every phase: the cause
// that it names is the one that was put in.
#include "support/workspace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr const char* printer = "3c35";

/// What goes wrong, and the cause to be named; null where the trace does not show it.
struct Kind {
    const char* action;
    const char* more;  ///< further lines of the fault
    const char* cause;
};

/// Where it goes wrong.
struct Phase {
    const char* name;
    const char* at;  ///< with number and component
    const char* step;
    std::vector<Kind> kinds;
};

std::ostream& operator<<(std::ostream& stream, const Phase& phase) {
    return stream << phase.name;
}

constexpr const char* garbage = "bytes = \"55 AA 12\"";
constexpr const char* much_later = "ms = 40000";

/// What an image's messages may meet.
std::vector<Kind> image_kinds() {
    return {{"unplug", "", "device-gone"},
            {"stall", "", "stall"},
            {"timeout", "", "write-time-out"},
            {"io-error", "", "io-error"},
            {"overflow", "", "overflow"},
            {"short", "", "no-answer"},
            {"empty", "", "empty-transfer"},
            {"reject", "", "rejected"},
            {"operation-error", "", "operation-error"},
            {"answer", garbage, "garbled-status"},
            {"late", much_later, "no-answer"},
            {"no-answer", "", "no-answer"}};
}

std::vector<Kind> changed(std::vector<Kind> kinds, const std::vector<Kind>& other) {
    for (Kind& kind : kinds) {
        for (const Kind& one : other) {
            if (std::string(kind.action) == one.action) {
                kind.cause = one.cause;
            }
        }
    }
    return kinds;
}

/// A rejected query is no failure: it stands among the remarks.
std::vector<Kind> query_kinds() {
    return changed(image_kinds(), {{"short", "", "query-unanswered"},
                                   {"late", "", "query-unanswered"},
                                   {"no-answer", "", "query-unanswered"},
                                   {"reject", "", nullptr}});
}

/// The first of the two device information queries is a probe whose answer nobody waits for.
std::vector<Kind> probe_kinds() {
    return changed(query_kinds(),
                   {{"short", "", nullptr}, {"late", "", nullptr}, {"no-answer", "", nullptr}});
}

/// A restart that is answered late is carried out.
std::vector<Kind> reset_kinds() {
    return changed(image_kinds(), {{"unplug", "", "not-back"},
                                   {"short", "", "reset-ignored"},
                                   {"no-answer", "", "reset-ignored"},
                                   {"late", "", nullptr}});
}

std::vector<Kind> list_kinds() {
    std::vector<Kind> kinds = query_kinds();
    kinds.push_back({"data", "bytes = \"01 00 FD 33 44 55 66 77 88\"", "garbled-data"});
    return kinds;
}

/// At this level the log tells a transfer's error only by the time that it took.
std::vector<Kind> data_kinds() {
    return {{"unplug", "", "device-gone"},       {"stall", "", "data-unreadable"},
            {"timeout", "", "time-out"},         {"io-error", "", "data-unreadable"},
            {"overflow", "", "data-unreadable"}, {"empty", "", "data-unreadable"},
            {"short", "", "garbled-data"}};
}

/// On the way back a lost report is one that does not come.
std::vector<Kind> report_kinds() {
    return {{"unplug", "", "device-gone"},        {"stall", "", "stall"},
            {"timeout", "", "no-answer"},         {"io-error", "", "io-error"},
            {"overflow", "", "overflow"},         {"empty", "", "no-answer"},
            {"answer", garbage, "garbled-status"}};
}

class Explained : public testing::TestWithParam<Phase> {
  protected:
    /// The runs of an update with a fault, as zelfwtrace explains them.
    json explained(const std::string& fault, const std::string& options = "") {
        std::filesystem::remove_all(place_);
        std::filesystem::create_directory(place_);
        std::ifstream demo(ZELFWSIM_BUSES "/demo.toml");
        const std::string bus{std::istreambuf_iterator<char>(demo), {}};
        workspace_.write("bus.toml", bus + fault);
        run("cd " + place_ +
            " && timeout 50 " ZELFWSIM_TOOL " run --virtual --state state --record " + "record " +
            workspace_.bus() + " -- " ZELFWUPDATE " -U -p " DEMO_FIRMWARE " " + options +
            " -l log -t trace");
        return explained_file("trace");
    }
    json explained_file(const std::string& name) {
        const Outcome outcome = run(ZELFWTRACE " explain --utc --json " + place_ + "/" + name +
                                    " > " + place_ + "/json");
        code_ = outcome.code;
        return json::parse(workspace_.read("run/json"));
    }
    /// Of the same run, from a copy that can be handed on.
    json explained_redacted() {
        const Outcome copy =
            run(ZELFWTRACE " redact " + place_ + "/trace -o " + place_ + "/redacted");
        EXPECT_EQ(copy.code, 0) << copy.output;
        return explained_file("redacted");
    }
    static std::string fault(const std::string& at, const Kind& kind) {
        return "\n[[fault]]\ndevice = \"printer\"\nat = " + at + "\naction = \"" + kind.action +
               "\"\n" + kind.more + "\n";
    }
    bool has_struck() const {
        return workspace_.read("run/record").find("\tfault\t") != std::string::npos;
    }

    const Workspace workspace_;
    const std::string place_ = workspace_.path("run");
    int code_ = -1;
};

/// Without the names of devices and files, and without places in the trace, which move with them.
json nameless(json told) {
    if (told.is_object()) {
        for (const char* name : {"serial", "file", "offset", "command_line"}) {
            told.erase(name);
        }
    }
    if (told.is_structured()) {
        for (json& one : told) {
            one = nameless(one);
        }
    }
    return told;
}

/// The first thing of the printer that did not go well; null when there is none.
json first_trouble(const json& told) {
    for (const json& device : told["devices"]) {
        if (device["device"] == printer && device.contains("cause")) {
            return device;
        }
    }
    return {};
}

TEST_P(Explained, CauseIsTheFaultThatWasPutIn) {
    for (const Kind& kind : GetParam().kinds) {
        SCOPED_TRACE(kind.action);
        const json told = explained(fault(GetParam().at, kind));
        ASSERT_TRUE(has_struck());
        const json trouble = first_trouble(told);
        if (kind.cause == nullptr) {
            EXPECT_TRUE(trouble.is_null()) << trouble;
            EXPECT_EQ(code_, 0);
            continue;
        }
        ASSERT_FALSE(trouble.is_null()) << told;
        EXPECT_EQ(trouble["cause"], kind.cause) << trouble;
        EXPECT_EQ(code_, 3);
        EXPECT_NE(trouble["remedy"], "");
        const bool is_overcome = trouble["outcome"] == "disturbed";
        if (!is_overcome && *GetParam().step != '\0') {
            EXPECT_EQ(trouble["image"]["step"], GetParam().step);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, Explained,
    testing::Values(Phase{"Probe", "\"device-info\"\nnumber = 1", "", probe_kinds()},
                    Phase{"DeviceInformation", "\"device-info\"\nnumber = 2", "", query_kinds()},
                    Phase{"Level", "\"ec-level\"\nnumber = 1", "", query_kinds()},
                    Phase{"List", "\"extended-list\"\nnumber = 1", "", list_kinds()},
                    Phase{"Data", "\"get-feature\"\nnumber = 1", "", data_kinds()},
                    Phase{"Erase", "\"erase\"\nnumber = 1", "the erase", image_kinds()},
                    Phase{"Record", "\"record\"\nnumber = 30", "record 30 of 123", image_kinds()},
                    Phase{"Report", "\"interrupt\"\nnumber = 20", "", report_kinds()},
                    Phase{"Checksum", "\"checksum\"\nnumber = 1", "the checksum", image_kinds()},
                    Phase{"Reset", "\"reset\"\nnumber = 1", "the restart", reset_kinds()},
                    Phase{"SecondErase", "\"erase\"\nnumber = 2", "the erase", image_kinds()},
                    Phase{"SecondRecord", "\"record\"\nnumber = 3\ncomponent = 1", "record 3 of 43",
                          image_kinds()},
                    Phase{"SecondChecksum", "\"checksum\"\nnumber = 2", "the checksum",
                          image_kinds()}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(Explained, DataErrorsAreNamedWithTheDebugLevel) {
    for (const Kind& kind : {Kind{"stall", "", "stall"}, Kind{"io-error", "", "io-error"},
                             Kind{"overflow", "", "overflow"}, Kind{"timeout", "", "time-out"}}) {
        const json told = explained(fault("\"get-feature\"\nnumber = 1", kind), "-n 2");
        EXPECT_EQ(first_trouble(told).value("cause", ""), kind.cause) << kind.action;
    }
}

TEST_F(Explained, DeviceThatIsHeldByAnotherIsNotClaimed) {
    for (const char* at : {"\"claim\"\ntimes = \"always\"", "\"detach\"\ntimes = \"always\""}) {
        const bool is_claim = std::string(at).find("claim") != std::string::npos;
        const json told = explained(fault(at, {is_claim ? "busy" : "refuse", "", ""}));
        EXPECT_EQ(first_trouble(told).value("cause", ""), "not-claimed") << at;
    }
}

TEST_F(Explained, DeviceThatIsRefusedWasNotSentAnything) {
    const json told =
        explained(fault("\"open\"\nnumber = 3\ntimes = \"always\"", {"refuse", "", ""}));
    const json trouble = first_trouble(told);
    EXPECT_EQ(trouble.value("cause", ""), "device-not-opened");
    EXPECT_EQ(trouble.value("outcome", ""), "nothing sent");
    EXPECT_THAT(trouble.value("state", ""), HasSubstr("as it was"));
}

TEST_F(Explained, DeviceThatIsRefusedFromTheBeginningWasNotFound) {
    const json told =
        explained(fault("\"open\"\ntimes = \"always\"", {"refuse", "", ""}), "-d 3C35");
    EXPECT_EQ(told.value("cause", ""), "device-not-found");
    EXPECT_EQ(code_, 3);
}

TEST_F(Explained, DeviceThatIsNotThereAfterItsRestartIsNotBack) {
    const json told =
        explained(fault("\"open\"\nnumber = 4\ntimes = \"always\"", {"refuse", "", ""}));
    EXPECT_EQ(first_trouble(told).value("cause", ""), "not-back");
}

TEST_F(Explained, KilledRunIsCutOff) {
    const json told =
        explained(fault("\"record\"\nnumber = 20", {"signal", "signal = \"SIGKILL\"", ""}));
    const json trouble = first_trouble(told);
    EXPECT_EQ(trouble.value("cause", ""), "cut-off");
    EXPECT_EQ(trouble.value("outcome", ""), "unfinished");
    EXPECT_EQ(trouble["image"]["step"], "record 20 of 123");
    EXPECT_THAT(trouble.value("state", ""), HasSubstr("incomplete"));
    EXPECT_EQ(told["cause"], "cut-off");
}

TEST_F(Explained, RunWithoutFaultWentWell) {
    const json told = explained("");
    EXPECT_EQ(told["outcome"], "well");
    EXPECT_EQ(code_, 0);
    for (const json& device : told["devices"]) {
        EXPECT_EQ(device["outcome"], "well") << device;
    }
}

TEST_F(Explained, TwinsAreToldApartBySerialNumberAndPort) {
    const std::string twin =
        "\n[[device]]\nname = \"twin\"\nhub = \"root\"\nport = 3\nvendor = 0x7A01\nproduct = "
        "0x3C35\n"
        "serial = \"PR40022\"\n[[device.interface]]\nkind = \"flash\"\nlist = \"extended\"\n"
        "[[device.interface.component]]\nid = 0\nlevel = \"01.02\"\n";
    const json told = explained(
        twin + "\n[[fault]]\ndevice = \"twin\"\nat = \"record\"\nnumber = 5\naction = \"stall\"\n",
        "-n 2 -a");
    std::vector<std::string> outcomes;
    for (const json& device : told["devices"]) {
        if (device["device"] == printer && device["kind"] == "update" && device["component"] == 0) {
            outcomes.push_back(device.value("serial", "") + " " + device.value("place", "") + " " +
                               device.value("outcome", ""));
        }
    }
    EXPECT_THAT(outcomes,
                testing::UnorderedElementsAre(HasSubstr("PR40021"), HasSubstr("PR40022")));
    EXPECT_THAT(outcomes, testing::Contains(testing::AllOf(HasSubstr("PR40022"),
                                                           HasSubstr("failed"), HasSubstr("hub"))));
    EXPECT_THAT(outcomes,
                testing::Contains(testing::AllOf(HasSubstr("PR40021"), HasSubstr("well"))));
}

TEST_F(Explained, RedactedTraceTellsTheSame) {
    for (const char* at : {"\"record\"\nnumber = 17", "\"reset\""}) {
        for (const Kind& kind : image_kinds()) {
            const json told = explained(fault(at, kind));
            const int code = code_;
            const json redacted = explained_redacted();
            EXPECT_EQ(code_, code);
            EXPECT_EQ(nameless(redacted), nameless(told)) << at << kind.action;
            EXPECT_NE(redacted["command_line"], told["command_line"]);
            EXPECT_THAT(redacted.dump(), testing::Not(HasSubstr("PR40021")));
        }
    }
}

TEST_F(Explained, OffsetInTheFileIsWhereTheRecordStands) {
    const json told = explained(fault("\"record\"\nnumber = 30", {"stall", "", ""}));
    const json trouble = first_trouble(told);
    std::ifstream file(DEMO_FIRMWARE "/printer-main.dat", std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::size_t at = 8;
    for (int record = 1; record < 30; ++record) {
        at += static_cast<unsigned char>(bytes.at(at)) + std::size_t{4};
    }
    EXPECT_EQ(trouble["image"]["file_offset"], at);
    EXPECT_EQ(trouble["image"]["records_taken"], 29);
}

}  // namespace
