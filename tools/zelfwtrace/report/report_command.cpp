#include "zelfwtrace/report/report_command.h"

#include "common/file_access.h"
#include "zelfwtrace/report/fleet_page.h"
#include "zelfwtrace/report/report_page.h"

#include <sys/stat.h>

#include <cstdio>
#include <utility>

namespace {

bool is_same_file(const std::string& one, const std::string& other) {
    struct stat first = {}, second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/// "NAME=FILE"; a name has no '/', so that "./a=b" is a file.
ReportedTill till_of(const std::string& operand) {
    ReportedTill till;
    const std::size_t sign = operand.find('=');
    const bool has_name = sign != std::string::npos && sign > 0 && operand.find('/') > sign;
    till.name = has_name ? operand.substr(0, sign) : "";
    till.file = has_name ? operand.substr(sign + 1) : operand;
    till.runs = std::make_unique<RunDigests>();
    return till;
}

bool write_file(const std::string& path, const std::string& text, const TellFailure& tell) {
    if (path == "-") {
        return fwrite(text.data(), 1, text.size(), stdout) == text.size();
    }
    try {
        zelf::replace_file(path, text);
    } catch (const zelf::FileError& error) {
        const std::string what = error.what();
        tell(path, what.starts_with(path + ": ") ? what.substr(path.size() + 2) : what);
        return false;
    }
    return true;
}

std::string read_till(const std::string& file, RunDigests& runs, const TraceRead& read,
                      bool& is_damaged) {
    DigestOutput output(runs);
    std::string reason = read(file, output, is_damaged);
    output.finish();
    return reason;
}

bool write_tills(const TraceArguments& arguments, const TraceRead& read, const TellFailure& tell) {
    std::vector<ReportedTill> tills;
    bool is_well = true;
    for (const std::string& operand : arguments.files) {
        ReportedTill till = till_of(operand);
        if (is_same_file(till.file, arguments.capture)) {
            tell(arguments.capture, "the page would replace the trace itself");
            return false;
        }
        const std::string reason = read_till(till.file, *till.runs, read, till.is_damaged);
        if (reason.empty()) {
            is_well = is_well && !till.is_damaged;
            tills.push_back(std::move(till));
        } else {
            tell(till.file, reason);
            is_well = false;
        }
    }
    return !tills.empty() &&
           write_file(arguments.capture, report_page(tills, arguments.zone), tell) && is_well;
}

std::string directory_of(const std::string& path) {
    return path.substr(0, path.find_last_of('/') + 1);
}

/// "report.html" gives "report.json".
std::string beside(const std::string& page, const char* ending) {
    const std::size_t name = directory_of(page).size();
    const std::size_t dot = page.find_last_of('.');
    return (dot == std::string::npos || dot <= name ? page : page.substr(0, dot)) + ending;
}

bool read_traces(const std::string& directory, std::vector<FleetTill>& tills, const TraceRead& read,
                 const TellFailure& tell) {
    bool is_well = true;
    for (FleetTill& till : tills) {
        const std::string& trace = till.listed.trace;
        if (trace.empty()) {
            continue;
        }
        RunDigests runs;
        bool is_damaged = false;
        const std::string file = trace.front() == '/' ? trace : directory + trace;
        till.fault = read_till(file, runs, read, is_damaged);
        if (till.fault.empty()) {
            conclude(runs, till);
        } else {
            tell(file, till.fault);
        }
        is_well = is_well && till.fault.empty() && !is_damaged;
    }
    return is_well;
}

bool write_fleet(const TraceArguments& arguments, const TraceRead& read, const TellFailure& tell) {
    if (!zelf::exists(arguments.tills)) {
        tell(arguments.tills, "there is no such file");
        return false;
    }
    const zelf::Bytes bytes = zelf::read_bytes_of(arguments.tills);
    std::vector<FleetTill> tills;
    try {
        for (ListedTill& listed : read_tills(std::string(bytes.begin(), bytes.end()))) {
            tills.emplace_back().listed = std::move(listed);
        }
    } catch (const std::runtime_error& error) {
        tell(arguments.tills, error.what());
        return false;
    }
    const bool is_well = read_traces(directory_of(arguments.tills), tills, read, tell);
    const std::string json = beside(arguments.capture, ".json");
    const std::string csv = beside(arguments.capture, ".csv");
    for (const std::string& file : {arguments.capture, json, csv}) {
        if (is_same_file(file, arguments.tills)) {
            tell(file, "the report would replace the list itself");
            return false;
        }
    }
    return write_file(arguments.capture, fleet_page(tills, json, csv), tell) &&
           write_file(json, fleet_json(tills), tell) && write_file(csv, fleet_csv(tills), tell) &&
           is_well;
}

}  // namespace

bool write_report(const TraceArguments& arguments, const TraceRead& read, const TellFailure& tell) {
    return arguments.tills.empty() ? write_tills(arguments, read, tell)
                                   : write_fleet(arguments, read, tell);
}
