// The USB/IP server, from the host's side of the wire.
#include "support/bus_text.h"
#include "support/temporary_directory.h"
#include "usbip/server.h"
#include "usbip_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <ostream>
#include <system_error>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int submit_reply = 3;
constexpr int unlink_reply = 4;
const Octets status_request{0x04, 0x00, 0x00, 0x20};
const Octets reset_command{0x04, 0x00, 0x00, 0x40};
const Octets get_device{0x80, 6, 0, 1, 0, 0, 18, 0};

Octets set_report(std::size_t length) {
    return {0x21, 9, 0, 2, 0, 0, static_cast<std::uint8_t>(length), 0};
}

class UsbIpServer : public testing::Test {
  protected:
    void start(const std::string& bus) {
        write_file(directory.path("bus.toml"), bus);
        loaded = std::make_unique<zelfsim::Bus>(zelfsim::BusFiles{
            directory.path("bus.toml"), directory.path("state"), directory.path("record.tsv")});
        server = std::make_unique<zelfsim::usbip::Server>(*loaded, [](const std::string&) {});
        port = server->listen("127.0.0.1", 0);
        thread = std::thread([this] { server->run(stop); });
    }
    void start(const std::vector<SimDevice>& devices, const std::string& further = "") {
        start(bus_text(devices, further));
    }
    ~UsbIpServer() override {
        const std::uint64_t one = 1;
        EXPECT_EQ(write(stop, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
        if (thread.joinable()) {
            thread.join();
        }
        close(stop);
    }
    std::string record() const { return read_file(directory.path("record.tsv")); }

    TemporaryDirectory directory;
    std::unique_ptr<zelfsim::Bus> loaded;
    std::unique_ptr<zelfsim::usbip::Server> server;
    std::uint16_t port = 0;
    int stop = eventfd(0, EFD_CLOEXEC);
    std::thread thread;
};

SimDevice scanner() {
    return {.name = "scanner", .product = 0x3C12, .serial = "SC0001"};
}

/// Imports the device at a place once it can be had.
bool import_soon(std::uint16_t port, const std::string& bus_id,
                 std::unique_ptr<UsbIpClient>& client) {
    for (int tries = 0; tries < 100; ++tries) {
        client = std::make_unique<UsbIpClient>(port);
        if (client->import(bus_id) == 0) {
            return true;
        }
        usleep(50000);
    }
    return false;
}

}  // namespace

TEST_F(UsbIpServer, ListsDevicesByTheirPlaceOnTheBus) {
    start(
        "[[hub]]\nname = \"root\"\nbus = 1\n"
        "[[hub]]\nname = \"desk\"\nhub = \"root\"\nport = 2\n" +
        device_text({.device_keys = "hub = \"desk\"\nport = 3\nbcd = 0x0102\n"}) +
        device_text({.name = "scanner",
                     .product = 0x3C12,
                     .serial = "SC0001",
                     .device_keys = "hub = \"root\"\nport = 4\n"}));
    const auto devices = UsbIpClient(port).list();
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0].bus_id, "1-2.3");
    EXPECT_EQ(devices[0].vendor, 0x7A01U);
    EXPECT_EQ(devices[0].product, 0x3C35U);
    EXPECT_EQ(devices[0].bcd, 0x0102U);
    EXPECT_EQ(devices[0].speed, 2U);
    EXPECT_THAT(devices[0].interface_classes, ElementsAre(3U));
    EXPECT_EQ(devices[1].bus_id, "1-4");
}

TEST_F(UsbIpServer, GivesADeviceToOneHostAtATime) {
    start({SimDevice{}});
    {
        UsbIpClient first(port);
        ASSERT_EQ(first.import("1-1"), 0U);
        EXPECT_EQ(UsbIpClient(port).import("1-1"), 2U);
        EXPECT_TRUE(UsbIpClient(port).list().empty());
    }
    std::unique_ptr<UsbIpClient> next;
    EXPECT_TRUE(import_soon(port, "1-1", next));
}

TEST_F(UsbIpServer, RefusesAPlaceWithoutDevice) {
    start({SimDevice{}});
    UsbIpClient client(port);
    EXPECT_EQ(client.import("1-7"), 4U);
    EXPECT_TRUE(client.ends());
    EXPECT_EQ(UsbIpClient(port).import("1-0"), 4U) << "hubs are the host's own";
}

TEST_F(UsbIpServer, IsReachedFromThisMachineOnly) {
    start({SimDevice{}});
    EXPECT_THROW(UsbIpClient(port, "127.0.0.2"), std::system_error);
}

TEST_F(UsbIpServer, CarriesControlTransfers) {
    start({SimDevice{}});
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    client.submit_control(7, get_device);
    const UrbReply reply = client.next();
    EXPECT_EQ(reply.command, submit_reply);
    EXPECT_EQ(reply.sequence, 7U);
    EXPECT_EQ(reply.status, 0);
    ASSERT_EQ(reply.data.size(), 18U);
    EXPECT_EQ(reply.data[10], 0x35);
    EXPECT_EQ(reply.data[11], 0x3C);
    EXPECT_THAT(record(), HasSubstr("control\t80 06 0100 0000 0012\t1201"));
}

TEST_F(UsbIpServer, AnswersAnUnknownRequestWithAStall) {
    start({SimDevice{}});
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    client.submit_control(1, {0xC0, 0x77, 0, 0, 0, 0, 4, 0});
    const UrbReply reply = client.next();
    EXPECT_EQ(reply.status, -EPIPE);
    EXPECT_EQ(reply.actual, 0U);
    EXPECT_TRUE(client.silent()) << "a failed read carries no bytes";
}

TEST_F(UsbIpServer, HoldsAnInterruptReadUntilTheStatusArrives) {
    start({SimDevice{}});
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    client.submit_interrupt_in(1, 1, 64);
    EXPECT_TRUE(client.silent());
    client.submit_control(2, set_report(4), status_request);
    const UrbReply sent = client.next();
    EXPECT_EQ(sent.sequence, 2U);
    EXPECT_EQ(sent.status, 0);
    EXPECT_EQ(sent.actual, 4U);
    const UrbReply status = client.next();
    EXPECT_EQ(status.sequence, 1U);
    ASSERT_EQ(status.data.size(), 8U);
    EXPECT_EQ(status.data[0], 0x01);
}

TEST_F(UsbIpServer, TakesBackAWaitingTransfer) {
    start({SimDevice{}});
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    client.submit_interrupt_in(1, 1, 64);
    client.unlink(2, 1);
    const UrbReply reply = client.next();
    EXPECT_EQ(reply.command, unlink_reply);
    EXPECT_EQ(reply.sequence, 2U);
    EXPECT_EQ(reply.status, -ECONNRESET);
    client.unlink(3, 1);
    EXPECT_EQ(client.next().status, 0) << "what is over cannot be taken back";
}

TEST_F(UsbIpServer, LeavesATransferThatIsNeverAnsweredToTheHost) {
    start({SimDevice{}}, fault_text("printer", "set-report", "timeout"));
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    client.submit_control(1, set_report(4), status_request);
    EXPECT_TRUE(client.silent());
    client.unlink(2, 1);
    EXPECT_EQ(client.next().status, -ECONNRESET);
}

TEST_F(UsbIpServer, MapsFaultsToErrorNumbers) {
    start({SimDevice{}}, fault_text("printer", "set-report", "io-error") +
                             fault_text("printer", "set-report", "overflow", "number = 2\n"));
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    client.submit_control(1, set_report(4), status_request);
    EXPECT_EQ(client.next().status, -EPROTO);
    client.submit_control(2, set_report(4), status_request);
    EXPECT_EQ(client.next().status, -EOVERFLOW);
    client.submit_control(3, set_report(4), status_request);
    EXPECT_EQ(client.next().status, 0);
}

TEST_F(UsbIpServer, AnswersTheResetCommandThenDisconnectsAndComesBackAtTheSamePlace) {
    start({SimDevice{}});
    {
        UsbIpClient client(port);
        ASSERT_EQ(client.import("1-1"), 0U);
        client.submit_interrupt_in(1, 1, 64);
        client.submit_control(2, set_report(4), reset_command);
        const UrbReply reply = client.next();
        EXPECT_EQ(reply.sequence, 2U);
        EXPECT_EQ(reply.status, 0);
        EXPECT_TRUE(client.ends()) << "the waiting read gets no answer";
    }
    std::unique_ptr<UsbIpClient> client;
    ASSERT_TRUE(import_soon(port, "1-1", client));
    client->submit_control(1, get_device);
    EXPECT_EQ(client->next().status, 0);
    EXPECT_THAT(record(), HasSubstr("drop\treset"));
}

TEST_F(UsbIpServer, EndsTheConnectionOfADeviceThatIsUnplugged) {
    start({SimDevice{}, scanner()}, fault_text("printer", "set-report", "unplug"));
    UsbIpClient printer(port);
    UsbIpClient other(port);
    ASSERT_EQ(printer.import("1-1"), 0U);
    ASSERT_EQ(other.import("1-2"), 0U);
    printer.submit_control(1, set_report(4), status_request);
    EXPECT_TRUE(printer.ends());
    EXPECT_EQ(UsbIpClient(port).import("1-1"), 4U);
    other.submit_control(1, get_device);
    EXPECT_EQ(other.next().status, 0) << "the other device stays";
}

TEST_F(UsbIpServer, ServesSeveralDevicesAtOnce) {
    start({SimDevice{}, scanner()});
    UsbIpClient printer(port);
    UsbIpClient other(port);
    ASSERT_EQ(printer.import("1-1"), 0U);
    ASSERT_EQ(other.import("1-2"), 0U);
    printer.submit_interrupt_in(1, 1, 64);
    other.submit_interrupt_in(1, 1, 64);
    other.submit_control(2, set_report(4), status_request);
    EXPECT_EQ(other.next().sequence, 2U);
    EXPECT_EQ(other.next().data.size(), 8U);
    EXPECT_TRUE(printer.silent()) << "each gets its own status only";
    printer.submit_control(2, set_report(4), status_request);
    EXPECT_EQ(printer.next().sequence, 2U);
    EXPECT_EQ(printer.next().data.size(), 8U);
}

TEST_F(UsbIpServer, TakesMessagesInPieces) {
    start({SimDevice{}});
    UsbIpClient client(port);
    ASSERT_EQ(client.import("1-1"), 0U);
    Octets bytes = urb_header(1, 9, false, 0, 4, set_report(4));
    bytes.insert(bytes.end(), status_request.begin(), status_request.end());
    for (const std::uint8_t byte : bytes) {
        client.send({byte});
        usleep(1000);
    }
    EXPECT_EQ(client.next().actual, 4U);
}

struct Nonsense {
    const char* name;
    bool imported;
    Octets bytes;
};

void PrintTo(const Nonsense& shown, std::ostream* out) {
    *out << shown.name;
}

class UsbIpServerNonsense : public UsbIpServer, public testing::WithParamInterface<Nonsense> {};

TEST_P(UsbIpServerNonsense, EndsThatConnectionAndNoOther) {
    start({SimDevice{}, scanner()});
    UsbIpClient good(port);
    ASSERT_EQ(good.import("1-2"), 0U);
    UsbIpClient bad(port);
    if (GetParam().imported) {
        ASSERT_EQ(bad.import("1-1"), 0U);
    }
    bad.send(GetParam().bytes);
    EXPECT_TRUE(bad.ends());
    good.submit_control(1, get_device);
    EXPECT_EQ(good.next().status, 0);
}

namespace {

Octets isochronous() {
    Octets bytes = urb_header(1, 1, true, 1, 64);
    bytes[32] = bytes[33] = bytes[34] = 0;
    bytes[35] = 4;
    return bytes;
}

Octets twice(const Octets& bytes) {
    Octets both = bytes;
    both.insert(both.end(), bytes.begin(), bytes.end());
    return both;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    All, UsbIpServerNonsense,
    testing::Values(Nonsense{"UnknownOperation", false, {0x01, 0x11, 0x80, 0x09, 0, 0, 0, 0}},
                    Nonsense{"UnknownCommand", true, urb_header(77, 1, false, 0, 0)},
                    Nonsense{"TooLong", true, urb_header(1, 1, false, 0, 0x7FFFFFFF)},
                    Nonsense{"Isochronous", true, isochronous()},
                    Nonsense{"DirectionsThatDisagree", true,
                             urb_header(1, 1, true, 0, 4, set_report(4))},
                    Nonsense{"ASequenceNumberInUse", true, twice(urb_header(1, 1, true, 1, 64))}),
    [](const auto& shown) { return std::string(shown.param.name); });

TEST(KernelPorts, AreTheFreeOnesOfEveryController) {
    const TemporaryDirectory directory;
    const std::string heading = "hub port sta spd dev      sockfd local_busid\n";
    write_file(directory.path("status"), heading +
                                             "hs  0000 006 002 00010002 000003 1-1\n"
                                             "hs  0001 004 000 00000000 000000 0-0\n"
                                             "ss  0008 004 000 00000000 000000 0-0\n");
    write_file(directory.path("status.1"), heading + "hs  0016 004 000 00000000 000000 0-0\n");
    const zelfsim::usbip::KernelPorts ports(directory.path());
    EXPECT_TRUE(ports.present());
    EXPECT_THAT(ports.free_ports(), ElementsAre(1U, 16U));
}

TEST(KernelPorts, AreAbsentWithoutTheModule) {
    const TemporaryDirectory directory;
    const zelfsim::usbip::KernelPorts ports(directory.path("none"));
    EXPECT_FALSE(ports.present());
    EXPECT_TRUE(ports.free_ports().empty());
    EXPECT_EQ(ports.attach(0, 0, 0), ENOENT);
}

TEST(KernelPorts, TakeADeviceInTheKernelsWords) {
    const TemporaryDirectory directory;
    write_file(directory.path("attach"), "");
    EXPECT_EQ(zelfsim::usbip::KernelPorts(directory.path()).attach(3, 7, 0x10004), 0);
    EXPECT_EQ(read_file(directory.path("attach")), "3 7 65540 2");
}
