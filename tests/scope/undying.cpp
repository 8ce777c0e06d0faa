// SPDX-License-Identifier: Apache-2.0

/// A program whose end its parent does not see, as if a driver kept it: another process traces it, does not
/// let go, and so leaves it a zombie. usage: undying FILE It prints a rate line when it is traced. FILE then
/// has the number of the other process, which ends after a minute by itself.
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

namespace {

void Trace(pid_t process, const char* file, int ready) {
  // In a session of its own: a signal to the process group is not for it.
  (void)setsid();
  const char isTraced = ptrace(PTRACE_SEIZE, process, nullptr, nullptr) == 0 ? 1 : 0;
  std::ofstream(file) << getpid() << std::endl;
  (void)!write(ready, &isTraced, 1);
  (void)sleep(60);
}

}  // namespace

int main(int argc, char** argv) {
  int ends[2] = {-1, -1};
  if (argc != 2 || pipe(ends) != 0) return 2;
  const pid_t process = getpid();
  // Some systems let a process trace only what it has started.
  (void)prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  if (fork() == 0) {
    Trace(process, argv[1], ends[1]);
    _exit(0);
  }
  char isTraced = 0;
  if (read(ends[0], &isTraced, 1) != 1 || isTraced == 0) return 3;
  std::cout << "cpuStress : 100.000000 fps. ispStress : 30.0 fps." << std::endl;
  while (true) (void)pause();
}
