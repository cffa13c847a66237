#include "support/log_text.h"

#include "journal/output.h"

#include <cstdlib>

LogText::LogText(int level) : earlier_level_(OutputLevel) {
    hLogFile = open_memstream(&memory_, &size_);
    if (hLogFile == nullptr) {
        std::abort();
    }
    OutputLevel = level;
}

LogText::~LogText() {
    OutputLevel = earlier_level_;
    close_log_file();
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): open_memstream's own
    std::free(memory_);
}

std::string LogText::text() const {
    std::fflush(hLogFile);
    return {memory_, size_};
}
