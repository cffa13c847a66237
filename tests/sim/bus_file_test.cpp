#include "model/bus_file/bus_file.h"

#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using zelfsim::BusDescription;
using zelfsim::FileError;

BusDescription read(const std::string& text) {
    const Workspace workspace;
    return zelfsim::read_bus_file(workspace.write("bus.toml", text));
}

/// The message that a wrong file gets, from its line on.
std::string refusal(const std::string& text) {
    try {
        read(text);
    } catch (const FileError& error) {
        const std::string message = error.what();
        const auto name = message.find("bus.toml");
        return name == std::string::npos ? message : message.substr(name + 8);
    }
    return "taken";
}

}  // namespace

TEST(BusFile, HangsDevicesOnTheFreePortsOfAnImpliedRootHub) {
    const auto bus = read(printer_bus());
    ASSERT_EQ(bus.devices.size(), 2U);
    EXPECT_EQ(bus.devices[0].name, "root");
    EXPECT_EQ(bus.devices[0].address, 1);
    EXPECT_EQ(bus.devices[1].parent, 0U);
    EXPECT_EQ(bus.devices[1].port, 1);
    EXPECT_EQ(bus.devices[1].address, 2);
    EXPECT_EQ(bus.devices[1].bcd, 0x0102);
    EXPECT_EQ(bus.devices[1].interfaces[0].text, "Usage=A000 Usage Page=FF45");
}

TEST(BusFile, TakesTimesFromTheDeviceAndElseFromTheBus) {
    const auto bus = read(
        "[timing]\nerase_ms = 7\nrecord_ms = 0.5\n[[device]]\nname = \"m\"\n"
        "vendor = 1\nproduct = 2\ntiming = { erase_ms = 9 }\n"
        "[[device.interface]]\nkind = \"mouse\"\n");
    EXPECT_EQ(bus.devices[1].timing.erase, std::chrono::milliseconds(9));
    EXPECT_EQ(bus.devices[1].timing.record, std::chrono::microseconds(500));
    EXPECT_EQ(bus.devices[1].timing.reset, std::chrono::milliseconds(1500));
}

TEST(BusFile, ReadsTheBusThatComesWithIt) {
    EXPECT_EQ(zelfsim::read_bus_file(ZELFWSIM_BUSES "/demo.toml").devices.size(), 7U);
}

namespace {

const std::string mouse =
    "[[device]]\nname = \"m\"\nvendor = 1\nproduct = 2\n[[device.interface]]\nkind = \"mouse\"\n";

struct Mistake {
    std::string text;
    std::string message;
};

void PrintTo(const Mistake& mistake, std::ostream* out) {
    *out << mistake.message;
}

class BusFileMistake : public testing::TestWithParam<Mistake> {};

}  // namespace

TEST_P(BusFileMistake, IsRefusedWithLineAndReason) {
    EXPECT_THAT(refusal(GetParam().text), testing::StartsWith(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Files, BusFileMistake,
    testing::Values(
        Mistake{"\n\nx = ", ":3: "},  //
        Mistake{"\ntypo = 1\n", ":2: unknown key \"typo\""},
        Mistake{mouse + "colour = 1\n", ":7: unknown key \"colour\""},
        Mistake{"[[device]]\nname = \"m\"\nvendor = 1\nproduct = 70000\n",
                ":4: \"product\" must be 0 to 65535"},
        Mistake{"[[device]]\nname = \"m\"\nvendor = \"x\"\n",
                ":3: \"vendor\" must be a whole number"},
        Mistake{"[[device]]\nname = \"m\"\nvendor = 1\nproduct = 2\n",
                ":1: a device needs 1 to 15 interfaces"},
        Mistake{mouse + mouse, ":8: the name \"m\" is used twice"},
        Mistake{"[[device]]\nname = \"../m\"\n", ":2: a name consists of"},
        Mistake{"[[device]]\nname = \"m\"\nhub = \"h\"\n", ":3: there is no hub \"h\""},
        Mistake{"[[hub]]\nname = \"a\"\nbus = 1\n[[hub]]\nname = \"b\"\nhub = \"a\"\nport = 5\n",
                ":7: \"port\" must be 1 to 4"},
        Mistake{"[[hub]]\nname = \"a\"\nbus = 1\nhub = \"b\"\n", ":2: a hub has either"},
        Mistake{"[[hub]]\nname = \"a\"\nbus = 1\n[[hub]]\nname = \"b\"\nbus = 1\n",
                ":6: bus 1 has two root hubs"},
        Mistake{"[[device]]\nname = \"m\"\nvendor = 1\nproduct = 2\n[[device.interface]]\n"
                "kind = \"modem\"\n",
                ":6: \"kind\" must be one of \"flash\""},
        Mistake{"timing = 5\n", ":1: \"timing\" must be a table"},
        Mistake{"[timing]\nerase_ms = -1\n", ":2: \"erase_ms\" must be 0 to 600000"},
        Mistake{"[timing]\nerase_ms = nan\n", ":2: \"erase_ms\" must be 0 to 600000"},
        Mistake{"device = 5\n", ":1: \"device\" must be an array of tables"},
        Mistake{mouse + "[[fault]]\ndevice = \"x\"\n", ":8: there is no device \"x\""},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"noon\"\n",
                ":9: unknown event \"noon\"; the events are \"control\", \"get-descriptor\", "},
        Mistake{
            mouse + "[[fault]]\ndevice = \"m\"\nat = \"claim\"\naction = \"bsuy\"\n",
            ":10: unknown action \"bsuy\"; at \"claim\" there are \"unplug\", \"crash\", \"busy\""},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"stall\"\n",
                ":10: \"stall\" cannot happen at \"open\", only \"unplug\", \"crash\", \"refuse\""},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"refuse\"\nms = 3\n",
                ":11: \"ms\" goes only with"},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"signal\"\n",
                ":7: \"signal\" is missing"},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"signal\"\n"
                        "signal = \"SIGSEGV\"\n",
                ":11: unknown signal \"SIGSEGV\""},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"refuse\"\n"
                        "signal = \"SIGTERM\"\n",
                ":11: \"signal\" goes only with action = \"signal\""},
        Mistake{
            mouse +
                "[[fault]]\ndevice = \"m\"\nat = \"string\"\naction = \"answer\"\nbytes = \"0\"\n",
            ":11: \"bytes\" must be pairs"},
        Mistake{mouse + "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"refuse\"\n"
                        "[[fault]]\ndevice = \"m\"\nat = \"open\"\naction = \"refuse\"\n",
                ":13: the fault open#1:refuse of \"m\" is there twice"}));

TEST(BusFile, TellsAWronglyWrittenKeyAndTheNearestOne) {
    const std::string hub = "[[hub]]\nname = \"a\"\nbus = 1\n";
    const std::string flash = mouse.substr(0, mouse.find("kind")) + "kind = \"flash\"\n";
    // A missing key, a wrong value or a wrong choice would come later: the wrong key is the cause.
    EXPECT_EQ(refusal("[[device]]\nname = \"m\"\nvendro = 1\nproduct = 70000\n"),
              ":3: unknown key \"vendro\", did you mean \"vendor\"?");
    EXPECT_EQ(refusal("[timings]\nerase_ms = 1\n"),
              ":1: unknown key \"timings\", did you mean \"timing\"?");
    EXPECT_EQ(refusal("[timing]\nerase = 1\n"), ":2: unknown key \"erase\"");
    EXPECT_EQ(refusal(hub + "prots = 4\n"), ":4: unknown key \"prots\", did you mean \"ports\"?");
    EXPECT_EQ(refusal("[[device]]\nname = \"m\"\nvendor = 1\nproduct = 2\n"
                      "[[device.interface]]\nkidn = \"mouse\"\n"),
              ":6: unknown key \"kidn\", did you mean \"kind\"?");
    EXPECT_EQ(refusal(flash + "[[device.interface.component]]\nid = 0\nlevl = \"01.00\"\n"),
              ":9: unknown key \"levl\", did you mean \"level\"?");
    EXPECT_EQ(refusal(mouse + "[[fault]]\ndevcie = \"m\"\n"),
              ":8: unknown key \"devcie\", did you mean \"device\"?");
}

TEST(BusFile, TellsTheFirstOfSeveralUnknownKeys) {
    EXPECT_EQ(refusal("[[device]]\nzzz = 1\naaa = 2\n"), ":2: unknown key \"zzz\"");
}

TEST(BusFile, RefusesAKeyOfAnotherKindOfInterface) {
    EXPECT_EQ(refusal(mouse + "in_packet = 8\n"), ":7: unknown key \"in_packet\"");
}

TEST(BusFile, ListsEveryEventToWhoMistakesOne) {
    const std::string message =
        refusal(mouse + "[[fault]]\ndevice = \"m\"\nat = \"erased\"\naction = \"stall\"\n");
    for (const char* event : {"control", "string", "interrupt", "erase", "record", "checksum",
                              "extended-list", "open", "claim", "detach"}) {
        EXPECT_THAT(message, HasSubstr("\"" + std::string(event) + "\""));
    }
}

TEST(BusFile, RefusesComponentsThatDoNotBelongTogether) {
    EXPECT_THAT(refusal(printer_bus("", "[[device.interface.component]]\nid = 1\nlevel = \"1\"\n")),
                HasSubstr("\"level\" must be two hexadecimal bytes"));
    EXPECT_THAT(
        refusal(printer_bus("", "[[device.interface.component]]\nid = 1\nlevel = \"01.00\"\n")),
        EndsWith("component 1 is there twice"));
    EXPECT_THAT(refusal(printer_bus("in_packet = 8\nreport_ids = true\n")),
                HasSubstr("with report IDs"));
}

TEST(BusFile, RefusesMoreDevicesThanABusHasAddresses) {
    std::string text = "[[hub]]\nname = \"root\"\nbus = 1\nports = 127\n";
    for (int number = 0; number < 127; ++number) {
        std::string device = mouse;
        device.replace(device.find("\"m\""), 3, "\"m" + std::to_string(number) + "\"");
        text += device;
    }
    EXPECT_THAT(refusal(text), HasSubstr("bus 1 has more than 127 devices"));
}

TEST(BusFile, RefusesWhatIsNoFile) {
    EXPECT_THROW(zelfsim::read_bus_file("/does/not/exist.toml"), FileError);
    EXPECT_THROW(zelfsim::read_bus_file("/tmp"), FileError);
}
