#include "support/log_capture.h"

#include <cstdio>

LogCapture::LogCapture(int level) : old_level(OutputLevel) {
    hLogFile = std::tmpfile();
    OutputLevel = level;
}

LogCapture::~LogCapture() {
    close_log_file();
    OutputLevel = old_level;
}

std::string LogCapture::text() const {
    std::string whole;
    std::fflush(hLogFile);
    std::rewind(hLogFile);
    char part[4096];
    size_t count = 0;
    while ((count = std::fread(part, 1, sizeof part, hLogFile)) > 0) {
        whole.append(part, count);
    }
    std::fseek(hLogFile, 0, SEEK_END);
    return whole;
}

int LogCapture::count(const std::string& line) const {
    const std::string whole = text();
    int found = 0;
    for (size_t at = whole.find(line); at != std::string::npos;
         at = whole.find(line, at + line.size())) {
        ++found;
    }
    return found;
}
