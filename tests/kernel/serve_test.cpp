// `zelfwsim serve` as a program.
#include "support/bus_text.h"
#include "support/program.h"
#include "support/temporary_directory.h"
#include "usbip_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <string>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class Serve : public testing::Test {
  protected:
    Serve() {
        settings.program = ZELFWSIM_TOOL;
        settings.directory = directory.path();
        settings.console_file = directory.path("console");
        settings.error_file = directory.path("errors");
        write_file(directory.path("bus.toml"), bus_text({SimDevice{}}));
    }
    RunResult run(const std::vector<std::string>& arguments) {
        return ProgramProcess(settings, arguments).finish();
    }
    std::string console() const { return read_file(settings.console_file); }

    TemporaryDirectory directory;
    ProgramSettings settings;
};

}  // namespace

TEST_F(Serve, ServesOnThePortItNamesUntilItIsEnded) {
    ProgramProcess process(settings, {"serve", "--port", "0", "bus.toml", "state"});
    ASSERT_TRUE(process.wait_until([this] { return console().find('\n') != std::string::npos; }));
    EXPECT_THAT(console(), StartsWith("Listening on 127.0.0.1 port "));
    const auto port = static_cast<std::uint16_t>(std::stoi(console().substr(28)));
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    ASSERT_TRUE(process.wait_until(
        [this] { return console().find("1-1 printer: attached\n") != std::string::npos; }));
    process.send_signal(SIGTERM);
    EXPECT_EQ(process.finish().exit_code, 0);
    EXPECT_TRUE(client.ends());
}

TEST_F(Serve, RefusesWrongArguments) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"serve"},
                                                      {"serve", "--port", "bus.toml"},
                                                      {"serve", "--port", "70000", "bus.toml"},
                                                      {"serve", "--unknown", "bus.toml"},
                                                      {"serve", "bus.toml", "state", "more"}}) {
        EXPECT_EQ(run(arguments).exit_code, 1) << arguments.back();
    }
}

TEST_F(Serve, SaysWhyABusOrAnAddressCannotBeUsed) {
    const RunResult bus = run({"serve", "--port", "0", "missing.toml"});
    EXPECT_EQ(bus.exit_code, 2);
    EXPECT_THAT(bus.errors, StartsWith("missing.toml"));
    const RunResult address = run({"serve", "--listen", "localhost", "bus.toml"});
    EXPECT_EQ(address.exit_code, 2);
    EXPECT_THAT(address.errors, HasSubstr("localhost"));
}
