// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "run.h"
#include "watcher_process.h"

namespace scope {

/// The process of a control: it takes processor time as the threads of engines do, and touches no memory. So
/// what it costs another engine is what sharing processors costs. It never outlives this object or this
/// program.
class Control {
 public:
  /// Its threads keep off the CPUs `notOn`. Returns when all of them compute. Throws UserError if they
  /// cannot.
  Control(const std::vector<ControlThreads>& threads, const std::vector<int>& notOn);

  pid_t Id() const { return process_.Id(); }
  /// Readable after its end; -1 when that was read.
  int Descriptor() const { return process_.Descriptor(); }
  /// Why it ended by itself; empty if it did not.
  const std::string& Fault();

 private:
  WatcherProcess process_;
};

/// "2 x (4210 us of 5000 us), 1 x (16000 us of 16000 us)"; empty without threads.
std::string ControlText(const std::vector<ControlThreads>& threads);

/// "vpc: 3"; empty without CPUs. The value of kPinVariable has "=" in place of ": ".
std::string OwnCpusText(const OwnCpus& own, const char* sign = ": ");

/// The CPUs that this program may use, in rising order; empty if the system does not say.
std::vector<int> AllowedCpus();

/// 0 if the calling thread may choose this CPU, else why not, as errno. It may choose others than those that
/// it has now, which `taskset` gave it.
int WhyNotOn(int cpu);

}  // namespace scope
