#pragma once

#include <string>

#include "live_figures.h"

namespace scope {

/// Where a recording shows itself; this one shows nothing. Threads: one.
class View {
 public:
  virtual ~View() = default;
  /// A second has passed; `runTimeS` is the run time that is configured.
  virtual void Second(const Figures& /*figures*/, double /*timeS*/, double /*runTimeS*/) {}
  /// A line that the benchmark wrote to standard error. Called only when TakesErrors.
  virtual void ErrorLine(const std::string& /*line*/) {}
  virtual bool TakesErrors() const { return false; }
  /// Leaves the screen in order: nothing is drawn any more, and others may write.
  virtual void End() {}
};

}  // namespace scope
