// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "matrix.h"
#include "matrix_table.h"
#include "text_table.h"

namespace scope {

/// Which CPUs the victim has to itself, or that it has none; a sentence.
std::string OwnCpusSentence(const Matrix& matrix);

/// What the latency of memory is of, and how it grows with the memory; nothing without that victim.
std::vector<std::string> ProbeSentences(const MatrixTable& table);

/// For each victim what slows it most because of memory; of a search, the mix that it has found.
std::vector<std::string> MatrixSentences(const Matrix& matrix, const MatrixTable& table);

/// The table of victims and aggressors, the strongest first, with the sentences.
std::string MatrixText(const Matrix& matrix, const MatrixTable& table, std::size_t width = kTextWidth);

/// The same as JSON; scope/FORMAT-MATRIX.md describes it.
std::string MatrixJson(const std::string& folder, const Matrix& matrix, const MatrixTable& table,
                       bool isComplete);

}  // namespace scope
