// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <onnxruntime_c_api.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "model_inputs.h"

namespace Ormis::host {

/// Bytes of one element; 0 for a type whose elements have no fixed size in whole bytes.
std::size_t ElementBytes(ONNXTensorElementDataType type);

/// True for whole numbers and truth values.
bool IsWhole(ONNXTensorElementDataType type);

/// Fills `count` elements, which are zeros, as the choice says. `seed` makes the same random elements each
/// time: fractions from 0 to below 1, whole numbers of a byte of any value, and other whole numbers 0 or 1,
/// which networks take as indices. Returns the empty string, or why the value is none of this type.
std::string Fill(const InputChoice& choice, ONNXTensorElementDataType type, std::size_t count,
                 std::uint32_t seed, void* data);

}  // namespace Ormis::host
