// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

/// Reaches into the memory of a running guard from outside, as a fault of the memory would.
namespace guarded {

/// The guard that this program has started; -1 if there is none.
inline pid_t Process() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name;
    std::string state;
    pid_t id = 0;
    pid_t parent = 0;
    std::ifstream(entry.path() / "stat") >> id >> name >> state >> parent;
    if (name == "(scope_guard)" && parent == getpid()) return id;
  }
  return -1;
}

/// The address of its memory, which has `bytes`: no other mapping is of this size. 0 if there is none.
inline std::uint64_t Address(pid_t guard, std::uint64_t bytes) {
  std::ifstream maps("/proc/" + std::to_string(guard) + "/maps");
  for (std::string line; std::getline(maps, line);) {
    char* end = nullptr;
    const std::uint64_t from = std::strtoull(line.c_str(), &end, 16);
    const std::uint64_t to = std::strtoull(end + 1, &end, 16);
    if (to - from == bytes && std::string(end).rfind(" rw-p", 0) == 0) return from;
  }
  return 0;
}

/// Changes a bit. True if it was written: the byte is read again.
inline bool Flip(pid_t guard, std::uint64_t address, std::uint64_t bit) {
  const int memory = open(("/proc/" + std::to_string(guard) + "/mem").c_str(), O_RDWR | O_CLOEXEC);
  const auto at = static_cast<off_t>(address + bit / 8);
  unsigned char byte = 0;
  bool done = pread(memory, &byte, 1, at) == 1;
  byte ^= static_cast<unsigned char>(1U << bit % 8);
  done = done && pwrite(memory, &byte, 1, at) == 1;
  if (memory >= 0) (void)close(memory);
  return done;
}

}  // namespace guarded
