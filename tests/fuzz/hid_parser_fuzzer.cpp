// Report descriptors, as a device answers them.
#include "support/check.h"
#include "usb/hidparse.h"

#include <algorithm>
#include <limits>

namespace {

using Get = HidReport* (HidParser::*)(int);

void check_reports(HidParser& parser, int32_t count, Get get) {
    check(count >= 0 && count <= HidParser::max_reports, "the report count stays in its table");
    for (int i = 0; i < count; ++i) {
        const HidReport* const report = (parser.*get)(i);
        check(report != nullptr, "there is a record below the count");
        check(report->Size >= 1, "a report has at least a byte");
        check(report->UseIDs == (report->ReportID != 0 ? 1 : 0), "UseIDs follows the report ID");
        check(report->Type == 8 || report->Type == 9 || report->Type == 11,
              "a record is of a main item with data");
    }
    check((parser.*get)(count) == nullptr && (parser.*get)(-1) == nullptr,
          "there is no record outside the count");
}

void check_parser(HidParser& parser) {
    check_reports(parser, parser.InputReportIndex, &HidParser::GetInputReport);
    check_reports(parser, parser.OutputReportIndex, &HidParser::GetOutputReport);
    check_reports(parser, parser.FeatureReportIndex, &HidParser::GetFeatureReport);
    const int reports =
        parser.InputReportIndex + parser.OutputReportIndex + parser.FeatureReportIndex;
    check(parser.UsageIndex == std::min(reports, HidParser::max_reports) ||
              (parser.UsageIndex == HidParser::max_reports && reports > HidParser::max_reports),
          "each record's usage is kept while there is room");
    check(parser.Local.UsageIndex <= std::size(parser.Local.u), "local usages stay in their table");
    check(parser.StackPtr >= 0 && parser.StackPtr <= static_cast<int>(parser.GlobalStack.size()),
          "the stack pointer stays in the stack");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    HidParser parser(
        data, static_cast<uint16_t>(std::min<size_t>(size, std::numeric_limits<uint16_t>::max())));
    check(parser.Parse() == 0, "parsing returns 0");
    check_parser(parser);
    // What the first pass left on the stack and in the lists bounds the second one too.
    check(parser.Parse() == 0, "parsing again returns 0");
    check_parser(parser);
    return 0;
}
