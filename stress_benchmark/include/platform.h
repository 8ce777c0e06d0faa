#pragma once

/// The one header through which the benchmark sees the accelerator platform and its logging. Declarations
/// only: the program runs wherever an implementation of them is linked or put under it.
#include "ara/log/logging.h"
#include "ormis/ormis.h"
