#include "support/trace_object.h"

#include "journal/zelfwtrace.h"

std::size_t trace_object_size() {
    return sizeof(Trace);
}
