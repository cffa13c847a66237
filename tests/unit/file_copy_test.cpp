#include "firmware/file_copy.h"

#include "support/failing_new.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

class FileCopyTest : public testing::Test {
  protected:
    /// Takes a copy of the file and gives the reason why there is none.
    std::string take(const std::string& path) {
        const FileHandle file(fopen(path.c_str(), "rb"));
        EXPECT_NE(file, nullptr);
        return copy.take(file.get());
    }
    std::string copied() const {
        std::string bytes;
        for (int byte = fgetc(copy.stream()); byte != EOF; byte = fgetc(copy.stream())) {
            bytes.push_back(static_cast<char>(byte));
        }
        return bytes;
    }

    TemporaryDirectory directory;
    FileCopy copy;
};

}  // namespace

TEST_F(FileCopyTest, HoldsEveryByte) {
    std::string content;
    for (int i = 0; i < 100000; ++i) {
        content.push_back(static_cast<char>(i % 251));
    }
    EXPECT_EQ(take(directory.write("a", content)), "");
    EXPECT_EQ(copied(), content);
    EXPECT_EQ(fseek(copy.stream(), 99999, SEEK_SET), 0);
    EXPECT_EQ(fgetc(copy.stream()), 99999 % 251);
    EXPECT_EQ(fgetc(copy.stream()), EOF);
}

TEST_F(FileCopyTest, StaysWhenTheFileChanges) {
    const std::string path = directory.write("a", std::string("before"));
    EXPECT_EQ(take(path), "");
    directory.write("a", std::string("behind it"));
    std::filesystem::remove(path);
    EXPECT_EQ(copied(), "before");
}

TEST_F(FileCopyTest, OfAnEmptyFileIsEmpty) {
    EXPECT_EQ(take(directory.write("a", std::string())), "");
    ASSERT_NE(copy.stream(), nullptr);
    EXPECT_EQ(copied(), "");
}

TEST_F(FileCopyTest, TakesSixtyFourMebibytesAndNoMore) {
    const std::string path = directory.write("a", std::string("x"));
    std::filesystem::resize_file(path, FileCopy::max_size);
    EXPECT_EQ(take(path), "");
    std::filesystem::resize_file(path, FileCopy::max_size + 1);
    EXPECT_EQ(take(path), "it is larger than 64 MiB");
    EXPECT_EQ(copy.stream(), nullptr);
}

TEST_F(FileCopyTest, IsNotOfAFileWithMoreOrFewerBytesThanItSays) {
    // The kernel's own files say that they are empty.
    EXPECT_EQ(take("/proc/self/stat"), "it changed while it was read");
    EXPECT_EQ(copy.stream(), nullptr);
    // One whose end was read before.
    const FileHandle file(fopen(directory.write("a", std::string("abc")).c_str(), "rb"));
    fgetc(file.get());
    EXPECT_EQ(copy.take(file.get()), "it changed while it was read");
}

TEST_F(FileCopyTest, SaysThatTheFileCantBeRead) {
    EXPECT_EQ(take("/proc/self/mem"), "it can't be read: Input/output error");
    char bytes[] = "no file at all";
    const FileHandle stream(fmemopen(bytes, sizeof bytes, "rb"));
    EXPECT_EQ(copy.take(stream.get()), "it can't be read: Bad file descriptor");
    EXPECT_EQ(copy.stream(), nullptr);
}

TEST_F(FileCopyTest, NeedsMemory) {
    const std::string path = directory.write("a", std::string("abc"));
    fail_nothrow_new(true);
    const std::string reason = take(path);
    fail_nothrow_new(false);
    EXPECT_EQ(reason, "there is no memory for a copy of it");
    EXPECT_EQ(copy.stream(), nullptr);
}
