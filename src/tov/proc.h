/// @file
/// The process itself.
#ifndef TOV_PROC_H
#define TOV_PROC_H

#include <tov/api.h>

namespace tov_proc {

/// Waits for at least this long, even if signals are handled meanwhile.
TOV_API void Sleep(unsigned milliseconds);

}  // namespace tov_proc

#endif
