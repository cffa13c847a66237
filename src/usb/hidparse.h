/// \file
/// The parser of HID report descriptors (HID 1.11, section 6.2.2): one record per usage of each
/// Input, Output and Feature main item.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

/// One usage with its page.
struct _UsageAndPage {
    uint16_t Usage;
    uint16_t UsagePage;
};
using UsageAndPage = _UsageAndPage;

/// A usage that produced a report.
struct _ReportUsage {
    UsageAndPage u;
    uint8_t ReportID;
    uint16_t Type;  ///< tag of the main item: 8, 9 or 11
};
using ReportUsage = _ReportUsage;

/// Global item state (HID 1.11, section 6.2.2.7).
struct GlobalStruct {
    uint16_t UsagePage;
    int32_t LogicalMinimum;
    int32_t LogicalMaximum;
    int32_t PhysicalMinimum;
    int32_t PhysicalMaximum;
    uint32_t UnitExponent;
    uint32_t Unit;
    uint8_t ReportID;
    uint32_t ReportSize;  ///< bits
    uint32_t ReportCount;
};

/// Local item state (HID 1.11, section 6.2.2.8), cleared after each handled main item.
struct LocalStruct {
    UsageAndPage u[32];   ///< the usages collected so far
    uint32_t UsageIndex;  ///< entries used in `u`
    UsageAndPage UsageMinimum;
    UsageAndPage UsageMaximum;
    uint32_t Delimiter;  ///< 1 while a delimiter set is open
};

/// One usage of one main item; each usage carries the byte size of the whole item.
struct HidReport {
    uint16_t Type;  ///< 8 Input, 9 Output, 11 Feature
    uint8_t ReportID;
    uint8_t UseIDs;       ///< 1 if `ReportID` is non-zero
    uint32_t Size;        ///< bytes, at least 1
    uint32_t ReportSize;  ///< bits
    uint32_t ReportCount;
    uint16_t Usage;
    uint16_t UsagePage;
};

/// A collection node; the parser makes none.
struct _LinkCollection {
    uint16_t LinkUsage;
    uint16_t LinkUsagePage;
    uint16_t Parent;
    uint16_t NumberOfChildren;
    uint16_t NextSibling;
    uint16_t FirstChild;
    uint16_t CollectionType;
    uint16_t IsAlias;
};
using LinkCollection = _LinkCollection;

/// Parses one report descriptor. Malformed input gives fewer or odd records, never an error: it is
/// bounded by the copy of 8192 bytes and by the lists, beyond which entries are dropped.
class HidParser {
  public:
    static constexpr int max_descriptor = 8192;
    static constexpr int max_reports = 96;
    using ReportList = std::array<std::unique_ptr<HidReport>, max_reports>;

    /// Copies at most 8192 bytes of `descriptor`; does not parse.
    HidParser(const unsigned char* descriptor, unsigned short length);

    /// Parses the whole descriptor. Returns 0, as every step of it does, whatever an item holds.
    int Parse();

    /// The i-th record, which the parser owns, or null when there is none.
    HidReport* GetInputReport(int i);
    HidReport* GetOutputReport(int i);
    HidReport* GetFeatureReport(int i);

    std::array<uint8_t, max_descriptor> Descriptor{};  ///< zero past the descriptor's end
    uint16_t DescriptorLength = 0;
    uint8_t ItemSize = 0;  ///< size code (0 to 3), not the byte count
    uint8_t ItemType = 0;  ///< 0 main, 1 global, 2 local, 3 reserved
    uint8_t ItemTag = 0;
    int32_t ItemData = 0;  ///< little-endian, zero-extended
    int32_t UsageIndex = 0;
    std::array<ReportUsage, max_reports> Usages{};
    int32_t InputReportIndex = 0;
    ReportList InputReports;
    int32_t OutputReportIndex = 0;
    ReportList OutputReports;
    int32_t FeatureReportIndex = 0;
    ReportList FeatureReports;
    GlobalStruct Global{};
    LocalStruct Local{};
    int32_t StackPtr = 0;
    std::array<std::unique_ptr<GlobalStruct>, 10> GlobalStack;
    int32_t LinkNodeCount = 0;
    std::array<std::unique_ptr<LinkCollection>, 30> LinkNodes;

  private:
    int parse_item_main(unsigned char* data);
    int parse_item_global(unsigned char* data);
    int parse_item_local(unsigned char* data);
    int AddReport(unsigned int reportID, unsigned short type);
    int AddUsage(_UsageAndPage usage);
};
