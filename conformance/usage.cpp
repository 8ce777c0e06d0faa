// SPDX-License-Identifier: Apache-2.0
#include "usage.h"

#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace conformance {

namespace {

std::uint64_t EntriesOf(const char* folder) {
  std::uint64_t count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    ++count;
  }
  return count;
}

}  // namespace

std::uint64_t ThreadCount() {
  return EntriesOf("/proc/self/task");
}

Usage MeasureUsage() {
  Usage usage;
  usage.descriptors = EntriesOf("/proc/self/fd");
  usage.threads = ThreadCount();
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
  (void)malloc_trim(0);  // otherwise freed memory counts as resident
  const struct mallinfo2 heap = mallinfo2();
  usage.heapBytes = heap.uordblks + heap.hblkhd;
#endif
  std::uint64_t mappedPages = 0;
  std::uint64_t residentPages = 0;
  std::ifstream("/proc/self/statm") >> mappedPages >> residentPages;
  const auto pageBytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  usage.mappedBytes = mappedPages * pageBytes;
  usage.residentBytes = residentPages * pageBytes;
  return usage;
}

}  // namespace conformance
