// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// Includes the whole interface of the accelerator platform. Any implementation of it may be linked.

#include "ormis/memcpy_s.h"
#include "ormis/ormis_logger.h"
#include "ormis/qet_context.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_error.h"
#include "ormis/qet_image.h"
#include "ormis/qet_log.h"
#include "ormis/qet_venc.h"
#include "ormis/qet_yaml.h"

/// The accelerator platform. Each operation answers 0, or a status that its caller logs and does not
/// interpret. No operation throws but the constructor and operator[] of QetYamlNode. An operation that
/// requires a current context uses the one bound to the calling thread (QetSetCurrentContext).
namespace Ormis {}
