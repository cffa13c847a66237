/// \file
/// The fixture of the bus tests: a directory with bus file, state, firmware and journals of its
/// own, so that all tests run side by side.
#pragma once

#include "support/bus_text.h"
#include "support/device_state.h"
#include "support/firmware_file.h"
#include "support/program.h"
#include "support/run_ends.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"
#include "support/transfer_record.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

class BusTest : public testing::Test {
  protected:
    BusTest();

    void set_bus(const std::string& text);
    void set_bus(const std::vector<SimDevice>& devices, const std::string& further = "") {
        set_bus(bus_text(devices, further));
    }
    /// Writes a firmware file into the firmware directory and gives its path.
    std::string add_firmware(const std::string& name, const FirmwareFile& file);
    std::string add_raw_firmware(const std::string& name, const std::string& bytes);
    std::string firmware_directory() const { return directory_.path("firmware"); }
    std::string firmware_path(const std::string& name) const {
        return firmware_directory() + "/" + name;
    }
    std::string path(const std::string& name) const { return directory_.path(name); }

    /// From now on the test's runs last as long as they say. Others are in virtual time, where
    /// there is one; a program that is started and talked to from outside never is.
    void run_in_real_time() { is_real_time_ = true; }

    /// Runs the program to its end, with log and trace in the test's directory.
    RunResult run(std::vector<std::string> arguments);
    /// `-U` on the firmware directory.
    RunResult update(std::vector<std::string> further = {});
    /// Runs the program with these arguments and no others.
    RunResult run_plainly(const std::vector<std::string>& arguments);
    std::unique_ptr<ProgramProcess> start(std::vector<std::string> arguments);

    /// Record and state of the bus after the last run.
    TransferRecord record() const { return TransferRecord(directory_.path("record.tsv")); }
    std::vector<std::string> commands(const std::string& device) const {
        return record().commands(device);
    }
    std::vector<TraceRecord> trace() const { return read_trace(directory_.path("trace.bin")); }
    DeviceState state(const std::string& device = "printer") const;
    /// The last whole image of a component; empty before its first update.
    std::string image(const std::string& device, int component) const;
    /// The result column of the device's update history.
    std::vector<std::string> history(const std::string& device = "printer") const;

    ProgramSettings settings;  ///< for the next run
    RunEnds ends;              ///< judges every run; what is unusual must be expected here
    /// The program's own time-out of 100 ms for information is short on a busy machine.
    int information_timeout = 3000;

  private:
    /// The settings of a run that nobody talks to.
    ProgramSettings settings_of_whole_run() const;
    /// In front of a test's own arguments and behind them.
    std::vector<std::string> with_journals(std::vector<std::string> arguments);

    TemporaryDirectory directory_;
    bool is_real_time_ = false;
};

/// How often a text contains a line, given without its newline.
int count_lines(const std::string& text, const std::string& line);

/// The line of `-L` of a firmware component without build level.
std::string list_line(unsigned int product, int component, const std::string& level,
                      const std::string& serial);
