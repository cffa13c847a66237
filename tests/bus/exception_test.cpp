// Runs that run out of memory: an exception ends the command, not the process.
#include "session/zelflash.h"
#include "support/bus_test.h"
#include "usb/flshusbintf.h"

#include <gmock/gmock.h>

#include <string>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

class OutOfMemory : public BusTest {
  protected:
    OutOfMemory() { set_bus({SimDevice{}}); }

    void fail_allocations_of(std::size_t size) {
        settings.preloads = {FAILING_ALLOCATION};
        settings.environment["FAILING_ALLOCATION_SIZE"] = std::to_string(size);
    }
};

}  // namespace

TEST_F(OutOfMemory, SessionThatCannotBeMadeIsAnUnexpectedError) {
    fail_allocations_of(sizeof(ZELFLASH));
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.console, "Flash interface load failed...exception occurred\n");
    EXPECT_THAT(result.log, EndsWith("Flash interface load failed...exception occurred\n"));
}

TEST_F(OutOfMemory, CommandThatThrowsIsAnUnexpectedError) {
    fail_allocations_of(sizeof(USBINTF));
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.console, "Flash failed...exception occurred\n");
    EXPECT_THAT(result.log, EndsWith("Flash failed...exception occurred\n"));
    // The session is left as it stands.
    EXPECT_THAT(result.log, Not(HasSubstr("USB Flash ended at")));
}

#endif
