// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The benchmark includes the accelerator platform and its logging through this header alone. They are
/// declarations only: any library that implements them can be linked or loaded.
#include "ara/log/logging.h"
#include "ormis/ormis.h"
