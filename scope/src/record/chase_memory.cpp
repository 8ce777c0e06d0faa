// SPDX-License-Identifier: Apache-2.0
#include "chase_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <sstream>
#include <string>

#include "system_files.h"

namespace scope {
namespace {

constexpr std::uint64_t kUsualLine = 64;
constexpr std::uint64_t kUsualHugePage = std::uint64_t{2} << 20;
// A cache line of 64 bytes holds eight entries of a page table, each for a page of 4 KiB. A virtual machine
// has such a table beneath its own, whatever pages it uses itself.
constexpr std::uint64_t kTableReach = std::uint64_t{32} << 10;
// Some milliseconds, for which a load on the same CPU may have to wait.
constexpr std::uint64_t kMostTouches = std::uint64_t{1} << 16;

// The finalizer of SplitMix64.
std::uint64_t NextRandom(std::uint64_t& state) {
  state += 0x9e3779b97f4a7c15U;
  std::uint64_t mixed = (state ^ (state >> 30)) * 0xbf58476d1ce4e5b9U;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
  return mixed ^ (mixed >> 31);
}

// What mmap takes for reserved pages of this size, which need not be the system's usual one.
int HugePageFlags(std::uint64_t bytes) {
  int power = 0;
  while (std::uint64_t{1} << power < bytes) ++power;
  return MAP_HUGETLB | (power << MAP_HUGE_SHIFT);
}

void* Map(std::size_t bytes, int flags) {
  return mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
}

// The number of KiB behind `key` in a line of smaps, in bytes; 0 if the line has another key.
std::uint64_t BytesOf(const std::string& line, const char* key) {
  const std::string text = key;
  if (line.compare(0, text.size(), text) != 0) return 0;
  return std::strtoull(line.c_str() + text.size(), nullptr, 10) << 10;
}

}  // namespace

std::uint64_t CacheLineBytes() {
  const std::uint64_t most = std::uint64_t{4} << 10;
  const auto line = static_cast<std::uint64_t>(
      ReadNumber("/sys/devices/system/cpu/cpu0/cache/index0/coherency_line_size").value_or(kUsualLine));
  const bool isPowerOf2 = line != 0 && (line & (line - 1)) == 0;
  return isPowerOf2 && line >= sizeof(ChaseMemory::Line) && line <= most ? line : kUsualLine;
}

std::uint64_t ChaseMemory::HugePageBytes() {
  const auto bytes = static_cast<std::uint64_t>(
      ReadNumber("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size").value_or(kUsualHugePage));
  return bytes != 0 && (bytes & (bytes - 1)) == 0 ? bytes : kUsualHugePage;
}

ChaseMemory::ChaseMemory(std::uint64_t bytes, Pages wanted)
    : lineBytes_(CacheLineBytes()), bytes_(bytes / lineBytes_ * lineBytes_) {
  if (bytes_ == 0) throw std::bad_alloc();
  const std::uint64_t huge = HugePageBytes();
  const bool isHuge = wanted == Pages::kHuge;
  mappingBytes_ = (bytes_ + huge - 1) / huge * huge;
  void* memory = isHuge ? Map(mappingBytes_, HugePageFlags(huge)) : MAP_FAILED;
  // Few systems have pages of this kind in reserve. The others make huge pages of usual ones, where these lie
  // on a border of a huge page.
  if (memory == MAP_FAILED) {
    mappingBytes_ += huge;
    memory = Map(mappingBytes_, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(memory);
    data_ = static_cast<unsigned char*>(memory) + (huge - start % huge) % huge;
    (void)madvise(data_, mappingBytes_ - huge, isHuge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
  } else {
    data_ = static_cast<unsigned char*>(memory);
  }
  mapping_ = static_cast<unsigned char*>(memory);
}

ChaseMemory::~ChaseMemory() {
  (void)munmap(mapping_, mappingBytes_);
}

// Sattolo's shuffle, inside out: each new line is put into the cycle behind a random one. So the first lines
// are a random cycle at any time.
void ChaseMemory::GrowTo(std::uint64_t bytes) {
  const std::uint64_t wanted = std::min(bytes, bytes_) / lineBytes_;
  if (lines_ == 0 && wanted != 0) At(lines_++)->next = At(0);
  for (; lines_ < wanted; ++lines_) {
    Line* const before = At(NextRandom(random_) % lines_);
    At(lines_)->next = before->next;
    before->next = At(lines_);
  }
  isHuge_ = HugeBytes() == CycleBytes();
}

std::uint64_t ChaseMemory::TouchPages() const {
  // In the table beneath, the entries of small pages are in any order.
  const std::uint64_t apart = isHuge_ ? kTableReach : static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const std::uint64_t reach = std::max(apart, CycleBytes() / kMostTouches);
  const std::uint64_t step = std::max(std::uint64_t{1}, reach / lineBytes_);
  std::uint64_t touched = 0;
  for (std::uint64_t line = 0; line < lines_; line += step, ++touched) {
    (void)*const_cast<Line* volatile*>(&At(line)->next);
  }
  return touched;
}

// Each mapping begins with a line that has its first and last address, and no blank in front of the first
// "-".
std::uint64_t ChaseMemory::HugeBytes() const {
  const auto from = reinterpret_cast<std::uintptr_t>(data_);
  const std::uintptr_t to = from + bytes_;
  std::istringstream lines(ReadText("/proc/self/smaps").value_or(""));
  std::uint64_t huge = 0;
  bool isOwn = false;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t dash = line.find('-');
    if (dash != std::string::npos && dash < line.find(' ') && dash < line.find(':')) {
      const std::uintptr_t first = std::strtoull(line.c_str(), nullptr, 16);
      const std::uintptr_t end = std::strtoull(line.c_str() + dash + 1, nullptr, 16);
      isOwn = first < to && from < end;
    }
    if (!isOwn) continue;
    huge += BytesOf(line, "AnonHugePages:") + BytesOf(line, "Private_Hugetlb:");
  }
  return std::min(huge, CycleBytes());
}

}  // namespace scope
