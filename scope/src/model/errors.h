#pragma once

#include <stdexcept>

namespace scope {

/// A run folder, or another input, that cannot be used or written; what() is a sentence for the user, with
/// the file and the line where there is one.
class RunFolderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace scope
