#include "zelfwtrace/record_kind.h"

#include "journal/zelfwtrace.h"

namespace {

struct KindName {
    std::uint32_t kind;
    const char* name;
};
constexpr KindName kind_names[] = {
    {trace_kind::version, "version"},     {trace_kind::text, "text"},
    {trace_kind::report_written, "sent"}, {trace_kind::status_read, "status"},
    {trace_kind::feature_read, "data"},
};

}  // namespace

const char* record_kind_name(std::uint32_t kind) {
    for (const KindName& row : kind_names) {
        if (row.kind == kind) {
            return row.name;
        }
    }
    return "unknown";
}

std::optional<std::uint32_t> record_kind_of(std::string_view name) {
    for (const KindName& row : kind_names) {
        if (name == row.name) {
            return row.kind;
        }
    }
    return std::nullopt;
}

std::string record_kind_names() {
    std::string names;
    for (const KindName& row : kind_names) {
        names.append(names.empty() ? "" : ", ").append(row.name);
    }
    return names;
}
