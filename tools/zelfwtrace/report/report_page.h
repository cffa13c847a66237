/// \file
/// The page of one or several tills, from their traces.
#pragma once

#include "common/time_text.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/report/run_digest.h"

#include <memory>
#include <string>
#include <vector>

/// A till, or just a file, and what its trace tells.
struct ReportedTill {
    std::string name;  ///< empty: the file's own
    std::string file;
    std::unique_ptr<RunDigests> runs;
    bool is_damaged = false;
};

/// Gathers a trace.
class DigestOutput : public TraceOutput {
  public:
    explicit DigestOutput(RunDigests& digests) : digests_(digests) {}
    void take(const TraceEntry& entry, const Meaning& meaning) override {
        digests_.take(entry, meaning);
    }
    std::string finish() override {
        digests_.finish();
        return "";
    }

  private:
    RunDigests& digests_;
};

std::string report_page(const std::vector<ReportedTill>& tills, zelf::TimeZone zone);
