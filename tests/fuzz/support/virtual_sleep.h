/// \file
/// Stands in front of the sleeps (select without descriptors): the time passes at once.
#pragma once

/// Called with each sleep's milliseconds, null for none.
extern void (*on_sleep)(long milliseconds);
