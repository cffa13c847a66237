// The tests' reading of the record of transfers, which a run may still be writing.
#include "support/transfer_record.h"

#include "support/files.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

constexpr char whole_line[] = "1.000\tprinter\t2\tcontrol\t21 09 0200 0000 0004\t04000100\t4\n";

}  // namespace

TEST(TransferRecord, LeavesOutALineThatIsStillBeingWritten) {
    const TemporaryDirectory directory;
    const std::string file = directory.path("record.tsv");
    const std::string next = whole_line;
    for (std::size_t written = 0; written < next.size(); ++written) {
        write_file(file, whole_line + next.substr(0, written));
        EXPECT_EQ(TransferRecord(file).commands("printer").size(), 1U) << written;
    }
}

TEST(TransferRecord, RefusesAWholeLineThatMissesAField) {
    const TemporaryDirectory directory;
    write_file(directory.path("record.tsv"), "1.000\tprinter\t2\tcontrol\n");
    EXPECT_THROW(TransferRecord(directory.path("record.tsv")), std::runtime_error);
}
