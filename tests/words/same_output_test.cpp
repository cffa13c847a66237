// What a run writes does not depend on the program's word size: console, log, trace and the files
// asked for are compared byte for byte, but for what tells one run from the next.
#include "support/bus_test.h"
#include "support/hexadecimal.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

namespace {

/// The moments of a run, and the addresses in debug messages, which are as wide as a pointer.
std::string without_moments(const std::string& text) {
    static const std::regex moment("(USB Flash (?:Started|ended) at )[^\n]+");
    static const std::regex address("((?:hThread|hiddev)=)(?:0x[0-9a-f]+|\\(nil\\))");
    return std::regex_replace(std::regex_replace(text, moment, "$1*"), address, "$1*");
}

/// Which of the program's threads write into its journals.
enum class Writers {
    main_thread,
    /// With debug messages the reader writes too: only the order within a thread is fixed.
    both_threads,
    /// A reader whose device has dropped fails until it is stopped, if it comes to that at all.
    reader_without_device
};

/// Two threads set these, so their values in a debug message are a matter of who came first.
std::string without_races(const std::string& line) {
    static const std::regex shared(
        "(status_ready|last_status|in_progress|stopped|device_closed|in_use)=[0-9a-f]+");
    return std::regex_replace(line, shared, "$1=*");
}

/// What is there more or less often, depending on the machine's load.
bool is_chance(const std::string& line) {
    return line.find("sleeping while waiting") != std::string::npos ||
           line.find(": Failure reading from flash device, rc=13.") != std::string::npos;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += text;
    }
    return all;
}

std::string sorted(std::vector<std::string> texts, Writers writers) {
    std::sort(texts.begin(), texts.end());
    if (writers == Writers::reader_without_device) {
        texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    }
    return joined(texts);
}

/// The log; where both threads write, its lines without the order, which the trace tells by thread.
std::string log_text(const std::string& log, Writers writers) {
    if (writers == Writers::main_thread) {
        return without_moments(log);
    }
    std::vector<std::string> lines;
    std::istringstream stream(without_moments(log));
    for (std::string line; std::getline(stream, line);) {
        if (!is_chance(line)) {
            lines.push_back(without_races(line) + "\n");
        }
    }
    return sorted(std::move(lines), writers);
}

/// A record as text: all of the header that does not tell one run from the next, and the payload.
std::string record_text(const TraceRecord& record) {
    std::string payload = to_hex(record.payload);
    std::string length = std::to_string(record.length);
    if (record.kind == record_kind::text) {
        payload = without_moments(record.payload);
        if (payload != record.payload) {
            EXPECT_EQ(record.length, record.payload.size());
            length = "*";
        }
    }
    return std::to_string(record.kind) + " " + length + " " + std::to_string(record.component) +
           " " + std::to_string(record.reserved) + " " + payload + "\n";
}

/// The records of the main thread, then those of the readers. Device openings follow one another,
/// and so do their readers.
std::string trace_text(const std::vector<TraceRecord>& records, Writers writers) {
    std::vector<std::string> main_thread, readers;
    for (const TraceRecord& record : records) {
        std::string text = record_text(record);
        if (writers != Writers::main_thread) {
            text = is_chance(text) ? "" : without_races(text);
        }
        (record.thread == records[0].thread ? main_thread : readers).push_back(text);
    }
    return joined(main_thread) + "-- readers --\n" +
           (writers == Writers::reader_without_device ? sorted(std::move(readers), writers)
                                                      : joined(readers));
}

/// What one run left behind, by what it is called.
using Outputs = std::map<std::string, std::string>;

struct ProgramRun {
    std::vector<std::string> arguments;
    int exit_code = 0;
    std::vector<std::string> files = {};  ///< that it writes into the test's directory
    Writers writers = Writers::main_thread;
};

class WordSizes : public BusTest {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(sibling_program)) {
            GTEST_SKIP() << "one word size only: there is no " << sibling_program;
        }
        run_in_real_time();  // a program of the other word size takes no clock of this one
    }

    /// Does the runs, one after the other on a fresh bus, with both programs.
    void expect_same_output(const std::vector<ProgramRun>& runs) {
        const std::vector<Outputs> here = do_runs(ZELFWUPDATE, SIMULATION_DIRECTORY, runs);
        const std::vector<Outputs> there =
            do_runs(sibling_program, std::string(SIBLING_TREE) + "/sim", runs);
        for (std::size_t i = 0; i < runs.size(); ++i) {
            for (const auto& [name, text] : here[i]) {
                EXPECT_EQ(text, there[i].at(name)) << name << " of run " << i + 1;
            }
        }
    }

    const std::string sibling_program = std::string(SIBLING_TREE) + "/zelfwupdate";

  private:
    std::vector<Outputs> do_runs(const std::string& program, const std::string& simulation,
                                 const std::vector<ProgramRun>& runs) {
        settings.program = program;
        settings.simulation = simulation;
        std::filesystem::remove_all(path("state"));
        std::vector<Outputs> all;
        for (const ProgramRun& one : runs) {
            all.push_back(do_run(one));
        }
        return all;
    }

    Outputs do_run(const ProgramRun& one) {
        for (const std::string& file : one.files) {
            std::filesystem::remove(path(file));
        }
        const RunResult result = run(one.arguments);
        EXPECT_EQ(result.exit_code, one.exit_code) << result.console;
        Outputs left = {{"console", result.console},
                        {"standard error", result.errors},
                        {"log", log_text(result.log, one.writers)},
                        {"trace", trace_text(trace(), one.writers)}};
        for (const std::string& file : one.files) {
            EXPECT_TRUE(std::filesystem::exists(path(file))) << file;
            left[file] = to_hex(read_file(path(file)));
        }
        return left;
    }
};

/// A printer with everything, and a scanner of an older make.
std::vector<SimDevice> till() {
    SimDevice printer = {
        .components = {{.build = 2}, {.id = 1, .level = "02.3f", .type = "configuration"}},
        .device_keys = "bcd = 0x0102"};
    printer.interface_keys = "device_type = 0x21\nprevious_level = \"01.01\"\nreport_ids = true";
    SimDevice scanner = {.name = "scanner",
                         .product = 0xFC36,
                         .serial = "SC-77",
                         .components = {{.level = "a1.fe"}, {.id = 14, .type = "font"}},
                         .vendor = 0x7A02};
    scanner.interface_keys = "list = \"plain\"\nin_packet = 8";
    return {printer, scanner};
}

}  // namespace

TEST_F(WordSizes, ListTheSameDevices) {
    set_bus(till());
    expect_same_output({{.arguments = {"-L"}},
                        {.arguments = {"-L", "-s", "SC-77"}},
                        {.arguments = {"-L", "-d", "3c99"}}});
}

TEST_F(WordSizes, LogTheSameDebugMessages) {
    set_bus(till());
    expect_same_output({{.arguments = {"-L", "-n", "3"}, .writers = Writers::both_threads}});
}

TEST_F(WordSizes, ShowTheSameFirmwareFiles) {
    add_firmware("main.dat", {.build = 3});
    add_firmware("font.dat", {.product = 0xFC36, .level = "ff09", .component = 14, .type = 3});
    add_raw_firmware("torn.dat", FirmwareFile{}.bytes().substr(0, 21));
    add_raw_firmware("text.dat", "no firmware at all\n");
    expect_same_output({{.arguments = {"-S", "-p", firmware_directory()}}});
}

TEST_F(WordSizes, DisplayTheSameRecords) {
    add_firmware("font.dat",
                 {.product = 0xFC36,
                  .level = "ff09",
                  .component = 14,
                  .type = 3,
                  .further_records = {from_hex("03ff0001e0f1a2"), from_hex("0281fffeffff")}});
    expect_same_output({{.arguments = {"-D", firmware_path("font.dat")}}});
}

TEST_F(WordSizes, UpdateInTheSameWay) {
    set_bus(till());
    add_firmware("main.dat", {.build = 3, .data_records = 12});
    add_firmware("font.dat", {.product = 0xFC36, .component = 14, .type = 3});
    expect_same_output({{.arguments = {"-U", "-p", firmware_directory(), "-r", path("rma.txt")},
                         .files = {"rma.txt"},
                         .writers = Writers::reader_without_device},
                        {.arguments = {"-L"}},
                        {.arguments = {"-U", "-p", firmware_directory(), "-r", path("rma.txt")},
                         .exit_code = 6,
                         .files = {"rma.txt"}}});
}

TEST_F(WordSizes, LogTheSameDebugMessagesOfAnUpdate) {
    set_bus(till());
    add_firmware("font.dat", {.product = 0xFC36, .component = 14, .type = 3});
    expect_same_output({{.arguments = {"-U", "-p", firmware_directory(), "-n", "3"},
                         .writers = Writers::both_threads}});
}

TEST_F(WordSizes, ResetTheSameDevices) {
    set_bus(till());
    expect_same_output(
        {{.arguments = {"-R", "-d", "3c35"}, .writers = Writers::reader_without_device}});
}

TEST_F(WordSizes, ReadTheSameDataBack) {
    set_bus(till());
    add_firmware("configuration.dat", {.level = "0250", .component = 1, .type = 2});
    expect_same_output(
        {{.arguments = {"-U", "-p", firmware_directory()}},
         {.arguments = {"-G", "1", "-d", "3c35", "-w", path("read.dat")}, .files = {"read.dat"}}});
}

TEST_F(WordSizes, FailInTheSameWay) {
    set_bus(till(), fault_text("printer", "record", "operation-error", "number = 4") +
                        fault_text("scanner", "checksum", "reject"));
    add_firmware("main.dat", {.build = 3});
    add_firmware("font.dat", {.product = 0xFC36, .component = 14, .type = 3});
    expect_same_output(
        {{.arguments = {"-U", "-a", "-p", firmware_directory(), "-r", path("rma.txt")},
          .exit_code = 6,
          .files = {"rma.txt"},
          .writers = Writers::reader_without_device}});
}

TEST_F(WordSizes, FollowTheSameConfigurationFile) {
    set_bus(till());
    add_firmware("font.dat", {.product = 0xFC36, .component = 14, .type = 3});
    add_firmware("main.dat", {.build = 3});
    write_file(path("zelflash.cfg"), "#main.dat\nfont.dat\nmissing.dat\n");
    expect_same_output({{.arguments = {"-C", path("zelflash.cfg"), "-p", firmware_directory()}}});
}
