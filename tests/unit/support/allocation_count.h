/// \file
/// Stands in front of the C library's allocation, to see that a call needs no memory.
#pragma once

/// From construction on, the allocations of the constructing thread are counted. One at a time.
class AllocationCount {
  public:
    AllocationCount();
    ~AllocationCount();
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    /// The sanitizers bring their own allocation, which is not counted.
    static bool is_possible();
    int count() const;
};
