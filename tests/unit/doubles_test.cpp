// The doubles stand before calls of the C library by their names, which depend on word size, file
// size and time size: one that no longer stands there would let tests pass for nothing.
#include "session/zelflash.h"
#include "support/clock_double.h"
#include "support/directory_double.h"
#include "support/sleep_double.h"
#include "support/temporary_directory.h"
#include "support/thread_double.h"
#include "support/usbfs_double.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

TEST(Doubles, StandBeforeSleeps) {
    const SleepDouble sleeps(0);
    timeval interval = {3600, 0};
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &interval), 0);
    EXPECT_THAT(sleeps.slept(), testing::ElementsAre(3600000));
}

TEST(Doubles, StandBeforeTheClock) {
    // In 2040.
    constexpr std::int64_t late = 2208988800123;
    clock_double_stands_at(late);
    clock_double_says_zone(-60);
    timeval now = {};
    struct timezone zone = {};
    gettimeofday(&now, &zone);
    EXPECT_EQ(std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000, late);
    EXPECT_EQ(zone.tz_minuteswest, -60);
}

TEST(Doubles, StandBeforeThreads) {
    ThreadDouble threads;
    pthread_t thread = {};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr, [](void* value) { return value; }, nullptr),
              0);
    EXPECT_EQ(threads.created(), 1);
    EXPECT_EQ(threads.unreclaimed(), 1);
    const timespec deadline = {time(nullptr) + 30, 0};
    EXPECT_EQ(pthread_timedjoin_np(thread, nullptr, &deadline), 0);
    EXPECT_EQ(threads.unreclaimed(), 0);
}

TEST(Doubles, StandBeforeTheDeviceFileSystem) {
    usbfs_add_hub(1, 2, {5});
    const int node = open("/proc/bus/usb/001/002", O_RDWR | O_CLOEXEC);
    ASSERT_GE(node, 0);
    EXPECT_EQ(usbfs_open_nodes(), 1);
    usbdevfs_hub_portinfo answer = {};
    usbdevfs_ioctl inner = {0, static_cast<int>(USBDEVFS_HUB_PORTINFO), &answer};
    EXPECT_EQ(ioctl(node, USBDEVFS_IOCTL, &inner), 2);
    EXPECT_EQ(answer.port[0], 5);
    EXPECT_EQ(usbfs_requests().size(), 1U);
    close(node);
}

TEST(Doubles, StandBeforeDirectories) {
    const TemporaryDirectory directory;
    directory.write("file", "");
    directory_double_hides_types(true);
    DIR* const opened = opendir(directory.path().c_str());
    ASSERT_NE(opened, nullptr);
    const dirent* const entry = readdir(opened);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->d_type, DT_UNKNOWN);
    closedir(opened);
    directory_double_hides_types(false);
}
