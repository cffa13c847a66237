#include "support/workspace.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

Workspace::Workspace() {
    std::string name = std::filesystem::temp_directory_path().string() + "/sim-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        ADD_FAILURE() << "no temporary directory";
    }
    directory_ = name;
}

Workspace::~Workspace() {
    std::error_code error;
    std::filesystem::remove_all(directory_, error);
}

std::string Workspace::write(std::string_view name, std::string_view text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
}

std::string Workspace::read(std::string_view name) const {
    std::ifstream stream(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void Workspace::use_bus(std::string_view text) const {
    write("bus.toml", text);
    setenv("ZELFWSIM_BUS", bus().c_str(), 1);
    setenv("ZELFWSIM_STATE", state().c_str(), 1);
    setenv("ZELFWSIM_RECORD", record().c_str(), 1);
}

std::vector<RecordLine> read_record(const std::string& file) {
    std::vector<RecordLine> lines;
    std::ifstream stream(file);
    std::string text;
    while (std::getline(stream, text)) {
        std::vector<std::string> fields;
        std::istringstream columns(text);
        for (std::string field; std::getline(columns, field, '\t');) {
            fields.push_back(field);
        }
        if (fields.size() != 7) {
            ADD_FAILURE() << "not a record line: " << text;
            continue;
        }
        lines.push_back({std::stod(fields[0]), fields[1], std::stoi(fields[2]), fields[3],
                         fields[4], fields[5], std::stoi(fields[6])});
    }
    return lines;
}

int count_kind(const std::vector<RecordLine>& lines, std::string_view kind) {
    int count = 0;
    for (const RecordLine& line : lines) {
        count += line.kind == kind ? 1 : 0;
    }
    return count;
}

Outcome run(const std::string& command) {
    Outcome result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run " << command;
        return result;
    }
    std::array<char, 4096> buffer{};
    for (std::size_t size = 1; size > 0;) {
        size = fread(buffer.data(), 1, buffer.size(), pipe);
        result.output.append(buffer.data(), size);
    }
    const int status = pclose(pipe);
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}
