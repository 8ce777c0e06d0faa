// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

/// What the scope throws. Failures of the system (no memory, no more processes) are standard exceptions.
namespace scope {

/// Something that the user can correct: an argument, a file, a folder. what() is a sentence. It says what is
/// wrong, where (file and line, if there are any), and what was expected.
class UserError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A signal from the user ended the work.
class Interrupted : public UserError {
 public:
  using UserError::UserError;
};

/// A run folder or sweep folder with files that are missing or do not follow their format.
class DamagedFolder : public UserError {
 public:
  using UserError::UserError;
};

}  // namespace scope
