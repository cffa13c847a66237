// The configuration file (-C), and the files that it names in a directory of a few.
#include "firmware/firmware_search.h"
#include "settings.h"
#include "support/check.h"
#include "support/scratch_directory.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr std::size_t longest_name = 254;

/// The names, straight from the rules: one a line, '#' starts a comment.
std::vector<std::string> names_in(const std::string& content) {
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start < content.size()) {
        const std::size_t newline = std::min(content.find('\n', start), content.size());
        const std::string line = content.substr(start, newline - start);
        start = newline + 1;
        const bool is_name = !line.starts_with('#') && line.size() <= longest_name &&
                             line.find('\0') == std::string::npos;
        if (is_name && names.size() < max_list_entries) {
            names.push_back(line);
        }
    }
    return names;
}

void make_firmware_files() {
    constexpr std::uint8_t printer[] = "3C020102\x01\x01\x00\x00\x55\x00\x00";
    write_scratch_file("a.dat", printer);
    write_scratch_file("b.cfg", std::span(printer).first(10));
    write_scratch_file("c", {});
}

void check_files_table() {
    check(numberOfusbFlashFiles >= 0 && numberOfusbFlashFiles <= numberOffwfilenames,
          "there are not more files than names");
    for (int i = 0; i < numberOfusbFlashFiles; ++i) {
        check(std::string(files[i].fullname) == std::string(files[i].path) + files[i].filename,
              "a file's path is its directory and its name");
        check(files[i].comp_type >= 0 && files[i].comp_type <= 3, "a row's type is a known one");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool made = (make_firmware_files(), true);
    static_cast<void>(made);
    const std::string path = write_scratch_file("flash.cfg", {data, size});
    read_config_file(path.c_str());

    const std::string content(data, data + size);
    const std::vector<std::string> names = names_in(content);
    check(numberOffwfilenames == static_cast<int>(names.size()), "every line names a file");
    for (std::size_t i = 0; i < names.size(); ++i) {
        check(names[i] == fwfilename[i], "a name is its line");
    }
    // A path could lead anywhere: only names in the directory are opened.
    if (content.find('/') == std::string::npos) {
        std::snprintf(DirName, sizeof DirName, "%s", scratch_directory().c_str());
        check(read_firmware_files() == 0, "reading the files returns 0");
        check_files_table();
    }
    return 0;
}
