#include "common/file_access.h"

#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

std::vector<std::string> names_in(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

std::string text_of(const std::filesystem::path& file) {
    const zelf::Bytes bytes = zelf::read_bytes_of(file);
    return {bytes.begin(), bytes.end()};
}

class ReplaceFile : public testing::TestWithParam<zelf::Durable> {
  protected:
    TemporaryDirectory directory_;
    std::filesystem::path file_ = directory_.path("file");
};

}  // namespace

TEST_P(ReplaceFile, MakesTheFileAndReplacesItWhole) {
    zelf::replace_file(file_, "a long first text", GetParam());
    EXPECT_EQ(text_of(file_), "a long first text");
    zelf::replace_file(file_, "short", GetParam());
    EXPECT_EQ(text_of(file_), "short");
    EXPECT_THAT(names_in(directory_.path()), ElementsAre("file"));
}

TEST_P(ReplaceFile, GivesTheRightsOfAnOrdinaryNewFile) {
    const mode_t mask = umask(027);
    zelf::replace_file(file_, "text", GetParam());
    umask(mask);
    EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0640));
}

TEST_P(ReplaceFile, LeavesEverythingAsItWasWhenTheNameCannotBeTaken) {
    std::filesystem::create_directories(file_ / "below");
    try {
        zelf::replace_file(file_, "text", GetParam());
        FAIL() << "a directory was replaced";
    } catch (const zelf::FileError& error) {
        EXPECT_EQ(std::string(error.what()).rfind(file_.string() + ": ", 0), 0U) << error.what();
    }
    EXPECT_TRUE(std::filesystem::is_directory(file_ / "below"));
    EXPECT_THAT(names_in(directory_.path()), ElementsAre("file"));
}

TEST_P(ReplaceFile, RefusesADirectoryThatIsNotThere) {
    EXPECT_THROW(zelf::replace_file(file_ / "missing", "text", GetParam()), zelf::FileError);
    EXPECT_TRUE(names_in(directory_.path()).empty());
}

INSTANTIATE_TEST_SUITE_P(Both, ReplaceFile, testing::Values(zelf::Durable::no, zelf::Durable::yes));

TEST(ReadBytes, AreThoseOfTheWholeFileWhateverItsSize) {
    const TemporaryDirectory directory;
    const std::string file = directory.path("file");
    for (const std::size_t size : {0U, 1U, 65535U, 65536U, 65537U, 200000U}) {
        std::string text(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            text[i] = static_cast<char>(i % 251);
        }
        zelf::replace_file(file, text);
        EXPECT_EQ(text_of(file), text) << size;
    }
    EXPECT_EQ(text_of(directory.path("missing")), "");
}
