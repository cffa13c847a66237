#include "twin/run_lines.h"

#include "common/file_error.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/trace_reader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zelfsim {

std::vector<RunLine> last_run_lines(const std::string& trace) {
    struct Closer {
        void operator()(FILE* stream) const { std::fclose(stream); }
    };
    const std::unique_ptr<FILE, Closer> stream(std::fopen(trace.c_str(), "rbe"));
    if (stream == nullptr) {
        throw zelf::FileError(trace, 0, std::strerror(errno));
    }
    std::vector<RunLine> lines;
    TraceReader reader(stream.get());
    for (TraceEntry entry; reader.next(entry);) {
        if (entry.kind == trace_kind::version) {
            lines.clear();
        } else if (entry.kind == trace_kind::text) {
            lines.push_back({entry.clock, entry.payload});
        }
    }
    return lines;
}

}  // namespace zelfsim
