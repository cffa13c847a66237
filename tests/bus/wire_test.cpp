// What goes over the wire: every command message as it is sent, and the requests that carry it.
#include "support/bus_test.h"
#include "support/hexadecimal.h"

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

// Command messages in hexadecimal.
constexpr char ec_level_query[] = "02000080";
constexpr char device_information_query[] = "0300000001";
constexpr char connection_probe[] = "0300000001";
constexpr char component_list_query[] = "06002000ffff0001";
constexpr char extended_list_query[] = "06002000ffff0002";

class Wire : public BusTest {
  protected:
    std::vector<std::string> setups(const std::string& device = "printer") const {
        std::vector<std::string> texts;
        for (const Transfer& one : record().class_requests(device)) {
            texts.push_back(one.setup);
        }
        return texts;
    }
};

std::vector<std::string> joined(const std::vector<std::vector<std::string>>& parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

const std::vector<std::string> information_queries = {
    connection_probe, device_information_query, ec_level_query, extended_list_query, stop_command};

}  // namespace

TEST_F(Wire, ListAsksForInformationAndTheExtendedList) {
    set_bus({SimDevice{}});
    EXPECT_EQ(run({"-L"}).exit_code, 0);
    EXPECT_THAT(commands("printer"), ElementsAreArray(information_queries));
}

TEST_F(Wire, CommandsTravelAsOutputReportsAndAnswersAsFeatureReports) {
    set_bus({SimDevice{}});
    run({"-L"});
    // The extended list's answer is fetched between the fourth command and the stop.
    EXPECT_THAT(setups(), ElementsAre("21 09 0200 0000 0005", "21 09 0200 0000 0005",
                                      "21 09 0200 0000 0004", "21 09 0200 0000 0008",
                                      "a1 01 0300 0000 0105", "21 09 0200 0000 0004"));
}

TEST_F(Wire, ReportIdsStandInTheRequestAndBeforeTheMessage) {
    SimDevice device;
    device.interface_keys = "report_ids = true";
    set_bus({device});
    EXPECT_EQ(run({"-L"}).console, list_line(0x3C35, 0, "01.02", "PR0001") + "\n");
    EXPECT_THAT(setups(), ElementsAre("21 09 0201 0000 0006", "21 09 0201 0000 0006",
                                      "21 09 0201 0000 0005", "21 09 0201 0000 0009",
                                      "a1 01 0303 0000 0105", "21 09 0201 0000 0005"));
    EXPECT_THAT(commands("printer"), ElementsAreArray(with_prefix("01", information_queries)));
}

TEST_F(Wire, RequestsNameTheFlashInterfaceOfADeviceWithSeveral) {
    SimDevice device;
    device.device_keys = "[[device.interface]]\nkind = \"keyboard\"";
    set_bus({device});
    EXPECT_EQ(run({"-L"}).console, list_line(0x3C35, 0, "01.02", "PR0001") + "\n");
    EXPECT_THAT(setups(), Contains("a1 01 0300 0001 0105"));
    EXPECT_THAT(commands("printer"), ElementsAreArray(information_queries));
    for (const std::string& setup : setups()) {
        EXPECT_EQ(setup.substr(11, 4), "0001");
    }
}

TEST_F(Wire, PlainListIsAskedForWithoutExtendedVersioning) {
    SimDevice device = two_components();
    device.interface_keys = "list = \"plain\"";
    set_bus({device});
    EXPECT_EQ(run({"-L"}).exit_code, 0);
    EXPECT_THAT(commands("printer"),
                ElementsAre(connection_probe, device_information_query, ec_level_query,
                            component_list_query, stop_command));
}

TEST_F(Wire, DeviceWithoutListsIsAskedForTheVersionOfComponentOne) {
    SimDevice device = two_components();
    device.interface_keys = "list = \"none\"";
    set_bus({device});
    EXPECT_EQ(run({"-L"}).exit_code, 0);
    EXPECT_THAT(commands("printer"),
                ElementsAre(connection_probe, device_information_query, ec_level_query,
                            component_list_query, "0600200002f10001", stop_command));
}

TEST_F(Wire, RejectedExtendedListIsFollowedByThePlainOneAtOnce) {
    set_bus({SimDevice{}}, fault_text("printer", "extended-list", "reject"));
    EXPECT_EQ(run({"-L"}).exit_code, 0);
    EXPECT_THAT(commands("printer"),
                ElementsAre(connection_probe, device_information_query, ec_level_query,
                            extended_list_query, component_list_query, stop_command));
}

TEST_F(Wire, UpdateSendsEraseEveryRecordAndTheChecksum) {
    const FirmwareFile file = {.component = 1};
    set_bus({two_components()});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_THAT(commands("printer"),
                ElementsAreArray(joined(
                    {information_queries, {erase_command}, file.messages(), {stop_command}})));
}

TEST_F(Wire, RecordMessageIsCountOperationLengthAndTheFilesBytes) {
    const FirmwareFile file = {.level = "0105", .component = 1, .build = 3, .data_records = 1};
    set_bus({two_components()});
    add_firmware("boot.dat", file);
    update();
    const std::vector<std::string> sent = commands("printer");
    ASSERT_EQ(sent.size(), 11U);
    EXPECT_EQ(sent[6], "0700020001ff000001");
    EXPECT_EQ(sent[7], "0b00020005ff00020105010203");
    EXPECT_EQ(sent[8],
              "0e0002000810000005"
              "0c131a21282f36");
    EXPECT_EQ(sent[9], "0500020000" + to_hex(file.checksum()));
}

TEST_F(Wire, LongestRecordIsSentWhole) {
    const FirmwareFile file = {.component = 1,
                               .data_records = 0,
                               .further_records = {from_hex("ff100000") + std::string(255, 'Z')}};
    add_firmware("boot.dat", file);
    set_bus({two_components()});
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
    EXPECT_THAT(commands("printer"), Contains("05010200ff100000" + to_hex(std::string(255, 'Z'))));
    EXPECT_THAT(setups(), Contains("21 09 0200 0000 0107"));
}

TEST_F(Wire, UpdateOfTheMainComponentEndsWithAReset) {
    const FirmwareFile file;
    set_bus({SimDevice{}});
    add_firmware("main.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    // The stop command fails, since the device is gone; then the table is built anew.
    EXPECT_THAT(commands("printer"), ElementsAreArray(joined({information_queries,
                                                              {erase_command},
                                                              file.messages(),
                                                              {reset_command, stop_command},
                                                              information_queries})));
}

TEST_F(Wire, UpdateWithReportIdsArrivesWhole) {
    SimDevice device = two_components();
    device.interface_keys = "report_ids = true";
    const FirmwareFile file = {.component = 1};
    set_bus({device});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    const std::vector<std::string> sent = commands("printer");
    ASSERT_GT(sent.size(), 6U);
    EXPECT_EQ(sent[5], "01" + std::string(erase_command));
    EXPECT_EQ(sent[6], "01" + file.messages().front());
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(Wire, ResetCommandSendsNothingButTheReset) {
    set_bus({SimDevice{}});
    EXPECT_EQ(run({"-R"}).exit_code, 0);
    EXPECT_THAT(commands("printer"),
                ElementsAreArray(joined({information_queries, {reset_command, stop_command}})));
}

TEST_F(Wire, ReadingAComponentAsksForItsRecordsAndFetchesThemBlockByBlock) {
    set_bus({two_components()});
    EXPECT_EQ(run({"-G", "1", "-w", path("read.dat")}).exit_code, 0);
    EXPECT_THAT(
        commands("printer"),
        ElementsAreArray(joined({information_queries, {"06002100ff100000", stop_command}})));
    const auto requests = record().class_requests("printer");
    std::size_t blocks = 0;
    for (const Transfer& one : requests) {
        blocks += one.setup == "a1 01 0300 0000 0105" ? 1 : 0;
    }
    // The list's answer; eight data records, at least one record of information, and the end.
    EXPECT_GE(blocks, 11U);
}

TEST_F(Wire, ComponentOverrideIsWrittenIntoEveryRecord) {
    const FirmwareFile file = {.component = 1, .data_records = 1};
    SimDevice device;
    device.components = {{}, {.id = 3}};
    set_bus({device});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update({"-c", "3"}).exit_code, 0);
    const std::vector<std::string> sent = commands("printer");
    ASSERT_EQ(sent.size(), 11U);
    EXPECT_EQ(sent[6], "0700020001ff000003");
    EXPECT_EQ(sent[7], "0b00020005ff00020305010200");
    EXPECT_THAT(sent[8], StartsWith("0e0002000830000005"));
    EXPECT_EQ(sent[9], "0500020000" + to_hex(file.checksum()));
    EXPECT_EQ(state().component(3).level, "01.05");
}

TEST_F(Wire, DataAnswerComesFromTheSecondUsageWhenTheFirstIsNotThere) {
    SimDevice device;
    device.interface_keys = "feature_usage = 0x1603";
    set_bus({device});
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.console, list_line(0x3C35, 0, "01.02", "PR0001") + "\n");
    EXPECT_THAT(result.log, HasSubstr("Get Feature Report a003 rc=12\n"));
}

TEST_F(Wire, KernelDriverIsDetachedBeforeTheInterfaceIsClaimed) {
    set_bus({SimDevice{}});
    run({"-L"});
    const auto all = record();
    EXPECT_THAT(all.of_kind("printer", "detach"), Not(IsEmpty()));
    const auto claims = all.of_kind("printer", "claim");
    ASSERT_GE(claims.size(), 2U);
    EXPECT_EQ(claims[0].result, -6);
    EXPECT_EQ(claims[1].result, 0);
}

TEST_F(Wire, NoClosedHandleIsEverUsed) {
    set_bus({two_components(), {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}},
            fault_text("scanner", "record", "unplug", "number = 4"));
    add_firmware("boot.dat", {.component = 1});
    add_firmware("scanner.dat", {.product = 0x3C36});
    EXPECT_EQ(update({"-a"}).exit_code, 0);
    EXPECT_EQ(record().of_kind("scanner", "fault").size(), 1U);
    for (const Transfer& one : record().all()) {
        EXPECT_NE(one.kind, "misuse") << one.device << " " << one.setup;
    }
}
