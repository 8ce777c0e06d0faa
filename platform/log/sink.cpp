// SPDX-License-Identifier: Apache-2.0
#include "sink.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

namespace ara::log {

namespace {

constexpr int kWaitMs = 10;
constexpr int kMaxWaits = 100;
// Attempts to write one line; a signal may interrupt each of them before it has written anything.
constexpr int kMaxAttempts = 100;

/// write(2) that fails with EFBIG when the file may not grow (RLIMIT_FSIZE), without the SIGXFSZ that would
/// end the program. The kernel sends the signal to the writing thread, which blocks it and then removes it.
ssize_t WriteWithoutSizeSignal(int descriptor, const char* bytes, std::size_t size) {
  sigset_t sizeSignal;
  sigemptyset(&sizeSignal);
  sigaddset(&sizeSignal, SIGXFSZ);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &sizeSignal, &before);
  const ssize_t written = write(descriptor, bytes, size);
  const int error = errno;
  if (sigismember(&before, SIGXFSZ) == 0) {
    if (written < 0) {
      constexpr timespec kAtOnce{};
      sigtimedwait(&sizeSignal, nullptr, &kAtOnce);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  errno = error;
  return written;
}

}  // namespace

const char* ErrorText(int error) {
  const char* const text = strerrordesc_np(error);
  return text != nullptr ? text : "unknown error";
}

const char* Sink::Deliver(FixedText line) {
  if (disabled_.load(std::memory_order_relaxed)) return nullptr;
  // Read first: it is nearly always zero, and a read leaves the cache line shared between the processors.
  const std::uint32_t lost = lost_.load(std::memory_order_relaxed) == 0 ? 0 : lost_.exchange(0);
  const bool torn = torn_.load(std::memory_order_relaxed) && torn_.exchange(false);
  if (lost > 0) {
    line.Append(" [");
    line.AppendDecimal(lost);
    line.Append(" lost before]");
  }
  line.Append("\n");

  const std::size_t skipped = torn ? 0 : 1;
  // After a loss the sink does not wait again, so a reader that stopped reading delays one line and not each.
  const char* const reason =
      WriteOnce(line.data() + skipped, line.size() - skipped, lost > 0 ? 0 : kMaxWaits);
  if (reason != nullptr) {
    lost_.fetch_add(lost + 1);
    if (torn) torn_.store(true);
  }
  return reason;
}

const char* Sink::WriteOnce(const char* line, std::size_t size, int waits) {
  const int descriptor = descriptor_.load(std::memory_order_relaxed);
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    if ((blocking_ == Blocking::kPossible || attempt > 0) && !WaitUntilReady(descriptor, &waits)) {
      return "it takes nothing";
    }
    const ssize_t written = WriteWithoutSizeSignal(descriptor, line, size);
    if (written == static_cast<ssize_t>(size)) return nullptr;
    if (written >= 0) {
      // The rest is not written: another thread's line may follow by now.
      torn_.store(true);
      return "it took a line in part";
    }
    if (errno != EINTR && errno != EAGAIN) return ErrorText(errno);
  }
  return "it takes nothing";
}

// Called before each write that could block, and before each repeated write. Returns false as well for a pipe
// without a reader, so that the write does not raise SIGPIPE. `waits` is the number of waits that the line
// has left.
bool Sink::WaitUntilReady(int descriptor, int* waits) {
  pollfd request{descriptor, POLLOUT, 0};
  int ready = poll(&request, 1, 0);
  // An interrupted poll counts as a wait. Otherwise a stream of signals could make the wait endless.
  for (; ready <= 0 && *waits > 0; --*waits) ready = poll(&request, 1, kWaitMs);
  return request.revents == POLLOUT;
}

bool Sink::Replace(int descriptor) {
  const int old = descriptor_.load(std::memory_order_relaxed);
  if (old < 0) {
    descriptor_.store(descriptor);
  } else {
    // The descriptor keeps its number and is never closed, so a thread that has just read the number writes
    // to the old file or to the new one.
    int result = 0;
    int attempts = 0;
    do {
      result = dup3(descriptor, old, O_CLOEXEC);
      ++attempts;
    } while (result < 0 && (errno == EINTR || errno == EBUSY) && attempts < kMaxAttempts);
    const int error = errno;
    close(descriptor);
    errno = error;
    if (result < 0) return false;
  }
  lost_.store(0);
  torn_.store(false);
  return true;
}

}  // namespace ara::log
