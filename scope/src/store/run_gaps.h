// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "run.h"

namespace scope {

/// Notes missing samples in `run.notes`: gaps between two samples of a thread, and a missing end of a
/// complete run.
void NoteGaps(Run& run);

}  // namespace scope
