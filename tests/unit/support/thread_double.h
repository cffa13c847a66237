/// \file
/// Stands in front of `pthread_create`: a system that has no thread left, or that starts one late.
#pragma once

class ThreadDouble {
  public:
    ThreadDouble();
    /// Lets threads that are held back go.
    ~ThreadDouble();
    ThreadDouble(const ThreadDouble&) = delete;
    ThreadDouble& operator=(const ThreadDouble&) = delete;

    /// The result of the next creations; 0 creates.
    void fail_with(int code);
    /// Threads created from now on do not run before `let_go`.
    void hold_back();
    void let_go();
    /// Threads created.
    int created() const;
    /// False when threads still run after `milliseconds`.
    bool all_ended_within(int milliseconds) const;
    /// Threads that were neither joined nor detached.
    int unreclaimed() const;
};
