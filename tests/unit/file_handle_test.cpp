#include "journal/file_handle.h"

#include "support/child_process.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

namespace {

bool is_open(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class FileHandles : public testing::Test {
  protected:
    std::string path(const std::string& name = "file") const { return directory_.path(name); }
    std::string content() const { return read_file(path()); }
    std::string make_fifo() const {
        EXPECT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
        return path("fifo");
    }

    TemporaryDirectory directory_;
};

class DescriptorOwner : public FileHandles {};
class RegularFile : public FileHandles {};
class WrittenFile : public FileHandles {};
class SharedFile : public FileHandles {};
class LateFile : public FileHandles {};

/// Midnight, 1 January 2040: 32 bits do not hold it.
constexpr long long late = 2208988800;

void date_late(const std::string& path) {
    const timespec times[] = {{static_cast<time_t>(late), 0}, {static_cast<time_t>(late), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

}  // namespace

TEST_F(DescriptorOwner, ClosesWhatItOwns) {
    int descriptor = -1;
    {
        const FileDescriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
        descriptor = file.get();
        ASSERT_TRUE(file.is_open());
        EXPECT_TRUE(is_open(descriptor));
    }
    EXPECT_FALSE(is_open(descriptor));
}

TEST_F(DescriptorOwner, HandsItOnAndClosesItOnce) {
    FileDescriptor first(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int descriptor = first.get();
    FileDescriptor second(std::move(first));
    EXPECT_EQ(second.get(), descriptor);
    FileDescriptor third;
    EXPECT_FALSE(third.is_open());
    third = std::move(second);
    EXPECT_EQ(third.release(), descriptor);
    EXPECT_FALSE(third.is_open());
    EXPECT_TRUE(is_open(descriptor));
    close(descriptor);
}

TEST_F(DescriptorOwner, GivesItToAStream) {
    FileDescriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int descriptor = file.get();
    {
        const FileHandle stream = stream_of(std::move(file), "rb");
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(fileno(stream.get()), descriptor);
    }
    EXPECT_FALSE(is_open(descriptor));
    EXPECT_EQ(stream_of(FileDescriptor(), "rb"), nullptr);
}

TEST_F(DescriptorOwner, ClosesItWhenThereIsNoStreamForIt) {
    const auto before = open_descriptors();
    EXPECT_EQ(stream_of(FileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)), "no mode"),
              nullptr);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(RegularFile, IsOpenedToBeRead) {
    const FileHandle file = open_regular_file(directory_.write("file", "text").c_str());
    ASSERT_NE(file, nullptr);
    char text[8] = {};
    EXPECT_EQ(fread(text, 1, sizeof(text), file.get()), 4U);
    EXPECT_STREQ(text, "text");
}

TEST_F(RegularFile, WhatIsNoneLeavesNothingOpen) {
    const auto before = open_descriptors();
    for (const std::string& name : {directory_.path(), make_fifo(), std::string("/dev/null")}) {
        EXPECT_EQ(open_regular_file(name.c_str()), nullptr) << name;
        EXPECT_EQ(open_descriptors(), before) << name;
    }
}

TEST_F(WrittenFile, IsStartedAnew) {
    directory_.write("file", "a longer text of an earlier run");
    {
        const FileHandle file = open_for_writing(path().c_str());
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(fcntl(fileno(file.get()), F_GETFL) & O_NONBLOCK, 0);
        std::fputs("new", file.get());
    }
    EXPECT_EQ(content(), "new");
}

TEST_F(WrittenFile, WhatCannotBeWrittenLeavesNothingOpen) {
    const auto before = open_descriptors();
    for (const std::string& name : {directory_.path(), make_fifo(), path("none/file")}) {
        EXPECT_EQ(open_for_writing(name.c_str()), nullptr) << name;
        EXPECT_EQ(open_descriptors(), before) << name;
    }
}

TEST_F(WrittenFile, ThatAnotherRunWritesIsLeftAlone) {
    const FileHandle first = open_for_writing(path().c_str());
    ASSERT_NE(first, nullptr);
    std::fputs("first", first.get());
    std::fflush(first.get());
    EXPECT_EQ(open_for_writing(path().c_str()), nullptr);
    EXPECT_EQ(content(), "first");
}

TEST_F(WrittenFile, MayBeOneFileForSeveralThatKeepNothing) {
    const FileHandle first = open_for_writing("/dev/null");
    EXPECT_NE(first, nullptr);
    EXPECT_NE(open_for_writing("/dev/null"), nullptr);
}

TEST_F(SharedFile, IsHadAloneOnlyByTheFirst) {
    const FileDescriptor first = open_for_append(path().c_str());
    EXPECT_TRUE(claim_alone(first));
    share(first);
    FileDescriptor second = open_for_append(path().c_str());
    EXPECT_FALSE(claim_alone(second));
    share(second);
    { const FileDescriptor gone = std::move(second); }
    EXPECT_FALSE(claim_alone(open_for_append(path().c_str())));
}

TEST_F(SharedFile, StaysSharedWhenTheFirstHasGone) {
    FileDescriptor second;
    {
        const FileDescriptor first = open_for_append(path().c_str());
        EXPECT_TRUE(claim_alone(first));
        share(first);
        second = open_for_append(path().c_str());
        EXPECT_FALSE(claim_alone(second));
        share(second);
    }
    EXPECT_FALSE(claim_alone(open_for_append(path().c_str())));
    second = FileDescriptor();
    EXPECT_TRUE(claim_alone(open_for_append(path().c_str())));
}

TEST_F(SharedFile, ThatSomebodyKeepsForThemselvesHoldsNothingUp) {
    const FileDescriptor theirs(open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    ASSERT_EQ(flock(theirs.get(), LOCK_EX), 0);
    const FileDescriptor ours = open_for_append(path().c_str());
    EXPECT_FALSE(claim_alone(ours));
    share(ours);
    EXPECT_EQ(write(ours.get(), "x", 1), 1);
}

TEST_F(LateFile, IsFoundWhateverTheWordSize) {
    directory_.write("file", "text");
    date_late(path());
    EXPECT_NE(open_regular_file(path().c_str()), nullptr);
    EXPECT_TRUE(open_private_file(path().c_str()).is_open());
    // Not replaced by a new one.
    EXPECT_EQ(content(), "text");
    date_late(path());
    cut_to_nothing(open_for_append(path().c_str()));
    EXPECT_EQ(content(), "");
}
