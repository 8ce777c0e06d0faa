#pragma once

#include "record.h"

namespace scope {

/// Records a run, and then prints where it is saved; before that its figures, if `summary`.
RecordResult RecordAndPrint(const RecordOptions& options, View& view, Signals& signals, bool summary);

}  // namespace scope
