#include "usb/hidparse.h"

#include "support/fake_usb.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace {

std::unique_ptr<HidParser> parse(const Bytes& bytes) {
    auto parser =
        std::make_unique<HidParser>(bytes.data(), static_cast<unsigned short>(bytes.size()));
    EXPECT_EQ(parser->Parse(), 0);
    return parser;
}

// Prefixes without their size codes (HID 1.11, section 6.2.2).
constexpr uint8_t input = 0x80, output_item = 0x90, collection = 0xA0, feature = 0xB0,
                  end_collection = 0xC0;
constexpr uint8_t usage_page = 0x04, logical_minimum = 0x14, logical_maximum = 0x24,
                  physical_minimum = 0x34, physical_maximum = 0x44, unit_exponent = 0x54,
                  unit = 0x64, report_size = 0x74, report_id = 0x84, report_count = 0x94,
                  push = 0xA4, pop = 0xB4;
constexpr uint8_t usage = 0x08, usage_minimum = 0x18, usage_maximum = 0x28, delimiter = 0xA8;

Bytes layout(unsigned char size, unsigned char count) {
    return join({item(report_size, {size}), item(report_count, {count})});
}

}  // namespace

TEST(HidParser, GivesOneRecordPerKindOfReportOfAFlashInterface) {
    const auto parser = parse(flash_report_descriptor(263, 32, true));
    ASSERT_EQ(parser->OutputReportIndex, 1);
    ASSERT_EQ(parser->InputReportIndex, 1);
    ASSERT_EQ(parser->FeatureReportIndex, 2);

    const HidReport* out = parser->GetOutputReport(0);
    EXPECT_EQ(out->Type, 9);
    EXPECT_EQ(out->ReportID, 1);
    EXPECT_EQ(out->UseIDs, 1);
    EXPECT_EQ(out->Size, 263U);
    EXPECT_EQ(out->ReportSize, 8U);
    EXPECT_EQ(out->ReportCount, 263U);
    EXPECT_EQ(out->Usage, 0xA001);
    EXPECT_EQ(out->UsagePage, 0xFF45);

    EXPECT_EQ(parser->GetInputReport(0)->Type, 8);
    EXPECT_EQ(parser->GetInputReport(0)->Size, 8U);
    EXPECT_EQ(parser->GetFeatureReport(0)->Type, 11);
    EXPECT_EQ(parser->GetFeatureReport(0)->Usage, 0xA003);
    EXPECT_EQ(parser->GetFeatureReport(1)->Usage, 0x1603);
    EXPECT_EQ(parser->GetFeatureReport(1)->Size, 32U);
}

TEST(HidParser, KeepsTheUsageOfEachReportWithItsIdAndType) {
    const auto parser = parse(flash_report_descriptor(263, 32, true));
    ASSERT_EQ(parser->UsageIndex, 4);
    EXPECT_EQ(parser->Usages[1].u.Usage, 0xA002);
    EXPECT_EQ(parser->Usages[1].u.UsagePage, 0xFF45);
    EXPECT_EQ(parser->Usages[1].ReportID, 2);
    EXPECT_EQ(parser->Usages[1].Type, 8);
}

TEST(HidParser, GivesNoRecordOutsideTheLists) {
    const auto parser = parse(flash_report_descriptor(263, 32, false));
    EXPECT_EQ(parser->GetInputReport(1), nullptr);
    EXPECT_EQ(parser->GetOutputReport(1), nullptr);
    EXPECT_EQ(parser->GetFeatureReport(2), nullptr);
    EXPECT_EQ(parser->GetInputReport(-1), nullptr);
}

TEST(HidParser, CutsALongDescriptorAt8192Bytes) {
    Bytes bytes(8192, 0);
    const Bytes beyond = join({layout(8, 1), item(usage, {1}), item(input, {2})});
    bytes.insert(bytes.end(), beyond.begin(), beyond.end());
    const auto parser = parse(bytes);
    EXPECT_EQ(parser->DescriptorLength, 8192);
    EXPECT_EQ(parser->InputReportIndex, 0);
}

TEST(HidParser, FillsItsCopyWithZerosPastTheEnd) {
    const HidParser parser(Bytes{0x75, 0x08}.data(), 2);
    EXPECT_EQ(parser.DescriptorLength, 2);
    EXPECT_EQ(parser.Descriptor[1], 8);
    EXPECT_EQ(parser.Descriptor[2], 0);
    EXPECT_EQ(parser.Descriptor[8191], 0);
    EXPECT_EQ(parser.InputReportIndex, 0);
}

TEST(HidParser, MakesNoRecordOfPadding) {
    const auto parser = parse(join({layout(8, 1), item(input, {1})}));
    EXPECT_EQ(parser->InputReportIndex, 0);
}

TEST(HidParser, ExpandsAUsageRange) {
    const auto parser = parse(join({item(usage_page, {7}), layout(1, 8), item(usage_minimum, {1}),
                                    item(usage_maximum, {8}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 8);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(parser->GetInputReport(i)->Usage, i + 1);
        EXPECT_EQ(parser->GetInputReport(i)->UsagePage, 7);
        EXPECT_EQ(parser->GetInputReport(i)->Size, 1U);
    }
}

TEST(HidParser, AddsNothingForARangeOfOne) {
    const auto parser = parse(
        join({layout(8, 1), item(usage_minimum, {5}), item(usage_maximum, {5}), item(input, {2})}));
    EXPECT_EQ(parser->InputReportIndex, 0);
}

TEST(HidParser, AddsNothingForARangeThatRunsBackwards) {
    const auto parser = parse(join({layout(8, 1), item(usage_minimum, {8}),
                                    item(usage_maximum, {1}), item(usage, {3}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 1);
    EXPECT_EQ(parser->GetInputReport(0)->Usage, 3);
}

TEST(HidParser, TakesThePageOfARangeFromItsMinimum) {
    const auto parser = parse(
        join({item(usage_page, {7}), layout(8, 1), item(usage_minimum, {0x01, 0xA0, 0x45, 0xFF}),
              item(usage_maximum, {0x02, 0xA0}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 2);
    EXPECT_EQ(parser->GetInputReport(1)->Usage, 0xA002);
    EXPECT_EQ(parser->GetInputReport(1)->UsagePage, 0xFF45);
}

TEST(HidParser, PutsARangeBehindTheSingleUsages) {
    const auto parser = parse(join({layout(8, 1), item(usage_minimum, {1}),
                                    item(usage_maximum, {2}), item(usage, {9}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 3);
    EXPECT_EQ(parser->GetInputReport(0)->Usage, 9);
    EXPECT_EQ(parser->GetInputReport(1)->Usage, 1);
}

TEST(HidParser, EndsARangeThatReachesTheLastUsage) {
    const auto parser = parse(join({layout(8, 1), item(usage_minimum, {0xFE, 0xFF}),
                                    item(usage_maximum, {0xFF, 0xFF}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 2);
    EXPECT_EQ(parser->GetInputReport(1)->Usage, 0xFFFF);
}

TEST(HidParser, DropsUsagesBeyond32OfOneItem) {
    const auto parser = parse(join({layout(8, 1), item(usage, {9}), item(usage_minimum, {0}),
                                    item(usage_maximum, {0xFF, 0xFF}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 32);
    EXPECT_EQ(parser->GetInputReport(0)->Usage, 9);
    EXPECT_EQ(parser->GetInputReport(31)->Usage, 30);
}

TEST(HidParser, DropsThe33rdSingleUsage) {
    std::vector<Bytes> parts{layout(8, 1)};
    for (unsigned char i = 1; i <= 33; ++i) {
        parts.push_back(item(usage, {i}));
    }
    parts.push_back(item(input, {2}));
    EXPECT_EQ(parse(join(parts))->InputReportIndex, 32);
}

TEST(HidParser, DropsTheRecordsBeyond96OfEachKind) {
    struct Kind {
        uint8_t prefix;
        int32_t HidParser::*count;
        HidReport* (HidParser::*get)(int);
    };
    const Kind kinds[] = {
        {input, &HidParser::InputReportIndex, &HidParser::GetInputReport},
        {output_item, &HidParser::OutputReportIndex, &HidParser::GetOutputReport},
        {feature, &HidParser::FeatureReportIndex, &HidParser::GetFeatureReport},
    };
    for (const Kind& kind : kinds) {
        SCOPED_TRACE(static_cast<int>(kind.prefix));
        std::vector<Bytes> parts{layout(8, 1)};
        for (int i = 0; i < 3; ++i) {
            parts.insert(parts.end(), {item(usage_minimum, {1}), item(usage_maximum, {32}),
                                       item(kind.prefix, {2})});
        }
        parts.insert(parts.end(), {item(usage, {97}), item(kind.prefix, {2})});
        const auto parser = parse(join(parts));
        EXPECT_EQ((*parser).*kind.count, 96);
        EXPECT_EQ(parser->UsageIndex, 96);
        const HidReport* const last = (*parser.*kind.get)(95);
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(last->Usage, 32);
        EXPECT_EQ((*parser.*kind.get)(96), nullptr);
    }
}

TEST(HidParser, CountsTheRecordsOfEachKindByThemselves) {
    std::vector<Bytes> parts{layout(8, 1)};
    for (const uint8_t prefix : {input, output_item, feature, input, output_item, feature, input,
                                 output_item, feature, input, output_item, feature}) {
        parts.insert(parts.end(),
                     {item(usage_minimum, {1}), item(usage_maximum, {32}), item(prefix, {2})});
    }
    const auto parser = parse(join(parts));
    EXPECT_EQ(parser->InputReportIndex, 96);
    EXPECT_EQ(parser->OutputReportIndex, 96);
    EXPECT_EQ(parser->FeatureReportIndex, 96);
    EXPECT_EQ(parser->UsageIndex, 96);
}

TEST(HidParser, IgnoresFourBytesOfAllOnesWhateverTheItem) {
    const Bytes ones{0xFF, 0xFF, 0xFF, 0xFF};
    const auto parser =
        parse(join({item(usage_page, {7}), item(usage_page, ones), layout(8, 4), item(usage, {1}),
                    item(input, ones), item(usage, {2}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 2);
    EXPECT_EQ(parser->GetInputReport(0)->UsagePage, 7);
    EXPECT_EQ(parser->GetInputReport(1)->Usage, 2);
}

TEST(HidParser, PopsNothingFromAnEmptyStack) {
    const auto parser = parse(join({item(usage_page, {7}), item(pop, {})}));
    EXPECT_EQ(parser->Global.UsagePage, 7);
    EXPECT_EQ(parser->StackPtr, 0);
}

TEST(HidParser, RestoresTheGlobalStateThatWasPushed) {
    const auto parser =
        parse(join({item(usage_page, {7}), item(push, {}), item(usage_page, {9}), item(pop, {})}));
    EXPECT_EQ(parser->Global.UsagePage, 7);
    EXPECT_EQ(parser->GlobalStack[0], nullptr);
}

TEST(HidParser, IgnoresTheEleventhPush) {
    std::vector<Bytes> parts;
    for (unsigned char i = 1; i <= 11; ++i) {
        parts.push_back(item(usage_page, {i}));
        parts.push_back(item(push, {}));
    }
    parts.push_back(item(pop, {}));
    const auto parser = parse(join(parts));
    EXPECT_EQ(parser->StackPtr, 9);
    EXPECT_EQ(parser->Global.UsagePage, 10);
}

TEST(HidParser, UsesNoIdsWhenEveryIdIsZero) {
    const auto parser = parse(flash_report_descriptor(263, 32, false));
    EXPECT_EQ(parser->GetOutputReport(0)->ReportID, 0);
    EXPECT_EQ(parser->GetOutputReport(0)->UseIDs, 0);
}

TEST(HidParser, TakesPageAndUsageFromAFourByteUsage) {
    const auto parser = parse(join({item(usage_page, {7}), layout(8, 1),
                                    item(usage, {0x01, 0xA0, 0x45, 0xFF}), item(input, {2})}));
    EXPECT_EQ(parser->GetInputReport(0)->Usage, 0xA001);
    EXPECT_EQ(parser->GetInputReport(0)->UsagePage, 0xFF45);
}

TEST(HidParser, CountsWholeBytesAndAtLeastOne) {
    const auto parser = parse(
        join({layout(1, 3), item(usage, {1}), item(input, {2}), layout(12, 3), item(usage, {2}),
              item(input, {2}), layout(0, 3), item(usage, {3}), item(input, {2})}));
    EXPECT_EQ(parser->GetInputReport(0)->Size, 1U);
    EXPECT_EQ(parser->GetInputReport(1)->Size, 4U);
    EXPECT_EQ(parser->GetInputReport(2)->Size, 1U);
}

TEST(HidParser, DoesNotWrapTheSizeOfAnAbsurdItem) {
    const auto parser =
        parse(join({item(report_size, {0, 0, 0, 0x80}), item(report_count, {0x10, 0, 0, 0x80}),
                    item(usage, {1}), item(input, {2})}));
    EXPECT_EQ(parser->GetInputReport(0)->Size, 0xFFFFFFFFU);
}

TEST(HidParser, ReadsLimitsAs16BitNumbers) {
    auto parser = parse(join({item(logical_minimum, {0xFF}), item(logical_maximum, {0xFF, 0xFF})}));
    EXPECT_EQ(parser->Global.LogicalMinimum, 255);
    EXPECT_EQ(parser->Global.LogicalMaximum, 65535);
    parser = parse(join({item(logical_minimum, {0xFF, 0xFF}), item(logical_maximum, {0xFE, 0xFF}),
                         item(physical_minimum, {0, 0x80}), item(physical_maximum, {0, 0x80})}));
    EXPECT_EQ(parser->Global.LogicalMinimum, -1);
    EXPECT_EQ(parser->Global.LogicalMaximum, -2);
    EXPECT_EQ(parser->Global.PhysicalMinimum, -32768);
    EXPECT_EQ(parser->Global.PhysicalMaximum, -32768);
}

TEST(HidParser, KeepsUnitsAndTheLowByteOfTheId) {
    const auto parser = parse(join({item(unit_exponent, {0x0E}), item(unit, {0x11, 0x22, 0, 0}),
                                    item(report_id, {0x05, 0x01}), item(physical_maximum, {9})}));
    EXPECT_EQ(parser->Global.UnitExponent, 14U);
    EXPECT_EQ(parser->Global.Unit, 0x2211U);
    EXPECT_EQ(parser->Global.ReportID, 5);
    EXPECT_EQ(parser->Global.PhysicalMaximum, 9);
}

TEST(HidParser, CollectsUsagesInADelimiterSetLikeAnyOthers) {
    auto parser = parse(join({layout(8, 1), item(delimiter, {1}), item(usage, {1}),
                              item(usage, {2}), item(delimiter, {0}), item(input, {2})}));
    EXPECT_EQ(parser->InputReportIndex, 2);
    parser = parse(item(delimiter, {1}));
    EXPECT_EQ(parser->Local.Delimiter, 1U);
    parser = parse(join({item(delimiter, {1}), item(delimiter, {7})}));
    EXPECT_EQ(parser->Local.Delimiter, 1U);
}

TEST(HidParser, ForgetsLocalItemsAfterACollectionButNotAfterAnUnknownMainItem) {
    auto parser = parse(join({layout(8, 1), item(usage, {1}), item(collection, {1}),
                              item(input, {2}), item(end_collection, {})}));
    EXPECT_EQ(parser->InputReportIndex, 0);
    EXPECT_EQ(parser->LinkNodeCount, 0);
    constexpr uint8_t unknown = 0xD0;
    parser = parse(join({layout(8, 1), item(usage, {1}), item(unknown, {1}), item(feature, {2})}));
    EXPECT_EQ(parser->FeatureReportIndex, 1);
}

TEST(HidParser, SkipsALongItemAndReadsTheNextByteAsAShortItem) {
    const auto parser = parse(
        join({layout(8, 1), item(usage, {1}), {0xFE, 2, 0x55, 0x81, 0x81}, item(input, {2})}));
    EXPECT_EQ(parser->InputReportIndex, 1);
}

TEST(HidParser, TakesTheLongItemBehindALongItemForAShortOne) {
    // Its 0xFE is then a reserved short item with two bytes.
    const auto parser = parse(
        join({layout(8, 1), item(usage, {1}), {0xFE, 0, 0x55, 0xFE, 2, 0x55}, item(input, {2})}));
    EXPECT_EQ(parser->InputReportIndex, 1);
}

TEST(HidParser, IgnoresGlobalAndLocalItemsThatItDoesNotKnow) {
    constexpr uint8_t global_reserved = 0xC4, designator = 0x38, string_minimum = 0x88;
    const auto parser = parse(
        join({item(usage_page, {7}), layout(8, 1), item(global_reserved, {9}), item(usage, {1}),
              item(designator, {5}), item(string_minimum, {6}), item(input, {2})}));
    ASSERT_EQ(parser->InputReportIndex, 1);
    EXPECT_EQ(parser->GetInputReport(0)->Usage, 1);
    EXPECT_EQ(parser->GetInputReport(0)->UsagePage, 7);
}

TEST(HidParser, StartsEachParseWithoutTheItemsOfTheLast) {
    const auto parser =
        parse(join({item(input, {2}), item(usage_page, {7}), layout(8, 1), item(usage, {1})}));
    ASSERT_EQ(parser->InputReportIndex, 0);
    EXPECT_EQ(parser->Parse(), 0);
    EXPECT_EQ(parser->InputReportIndex, 0);
    EXPECT_EQ(parser->Local.UsageIndex, 1U);
}

TEST(HidParser, IgnoresReservedItemTypes) {
    constexpr uint8_t reserved = 0x8C;
    const auto parser =
        parse(join({layout(8, 1), item(usage, {1}), item(reserved, {1, 2}), item(input, {2})}));
    EXPECT_EQ(parser->InputReportIndex, 1);
}

namespace {

class HidParserEnd : public testing::TestWithParam<Bytes> {};

}  // namespace

// Whatever an item announces, nothing is read past the copy; what is not there reads as zero.
TEST_P(HidParserEnd, StaysWithinItsCopyOfAFullDescriptor) {
    Bytes bytes(8192, 0);
    const Bytes start = join({layout(8, 1), item(usage, {1})});
    std::copy(start.begin(), start.end(), bytes.begin());
    const Bytes& last = GetParam();
    std::copy(last.begin(), last.end(), bytes.end() - static_cast<std::ptrdiff_t>(last.size()));
    const auto parser = parse(bytes);
    EXPECT_EQ(parser->InputReportIndex, last[0] >> 4 == 8 ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(LastBytes, HidParserEnd,
                         testing::Values(Bytes{0xFE}, Bytes{0xFE, 0xFF}, Bytes{0xFE, 0xFF, 0x01},
                                         Bytes{0xFE, 0x00, 0x00}, Bytes{0x83}, Bytes{0x83, 1, 2, 3},
                                         Bytes{0x82, 1}, Bytes{0x81}, Bytes{0x07, 0xFF, 0xFF},
                                         Bytes{0x0B}));

TEST(HidParser, ReadsZerosForTheDataThatAFullDescriptorLacks) {
    Bytes bytes(8192, 0);
    bytes.back() = input | 3;
    EXPECT_EQ(parse(bytes)->ItemData, 0);
    bytes[8189] = usage_page | 3;
    bytes[8190] = 0xFF;
    bytes[8191] = 0xFF;
    EXPECT_EQ(parse(bytes)->ItemData, 0xFFFF);
}

TEST(HidParser, ParsesEveryCutOfADescriptor) {
    const Bytes whole = flash_report_descriptor(263, 32, true);
    for (size_t length = 0; length < whole.size(); ++length) {
        const auto parser = parse(Bytes(whole.begin(), whole.begin() + static_cast<int>(length)));
        EXPECT_LE(parser->OutputReportIndex, 1);
        EXPECT_LE(parser->FeatureReportIndex, 2);
    }
    EXPECT_EQ(parse(whole)->FeatureReportIndex, 2);
}
