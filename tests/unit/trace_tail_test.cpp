// A trace that ends inside a record: what runs write behind it must be found all the same.
#include "journal/zelfwtrace.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

using testing::ElementsAre;

namespace {

class TraceTail : public testing::Test {
  protected:
    std::string name() const { return directory_.path("t"); }
    std::string content() const { return read_file(name()); }
    void write(const std::string& bytes) const { directory_.write("t", bytes); }
    /// A run that writes one text.
    void run_once(const std::string& text) const {
        Trace file(name().c_str(), 0, 3);
        file.tprintf("%s", text.c_str());
    }
    void append_half(std::size_t bytes) const { write(content() + half_record().substr(0, bytes)); }
    std::vector<std::string> texts() const { return trace_texts(name()); }

    /// A report of 24 bytes, in a record of 64.
    std::string half_record() const {
        const TemporaryDirectory elsewhere;
        {
            Trace file(elsewhere.path("t").c_str(), 0, 3);
            const std::string report(32, '\x3C');
            file.WriteTraceData(405, reinterpret_cast<const unsigned char*>(report.data()),
                                report.size());
        }
        return read_file(elsewhere.path("t")).substr(32);
    }
    static std::string removed(std::size_t bytes) {
        return "The last record was cut short, " + std::to_string(bytes) +
               " bytes of it were removed\n";
    }

    TemporaryDirectory directory_;
};

/// Lets no file of this process grow beyond `size`: a write that would gets only a part in.
void limit_files_to(rlim_t size) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}

}  // namespace

TEST_F(TraceTail, HalfARecordIsRemovedBeforeTheNextRun) {
    for (const std::size_t bytes : {1U, 31U, 32U, 33U, 63U}) {
        write("");
        run_once("one");
        append_half(bytes);
        run_once("two");
        EXPECT_THAT(texts(), ElementsAre("one", removed(bytes), "two")) << bytes;
    }
}

TEST_F(TraceTail, HalfARecordOfALongTraceIsRemoved) {
    {
        Trace file(name().c_str(), 0, 3);
        for (int i = 0; i < 5000; ++i) {
            file.tprintf("text number %d, of an ordinary length", i);
        }
    }
    ASSERT_GT(content().size(), 300000U);
    append_half(40);
    run_once("two");
    const std::vector<std::string> all = texts();
    ASSERT_EQ(all.size(), 5002U);
    EXPECT_EQ(all[4999], "text number 4999, of an ordinary length");
    EXPECT_EQ(all[5000], removed(40));
}

TEST_F(TraceTail, WholeRecordsStayAsTheyAre) {
    run_once("one");
    run_once(std::string(41000, 'x'));
    const std::string before = content();
    run_once("two");
    EXPECT_EQ(content().substr(0, before.size()), before);
    EXPECT_THAT(texts(), ElementsAre("one", std::string(41000, 'x'), "two"));
}

TEST_F(TraceTail, AReportThatLooksLikeTheBeginningOfARecordIsNoEnd) {
    // The longest record, so that the program looks at its middle first.
    {
        Trace file(name().c_str(), 0, 3);
        std::string report = std::string(8, '\0');
        while (report.size() < 60000) {
            report += half_record().substr(0, 40);
        }
        for (int i = 0; i < 3; ++i) {
            file.WriteTraceData(407, reinterpret_cast<const unsigned char*>(report.data()),
                                report.size());
        }
    }
    const std::string before = content();
    run_once("two");
    EXPECT_EQ(content().substr(0, before.size()), before);
    EXPECT_THAT(texts(), ElementsAre("two"));
}

TEST_F(TraceTail, AFileThatIsNoTraceIsNotCut) {
    for (const std::string& bytes :
         {std::string("notes"), std::string(31, '\0'), std::string(200000, 'x')}) {
        write(bytes);
        run_once("two");
        EXPECT_EQ(content().substr(0, bytes.size()), bytes);
    }
}

TEST_F(TraceTail, IsLeftAloneWhileAnotherRunWrites) {
    Trace other(name().c_str(), 0, 3);
    append_half(40);
    const std::string before = content();
    run_once("two");
    EXPECT_EQ(content().substr(0, before.size()), before);
}

TEST_F(TraceTail, ARecordThatDoesNotFitOntoTheDiskIsTakenBack) {
    const ChildEnd end = run_in_child([this] {
        Trace file(name().c_str(), 0, 3);
        limit_files_to(100);
        file.tprintf("%s", "short");                 // up to 69
        file.tprintf("%s", "longer than the disk");  // would be up to 121
        limit_files_to(RLIM_INFINITY);
        file.tprintf("%s", "room again");
    });
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_THAT(texts(), ElementsAre("short", "room again"));
}

TEST_F(TraceTail, ARecordThatIsTakenInPartsIsWhole) {
    const std::string fifo = directory_.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const ChildEnd end = run_in_child([&fifo] {
        // Slower than its writer, and with room for less than a record.
        const pid_t reader = fork();
        if (reader == 0) {
            execl("/bin/sh", "sh", "-c", "sleep 0.3; cat \"$0\" > \"$0.read\"", fifo.c_str(),
                  nullptr);
            _exit(1);
        }
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        // Waits for the reader.
        FILE* const keeper = std::fopen(fifo.c_str(), "r+");
        {
            Trace file(fifo.c_str(), 0, 3);
            itimerval often = {{0, 20000}, {0, 20000}};
            setitimer(ITIMER_REAL, &often, nullptr);
            for (int i = 0; i < 10; ++i) {
                file.tprintf("%s", std::string(41000, static_cast<char>('a' + i)).c_str());
            }
            often = {};
            setitimer(ITIMER_REAL, &often, nullptr);
        }
        std::fclose(keeper);
        int status = 0;
        waitpid(reader, &status, 0);
    });
    EXPECT_EQ(end.exit_code, 0);
    const std::vector<std::string> all = trace_texts(fifo + ".read");
    ASSERT_EQ(all.size(), 10U);
    EXPECT_EQ(all[9], std::string(41000, 'j'));
}
