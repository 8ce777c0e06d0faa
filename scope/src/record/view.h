// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "live_figures.h"

namespace scope {

/// Shows a recording while it runs. This base class shows nothing. Threads: one.
class View {
 public:
  virtual ~View() = default;
  /// A second has passed. `runTimeS` is the configured run time.
  virtual void Second(const Figures& /*figures*/, double /*timeS*/, double /*runTimeS*/) {}
  /// The benchmark wrote `line` to standard error. Called only if TakesErrors().
  virtual void ErrorLine(const std::string& /*line*/) {}
  virtual bool TakesErrors() const { return false; }
  /// Stops drawing and restores the screen, so that others may write to it.
  virtual void End() {}
};

}  // namespace scope
