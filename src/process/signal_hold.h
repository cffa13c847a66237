/// \file
/// Signals that would cut a component's image in half are held back until it is complete.
#pragma once

/// While one exists, SIGINT, SIGTERM and SIGHUP are noted and do not end the process; the first
/// that arrives is answered with a line on the console. A signal that was ignored stays ignored.
/// After a signal was held back the dispositions stay, so that the run can be wound up.
class SignalHold {
  public:
    SignalHold();
    ~SignalHold();
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;

    /// The signal that was held back, 0 when none.
    static int held_signal();

    /// Ends the process by the signal that was held back; returns when there is none.
    static void end_by_held_signal();
};
