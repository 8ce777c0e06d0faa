// SPDX-License-Identifier: Apache-2.0
#include "benchmark_command.h"

#include <cstdlib>

#include "control.h"
#include "protocol.h"
#include "text_format.h"

namespace scope {

ChildProcess::Options BenchmarkCommand(const RecordOptions& options, const std::string& program,
                                       const std::string& preload, int meterEnd) {
  ChildProcess::Options command;
  command.program = program;
  command.arguments = {options.config};
  command.arguments.insert(command.arguments.end(), options.extra.begin(), options.extra.end());
  command.takeErrors = true;
  if (preload.empty()) return command;
  const char* const others = std::getenv("LD_PRELOAD");
  const bool more = others != nullptr && *others != '\0';
  command.environment = {{"LD_PRELOAD", more ? preload + ":" + others : preload},
                         {kDescriptorVariable, std::to_string(meterEnd)}};
  const auto add = [&command](const char* name, const std::string& value) {
    command.environment.emplace_back(name, value);
  };
  if (!options.fill.empty()) add(kFillVariable, options.fill);
  if (!options.own.cpus.empty()) add(kPinVariable, OwnCpusText(options.own, "="));
  if (options.verify) add(kVerifyVariable, "1");
  if (!options.deadlines.empty()) add(kDeadlinesVariable, DeadlinesText(options.deadlines));
  if (options.dutyPercent < kWholeDuty) add(kDutyVariable, Format("%.6g", options.dutyPercent));
  command.inherit = meterEnd;
  return command;
}

}  // namespace scope
