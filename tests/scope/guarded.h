// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

/// Reaches into the memory of a running guard from outside, as a fault of the memory would.
namespace guarded {

/// The guard, or another process of this name, that this program has started; -1 if there is none.
inline pid_t Process(const std::string& wanted = "scope_guard") {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name;
    std::string state;
    pid_t id = 0;
    pid_t parent = 0;
    std::ifstream(entry.path() / "stat") >> id >> name >> state >> parent;
    if (name == "(" + wanted + ")" && parent == getpid()) return id;
  }
  return -1;
}

/// True if the process has got the signal. -1 gets none: it would mean all processes.
inline bool Signal(pid_t process, int signal) {
  return process > 0 && kill(process, signal) == 0;
}

/// The address of its memory, which has `bytes`: a mapping of this size between two pages that nobody may
/// touch. A sanitizer has others of this size. 0 if there is none.
inline std::uint64_t Address(pid_t guard, std::uint64_t bytes) {
  struct Mapping {
    std::uint64_t from = 0;
    std::uint64_t to = 0;
    std::string rights;
  };
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const auto isBarrier = [page](const Mapping& one) {
    return one.rights == "---p" && one.to - one.from == page;
  };
  std::ifstream maps("/proc/" + std::to_string(guard) + "/maps");
  Mapping before;
  Mapping memory;
  for (std::string line; std::getline(maps, line);) {
    char* end = nullptr;
    Mapping behind;
    behind.from = std::strtoull(line.c_str(), &end, 16);
    behind.to = std::strtoull(end + 1, &end, 16);
    behind.rights = std::string(end).substr(1, 4);
    if (memory.to - memory.from == bytes && memory.rights == "rw-p" && isBarrier(before) &&
        isBarrier(behind) && before.to == memory.from && behind.from == memory.to) {
      return memory.from;
    }
    before = std::exchange(memory, behind);
  }
  return 0;
}

/// The byte of a bit; -1 if it cannot be read.
inline int Byte(pid_t guard, std::uint64_t address, std::uint64_t bit) {
  const int memory = open(("/proc/" + std::to_string(guard) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  unsigned char byte = 0;
  const bool isRead = pread(memory, &byte, 1, static_cast<off_t>(address + bit / 8)) == 1;
  if (memory >= 0) (void)close(memory);
  return isRead ? byte : -1;
}

/// Changes a bit, and returns its byte; -1 if it could not be written.
inline int Flipped(pid_t guard, std::uint64_t address, std::uint64_t bit) {
  const int memory = open(("/proc/" + std::to_string(guard) + "/mem").c_str(), O_RDWR | O_CLOEXEC);
  const auto at = static_cast<off_t>(address + bit / 8);
  unsigned char byte = 0;
  bool done = pread(memory, &byte, 1, at) == 1;
  byte ^= static_cast<unsigned char>(1U << bit % 8);
  done = done && pwrite(memory, &byte, 1, at) == 1;
  if (memory >= 0) (void)close(memory);
  return done ? byte : -1;
}

/// True if the bit was changed.
inline bool Flip(pid_t guard, std::uint64_t address, std::uint64_t bit) {
  return Flipped(guard, address, bit) >= 0;
}

}  // namespace guarded
