// What an update did, read from its own lines.
#include "twin/plan.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

/// The result of an update whose last line is the given one.
std::optional<int> result_of(const std::string& last_line) {
    const zelfsim::UpdatePlan plan =
        zelfsim::read_plan({{1, "    Starting firmware update\n"}, {2, last_line}});
    return plan.updates.size() == 1 ? plan.updates.front().rc : std::optional<int>(-2);
}

TEST(Plan, TellsTheResultOfAnUpdate) {
    EXPECT_EQ(result_of("Firmware update of Product ID 3c34 COMP: 0 finished, rc=0\n"), 0);
    EXPECT_EQ(result_of("Firmware update of Product ID 3c34 COMP: 0 finished, rc=-9\n"), -9);
}

TEST(Plan, LineThatWasCutTellsNoResult) {
    EXPECT_EQ(result_of("Firmware update of Product ID 3c34 COMP: 0 finished, rc="), std::nullopt);
    EXPECT_EQ(result_of("Firmware update of Product ID"), std::nullopt);
}

}  // namespace
