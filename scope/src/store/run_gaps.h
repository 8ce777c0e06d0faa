#pragma once

#include "run.h"

namespace scope {

/// Adds to the run's notes what its samples lack: seconds of a thread between two samples, and the end of a
/// complete run.
void NoteGaps(Run& run);

}  // namespace scope
