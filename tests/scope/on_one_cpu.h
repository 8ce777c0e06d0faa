// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sched.h>

#include <cstddef>
#include <stdexcept>

/// Gives this thread, and the programs that it starts, one CPU: the last of those that it may use.
class OnOneCpu {
 public:
  OnOneCpu() {
    CPU_ZERO(&before_);
    if (sched_getaffinity(0, sizeof(before_), &before_) != 0) throw std::runtime_error("no affinity");
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(static_cast<std::size_t>(cpu), &before_)) cpu_ = cpu;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(cpu_), &one);
    if (sched_setaffinity(0, sizeof(one), &one) != 0) throw std::runtime_error("cannot give one CPU");
  }
  ~OnOneCpu() { (void)sched_setaffinity(0, sizeof(before_), &before_); }
  OnOneCpu(const OnOneCpu&) = delete;
  OnOneCpu& operator=(const OnOneCpu&) = delete;

  int Cpu() const { return cpu_; }

 private:
  cpu_set_t before_{};
  int cpu_ = 0;
};
