// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// A key of run.json.
struct RunKey {
  const char* group;            ///< the object that has it: "config", "conditions"; "" if it is in neither
  const char* name;             ///< "cpu_model"; --allow takes it as well
  bool mustAgree = false;       ///< runs that differ in it are not compared unless the user allows it
  const char* title = nullptr;  ///< in the report's table of conditions; null where it is not there
};

/// The one table of run.json: calls `visit` with each key and its value in `info`, which may be const. The
/// writer, the reader, the comparison and the report use it, and a test compares FORMAT.md with it.
template <typename Info, typename Visit>
void VisitRunKeys(Info& info, const Visit& visit) {
  constexpr bool kMustAgree = true;
  auto& machine = info.conditions;
  visit(RunKey{"", "tool"}, info.tool);
  visit(RunKey{"", "kind"}, info.kind);
  visit(RunKey{"", "started"}, info.started);
  visit(RunKey{"", "complete", kMustAgree}, info.complete);
  visit(RunKey{"", "incomplete_reason"}, info.incompleteReason);
  visit(RunKey{"", "duration_s"}, info.durationS);
  visit(RunKey{"", "exit_status"}, info.exitStatus);
  visit(RunKey{"", "signal"}, info.signal);
  visit(RunKey{"", "label"}, info.label);
  visit(RunKey{"config", "path"}, info.config.path);
  visit(RunKey{"config", "text"}, info.config.text);
  visit(RunKey{"config", "levels", kMustAgree, "Levels"}, info.config.levels);
  visit(RunKey{"config", "settings"}, info.config.settings);
  visit(RunKey{"conditions", "meter", kMustAgree, "Every operation measured"}, machine.meter);
  visit(RunKey{"conditions", "fill", kMustAgree, "Data of sources and frames"}, machine.fill);
  visit(RunKey{"conditions", "verify", kMustAgree, "Results checked"}, machine.verify);
  visit(RunKey{"conditions", "guard", kMustAgree, "Memory guarded"}, machine.guard);
  visit(RunKey{"conditions", "latency", kMustAgree, "Latency of memory measured"}, machine.latency);
  visit(RunKey{"conditions", "control", kMustAgree, "Computing beside the benchmark"}, machine.control);
  visit(RunKey{"conditions", "own_cpus", kMustAgree, "CPUs of one engine alone"}, machine.ownCpus);
  visit(RunKey{"conditions", "duty", kMustAgree, "Share of time in which engines work"}, machine.duty);
  visit(RunKey{"conditions", "build_type", kMustAgree, "Build"}, machine.buildType);
  visit(RunKey{"conditions", "library_versions", kMustAgree, "Libraries"}, machine.libraryVersions);
  visit(RunKey{"conditions", "platform_settings", kMustAgree, "Platform's settings"},
        machine.platformSettings);
  visit(RunKey{"conditions", "encoder_engines", kMustAgree, "Encoder's engines, by channel"},
        machine.encoderEngines);
  visit(RunKey{"conditions", "cpu_model", kMustAgree, "CPU"}, machine.cpuModel);
  visit(RunKey{"conditions", "cpu_count", kMustAgree, "CPUs"}, machine.cpuCount);
  visit(RunKey{"conditions", "caches", kMustAgree, "Caches"}, machine.caches);
  visit(RunKey{"conditions", "governor", kMustAgree, "Governor"}, machine.governor);
  visit(RunKey{"conditions", "cpu_mhz", kMustAgree, "CPU frequency"}, machine.cpuMhz);
  visit(RunKey{"conditions", "mem_total_bytes", kMustAgree, "Memory"}, machine.memTotalBytes);
  visit(RunKey{"conditions", "kernel", kMustAgree, "Kernel"}, machine.kernel);
  // Noise, not a setting: it need not agree.
  visit(RunKey{"conditions", "load_average", false, "Load average at the start"}, machine.loadAverage);
  visit(RunKey{"conditions", "hostname_hash", kMustAgree, "Machine (hash of its name)"},
        machine.hostnameHash);
  visit(RunKey{"", "counters"}, info.counters);
  visit(RunKey{"", "verification"}, info.verification);
  visit(RunKey{"", "streams"}, info.streams);
  visit(RunKey{"", "filling"}, info.filling);
  visit(RunKey{"", "deadlines"}, info.deadlines);
  visit(RunKey{"", "guard"}, info.guard);
  visit(RunKey{"", "latency"}, info.latency);
  visit(RunKey{"", "errors"}, info.errors);
}

struct RunText {
  RunKey key;
  std::string text;  ///< for people; empty if the machine does not report it
};

/// The keys that must agree or have a title, and what `info` has there. The same keys in the same order for
/// every run.
std::vector<RunText> RunTexts(const RunInfo& info);

}  // namespace scope
