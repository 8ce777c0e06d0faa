// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "errors.h"

namespace scope {

/// The folder is locked by another process.
class FolderInUse : public UserError {
 public:
  using UserError::UserError;
};

/// Keeps other recorders out of a run folder or sweep folder while it exists. It puts no file there, and ends
/// with this process, however that ends.
class FolderLock {
 public:
  /// Locks the existing folder `folder`. Throws FolderInUse, which names the process that has it, if it is
  /// locked, and UserError if it cannot be opened. On a file system without locks nothing is locked.
  explicit FolderLock(const std::string& folder);
  ~FolderLock();
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int folder_;
};

}  // namespace scope
