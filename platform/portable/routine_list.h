// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>

namespace Ormis::portable {

/// A list of routines that uses no heap, so that it cannot fail for want of memory.
template <typename Routine>
class RoutineList {
 public:
  void Add(Routine routine) { routines_.at(size_++) = routine; }
  const Routine* begin() const { return routines_.data(); }
  const Routine* end() const { return begin() + size_; }
  std::size_t size() const { return size_; }
  const Routine& front() const { return *begin(); }
  const Routine& back() const { return *(end() - 1); }

 private:
  std::array<Routine, 4> routines_{};
  std::size_t size_ = 0;
};

}  // namespace Ormis::portable
