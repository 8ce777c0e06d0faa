// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace scope {

/// How a library is named in LD_PRELOAD, which the loader splits at blanks and colons and in which it
/// replaces words that begin with a dollar sign. A path with one of them is named by a link without: in a
/// temporary folder of this user's alone, which goes with this object.
class PreloadPath {
 public:
  /// `library` is an absolute path. Throws UserError if the link cannot be made.
  explicit PreloadPath(const std::string& library);
  ~PreloadPath();
  PreloadPath(const PreloadPath&) = delete;
  PreloadPath& operator=(const PreloadPath&) = delete;

  const std::string& Text() const { return text_; }

 private:
  std::string text_;
  std::string folder_;  ///< empty if there is no link
};

}  // namespace scope
