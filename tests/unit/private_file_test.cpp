#include "journal/file_handle.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int was_opened = 10;
constexpr int was_not_opened = 11;
constexpr uid_t somebody_else = 65533;

/// A file "journal" in a sticky directory that anybody can write to, as /tmp is.
class PrivateFile : public testing::Test {
  protected:
    PrivateFile() { chmod(directory_.path().c_str(), 01777); }

    std::string path() const { return directory_.path("journal"); }
    std::string content() const { return read_file(path()); }
    bool exists() const { return std::filesystem::exists(std::filesystem::symlink_status(path())); }

    /// Opens the file, writes to it, and tells whether it could.
    static bool write_to(const std::string& path, const std::string& text = "new") {
        const FileDescriptor file = open_private_file(path.c_str());
        return file.is_open() && ::write(file.get(), text.data(), text.size()) > 0;
    }
    bool write() const { return write_to(path()); }
    /// Other names in the directory than those.
    std::vector<std::string> other_names(const std::vector<std::string>& known) const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            const std::string name = entry.path().filename();
            if (std::find(known.begin(), known.end(), name) == known.end()) {
                names.push_back(name);
            }
        }
        return names;
    }
    bool write_as_ordinary_user() const {
        const ChildEnd end =
            run_as_ordinary_user([this] { _exit(write() ? was_opened : was_not_opened); });
        EXPECT_TRUE(end.exit_code == was_opened || end.exit_code == was_not_opened);
        return end.exit_code == was_opened;
    }
    void expect_new_file_of_our_own() const {
        struct stat about = {};
        ASSERT_EQ(lstat(path().c_str(), &about), 0);
        EXPECT_TRUE(S_ISREG(about.st_mode));
        EXPECT_EQ(about.st_uid, geteuid());
        EXPECT_EQ(about.st_nlink, 1U);
        EXPECT_EQ(content(), "new");
    }

    TemporaryDirectory directory_;
};

/// What only the super-user can set up, or is answered to only.
class PrivateFileAsRoot : public PrivateFile {
  protected:
    void SetUp() override {
        if (!is_super_user()) {
            GTEST_SKIP() << "needs the super-user";
        }
    }
};

}  // namespace

TEST_F(PrivateFile, IsMadeWhenThereIsNone) {
    const mode_t mask = umask(022);
    EXPECT_TRUE(write());
    umask(mask);
    expect_new_file_of_our_own();
    struct stat about = {};
    ASSERT_EQ(stat(path().c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777U, 0644U);
}

TEST_F(PrivateFile, IsAppendedTo) {
    EXPECT_TRUE(write());
    EXPECT_TRUE(write());
    EXPECT_EQ(content(), "newnew");
}

TEST_F(PrivateFile, AppendsBehindWhatOthersWriteMeanwhile) {
    const FileDescriptor file = open_private_file(path().c_str());
    ASSERT_TRUE(file.is_open());
    directory_.write("journal", "written by another run, ");
    EXPECT_EQ(::write(file.get(), "ours", 4), 4);
    EXPECT_EQ(content(), "written by another run, ours");
}

TEST_F(PrivateFile, IsNotInheritedByPrograms) {
    const FileDescriptor file = open_private_file(path().c_str());
    ASSERT_TRUE(file.is_open());
    EXPECT_EQ(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(PrivateFile, IsNoneWhereNoneCanBeMade) {
    EXPECT_FALSE(write_to(directory_.path("none/journal")));
    EXPECT_FALSE(write_to(""));
}

TEST_F(PrivateFile, LeavesNothingBeside) {
    EXPECT_TRUE(write());
    EXPECT_THAT(other_names({"journal"}), testing::IsEmpty());
}

TEST_F(PrivateFileAsRoot, MovesADirectoryOutOfTheWay) {
    std::filesystem::create_directory(path());
    directory_.write("journal/theirs", "theirs");
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    const std::vector<std::string> moved = other_names({"journal"});
    ASSERT_EQ(moved.size(), 1U);
    EXPECT_EQ(read_file(directory_.path(moved[0] + "/theirs")), "theirs");
}

TEST_F(PrivateFileAsRoot, IsWonAgainstSomebodyWhoMakesAndRemovesTheNameAllTheTime) {
    std::atomic<bool> over{false};
    const std::string name = path();
    std::thread rival([&] {
        while (!over) {
            static_cast<void>(symlink("/dev/null", name.c_str()));
            struct stat about = {};
            // In a sticky directory somebody else could not remove our file.
            if (lstat(name.c_str(), &about) == 0 && S_ISLNK(about.st_mode)) {
                static_cast<void>(unlink(name.c_str()));
            }
        }
    });
    int lost = 0;
    for (int i = 0; i < 300; ++i) {
        lost += write() ? 0 : 1;
    }
    over = true;
    rival.join();
    EXPECT_EQ(lost, 0);
    EXPECT_THAT(other_names({"journal"}), testing::IsEmpty());
}

TEST_F(PrivateFileAsRoot, GivesAnOrdinaryUserNoDirectory) {
    std::filesystem::create_directory(path());
    EXPECT_FALSE(write_as_ordinary_user());
    EXPECT_TRUE(std::filesystem::is_directory(path()));
    EXPECT_THAT(other_names({"journal"}), testing::IsEmpty());
}

TEST_F(PrivateFileAsRoot, ReplacesAPlantedLink) {
    const std::string target = directory_.write("target", "precious");
    std::filesystem::create_symlink(target, path());
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    EXPECT_EQ(read_file(target), "precious");
}

TEST_F(PrivateFileAsRoot, ReplacesALinkToNothing) {
    std::filesystem::create_symlink(directory_.path("target"), path());
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    EXPECT_FALSE(std::filesystem::exists(directory_.path("target")));
}

TEST_F(PrivateFileAsRoot, ReplacesAFileOfSomebodyElse) {
    directory_.write("journal", "theirs");
    ASSERT_EQ(chown(path().c_str(), somebody_else, somebody_else), 0);
    const FileHandle theirs(fopen(path().c_str(), "r"));
    ASSERT_NE(theirs, nullptr);
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    char text[16] = {};
    ASSERT_NE(fgets(text, sizeof(text), theirs.get()), nullptr);
    EXPECT_STREQ(text, "theirs");
}

TEST_F(PrivateFileAsRoot, ReplacesAFileWithSeveralNames) {
    const std::string other = directory_.write("other", "precious");
    ASSERT_EQ(link(other.c_str(), path().c_str()), 0);
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    EXPECT_EQ(read_file(other), "precious");
}

TEST_F(PrivateFileAsRoot, ReplacesAFifoNobodyReads) {
    ASSERT_EQ(mkfifo(path().c_str(), 0666), 0);
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
}

TEST_F(PrivateFileAsRoot, ReplacesAFifoSomebodyReads) {
    ASSERT_EQ(mkfifo(path().c_str(), 0666), 0);
    const int reader = open(path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(PrivateFileAsRoot, ReplacesASocket) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path().size(), sizeof(address.sun_path));
    path().copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_TRUE(write());
    expect_new_file_of_our_own();
    close(listener);
}

TEST_F(PrivateFileAsRoot, GivesAnOrdinaryUserTheirOwn) {
    EXPECT_TRUE(write_as_ordinary_user());
    struct stat about = {};
    ASSERT_EQ(lstat(path().c_str(), &about), 0);
    EXPECT_EQ(about.st_uid, ordinary_user);
    EXPECT_TRUE(write_as_ordinary_user());
    EXPECT_EQ(content(), "newnew");
}

TEST_F(PrivateFileAsRoot, GivesAnOrdinaryUserNoLink) {
    const std::string target = directory_.write("target", "precious");
    ASSERT_EQ(chown(target.c_str(), ordinary_user, ordinary_user), 0);
    std::filesystem::create_symlink(target, path());
    ASSERT_EQ(lchown(path().c_str(), ordinary_user, ordinary_user), 0);
    EXPECT_FALSE(write_as_ordinary_user());
    EXPECT_TRUE(std::filesystem::is_symlink(path()));
    EXPECT_EQ(read_file(target), "precious");
}

TEST_F(PrivateFileAsRoot, GivesAnOrdinaryUserNoFileOfSomebodyElse) {
    directory_.write("journal", "theirs");
    chmod(path().c_str(), 0666);
    ASSERT_EQ(chown(path().c_str(), somebody_else, somebody_else), 0);
    EXPECT_FALSE(write_as_ordinary_user());
    EXPECT_EQ(content(), "theirs");
    ASSERT_EQ(chown(path().c_str(), 0, 0), 0);
    EXPECT_FALSE(write_as_ordinary_user());
    EXPECT_EQ(content(), "theirs");
}

TEST_F(PrivateFileAsRoot, GivesAnOrdinaryUserNoFileWithSeveralNames) {
    const std::string other = directory_.write("other", "precious");
    ASSERT_EQ(link(other.c_str(), path().c_str()), 0);
    ASSERT_EQ(chown(other.c_str(), ordinary_user, ordinary_user), 0);
    EXPECT_FALSE(write_as_ordinary_user());
    EXPECT_EQ(content(), "precious");
}

TEST_F(PrivateFileAsRoot, GivesAnOrdinaryUserNoFifo) {
    ASSERT_EQ(mkfifo(path().c_str(), 0666), 0);
    ASSERT_EQ(chown(path().c_str(), ordinary_user, ordinary_user), 0);
    EXPECT_FALSE(write_as_ordinary_user());
    const int reader = open(path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_FALSE(write_as_ordinary_user());
    char byte = 0;
    EXPECT_LE(read(reader, &byte, 1), 0);
    close(reader);
    EXPECT_TRUE(exists());
}
