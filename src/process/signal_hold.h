/// \file
/// Signals that would cut a component's image in half are held back until it is complete.
#pragma once

/// The component that is being sent an image.
struct ComponentInProgress {
    int product_id;
    const char* serial_number;
    int component;
};

/// While one exists, the signals whose default action ends the process are noted and do not end it;
/// the first that arrives is answered with a line on the console. Those that tell of a fault of the
/// program are not held, nor is one that is ignored or handled already. After a signal was held
/// back the dispositions stay, so that the run can be wound up.
///
/// A device that does not answer must not make the program one that can't be ended: where nothing
/// has moved on the wire for three seconds, a signal that comes three seconds after the first ends
/// the process at once, and log, trace and console say which image is left incomplete.
class SignalHold {
  public:
    explicit SignalHold(const ComponentInProgress& component);
    ~SignalHold();
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;

    /// The image is complete, or its failure has been told.
    static void image_is_over();

    /// The signal that was held back, 0 when none.
    static int held_signal();

    /// Ends the process by the signal that was held back; returns when there is none.
    static void end_by_held_signal();
};
