#pragma once

#include <stdexcept>

/// What the scope throws. A failure of the system itself (no memory, no process to be had) stays a standard
/// exception.
namespace scope {

/// Something that the user can mend: an argument, a file, a folder. what() is a sentence that says what is
/// wrong, where (file and line, if there are any), and what was expected.
class UserError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A run folder or a sweep's whose files contradict their format, or are missing.
class DamagedFolder : public UserError {
 public:
  using UserError::UserError;
};

}  // namespace scope
