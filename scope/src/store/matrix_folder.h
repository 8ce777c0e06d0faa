// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

#include "matrix.h"

namespace scope {

/// The file that makes a folder that of a matrix.
constexpr const char* kMatrixName = "matrix.json";

/// The folder of the run with this index, within the matrix's: "run-0001".
std::string MatrixRunFolder(std::size_t index);

bool IsMatrixFolder(const std::string& folder);

/// Throws UserError if it is no matrix, and DamagedFolder if it cannot be used.
Matrix ReadMatrix(const std::string& folder);

/// Replaces the file as a whole. Throws UserError.
void WriteMatrix(const std::string& folder, const Matrix& matrix);

}  // namespace scope
