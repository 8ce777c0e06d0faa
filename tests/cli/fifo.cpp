// SPDX-License-Identifier: Apache-2.0
#include "fifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "program.h"

Fifo::Fifo(std::filesystem::path path) : path_(std::move(path)) {
  if (mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("cannot make " + path_.string());
}

int Fifo::WaitForReader() const {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < end) {
    // A non-blocking open for writing succeeds only when a reader has opened the pipe or is opening it.
    const int descriptor = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor >= 0) return descriptor;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return -1;
}

bool Fifo::Feed(const std::string& content) const {
  const int descriptor = WaitForReader();
  if (descriptor < 0) return false;
  const bool whole =
      write(descriptor, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  close(descriptor);
  return whole;
}
