#include "trace_tool.h"

#include <sys/wait.h>

#include <cstdio>
#include <regex>
#include <sstream>

std::vector<std::string> ToolRun::lines() const {
    std::vector<std::string> all;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        all.push_back(line);
    }
    return all;
}

std::string quoted(const std::string& word) {
    return "'" + word + "'";
}

ToolRun run_shell(const std::string& command, const TemporaryDirectory& directory) {
    const std::string errors = directory.path("errors.txt").string();
    ToolRun run;
    FILE* pipe = popen(("{ " + command + "; } 2>" + quoted(errors)).c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[4096];
    for (std::size_t size = 0; (size = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        run.output.append(buffer, size);
    }
    const int status = pclose(pipe);
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.errors = read_file(errors);
    return run;
}

ToolRun TraceToolTest::run(const std::string& arguments) const {
    return run_shell(quoted(ZELFWTRACE) + " " + arguments, directory_);
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
