// SPDX-License-Identifier: Apache-2.0

/// The benchmark's unchanged workers inside a program that measures. workers.cpp stands in front of the
/// platform's operations: link it into a program that exports its symbols.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "line_timer.h"
#include "stress_register.h"

namespace measure {

enum class Engine : std::uint8_t {
#define ENGINE(symbol, ...) k##symbol,
#include "engines.inc"
#undef ENGINE
};
/// Those that work during a run: the first ones of the table.
constexpr Engine kEngines[] = {Engine::kCpu, Engine::kVpc, Engine::kVenc, Engine::kAic};
const char* Name(Engine engine);  ///< the section of the configuration: "CPU"

/// The memory that an operation has read and written, as far as callers can reach it.
struct Touched {
  std::vector<Range> sources;
  std::vector<Range> destinations;
};

/// Is called on the worker's thread around each operation that it makes.
class Watcher {
 public:
  Watcher() = default;
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  virtual ~Watcher() = default;
  virtual void Before(Engine /*engine*/) {}
  virtual void After(Engine engine, const Touched& touched) = 0;
};

/// From now on operations are reported to `watcher`; null ends that. No worker may be running.
void Watch(Watcher* watcher);

/// Workers of one engine, with the pauses that they have in the benchmark.
class Workers {
 public:
  Workers(Engine engine, int level, const std::string& model);
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers() { Stop(); }  ///< as Stop

  /// Lets each worker end its current operation, and waits for all of them.
  void Stop();

  /// A worker has ended although nobody stopped it: an operation failed, and the log says why.
  bool Failed() const { return ended_ > 0; }

 private:
  void Run(int index);

  Engine engine_;
  std::unique_ptr<vorn::StressRegister> record_;
  volatile int stop_ = 0;  // as the benchmark's own
  std::atomic<int> ended_{0};
  std::vector<std::thread> threads_;
};

}  // namespace measure
