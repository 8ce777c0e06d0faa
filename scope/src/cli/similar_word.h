// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace scope {

/// The word of `words` that is most similar to `word`. Empty if none is similar enough for a typing error.
std::string Similar(const std::string& word, const std::vector<std::string>& words);

}  // namespace scope
