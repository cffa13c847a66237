#include "zelfwtrace/output.h"

std::unique_ptr<TraceOutput> capture_output(const std::string& /*path*/, std::string& reason) {
    reason = "this zelfwtrace was built without libpcap and writes no captures";
    return nullptr;
}
