/// \file
/// The end of a trace file that is to be appended to.
#pragma once

#include <cstddef>

class FileDescriptor;

/// Removes the record that the file ends inside of, as a full disk or a power failure leaves it:
/// what is appended behind it could not be told from its rest. Gives the number of bytes removed;
/// 0, and the file is left alone, when it ends with a whole record or is no trace.
std::size_t remove_half_record(const FileDescriptor& file);
