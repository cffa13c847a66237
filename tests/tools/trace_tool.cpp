#include "trace_tool.h"

#include <regex>

ToolRun TraceToolTest::run(const std::string& arguments) const {
    return run_tool(quoted(ZELFWTRACE) + " " + arguments);
}

ToolRun TraceToolTest::show(const std::string& options) const {
    return run(options + " --utc " + quoted(path("trace.bin")));
}

std::vector<std::string> TraceToolTest::words(const std::string& options) const {
    return words_of(show(options).lines());
}

std::vector<std::string> words_of(const std::vector<std::string>& lines) {
    static const std::regex stamps(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+\.\d{3}  \d+/[0-9a-f]{8}  (.*))");
    std::vector<std::string> all;
    for (const std::string& line : lines) {
        std::smatch parts;
        all.push_back(std::regex_match(line, parts, stamps) ? parts[1].str()
                                                            : "not a line: " + line);
    }
    return all;
}
