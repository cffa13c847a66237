// The faults of a twin, each where the device's own count of messages puts it.
#include "twin/device_faults.h"

#include "twin/device_guess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using zelfsim::Bytes;
using zelfsim::CommandKind;
using zelfsim::Sighting;
using zelfsim::Step;
using zelfsim::ToldDevice;

/// A message that no status answered.
Step silent(CommandKind kind, double clock) {
    Step step;
    step.clock = clock;
    step.kind = kind;
    step.message = Bytes{0x7F};
    return step;
}

std::vector<std::string> faults_of(const ToldDevice& told) {
    const zelfsim::DeviceGuess guess = zelfsim::guess_device(told);
    std::vector<std::string> keys;
    for (const zelfsim::FaultGuess& fault : zelfsim::find_faults(guess.device, told)) {
        keys.push_back(fault.rule.key());
    }
    return keys;
}

TEST(DeviceFaults, MessageThatTheDeviceDoesNotKnowCountsAsAnyOther) {
    ToldDevice told;
    told.steps = {silent(CommandKind::device_info, 10), silent(CommandKind::unknown, 3000),
                  silent(CommandKind::device_info, 6000), silent(CommandKind::unknown, 9000)};
    EXPECT_THAT(faults_of(told), ElementsAre("device-info#1:no-answer", "command#2:no-answer",
                                             "device-info#2:no-answer", "command#4:no-answer"));
}

TEST(DeviceFaults, DeviceThatIsMissedTwiceBehindOneMessageLeavesOnce) {
    ToldDevice told;
    told.steps = {silent(CommandKind::unknown, 10)};
    told.sightings = {{Sighting::Kind::missing, 3000, 1},
                      {Sighting::Kind::listed, 4000, 1},
                      {Sighting::Kind::missing, 5000, 1}};
    EXPECT_THAT(faults_of(told), ElementsAre("command#1:no-answer", "command#1:unplug"));
}

TEST(DeviceFaults, DeviceThatIsMissedBeforeItsFirstMessageCannotBeOpened) {
    Step unclaimed = silent(CommandKind::device_info, 10);
    unclaimed.write_rc = -2;
    ToldDevice told;
    told.steps = {unclaimed};
    told.sightings = {{Sighting::Kind::missing, 3000, 1}};
    EXPECT_THAT(faults_of(told), ElementsAre("claim#1:busy", "open#1:refuse"));
}

}  // namespace
