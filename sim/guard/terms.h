/// \file
/// What the guard, the simulated library, and those who start programs under them agree on.
#pragma once

namespace zelfsim::guard {

/// The simulation that every libusb-1.0 stands for. May hold the loader's $LIB.
inline constexpr const char* library_variable = "ZELFWSIM_LIBRARY";
/// A file to which each guarded process appends what became of it; may be missing.
inline constexpr const char* report_variable = "ZELFWSIM_REPORT";

/// An exported name that simulations have, and real USB libraries do not.
inline constexpr const char* simulation_mark = "zelfwsim_simulation";

inline constexpr char guarded = 'g';  ///< a process began under the guard
inline constexpr char asked = 'a';    ///< it is about to open a libusb-1.0
inline constexpr char opened = 's';   ///< it opened the simulation
inline constexpr char refused = 'r';  ///< it was ended, since it would have had another library

/// How a process ends that the guard stops.
inline constexpr int refused_exit = 125;

}  // namespace zelfsim::guard
