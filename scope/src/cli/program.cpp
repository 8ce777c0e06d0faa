// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include <exception>

#include "commands.h"
#include "errors.h"
#include "standard_output.h"
#include "tell.h"

namespace scope {
namespace {

// The chosen sub-command sets `status`.
int Parse(CLI::App& app, int argc, char** argv, const int& status) {
  try {
    app.parse(argc, argv);
    return status;
  } catch (const CLI::Success& answered) {
    (void)app.exit(answered);  // --help or --version
    return kExitOk;
  } catch (const CLI::ParseError& error) {
    throw UserError(UsageError(app, error));
  }
}

}  // namespace

int Main(int argc, char** argv) {
  CLI::App app("Measure exact rates, bytes and latencies of a run of stress_benchmark", "stress_scope");
  SetHelpLayout(app);
  app.set_version_flag("--version", kToolVersion, "Print the version");
  app.require_subcommand(1);
  app.footer(
      "Examples:\n"
      "  stress_scope record config/all.yaml -o before\n"
      "  stress_scope report before\n\n"
      "\"stress_scope COMMAND --help\" describes a command, \"man stress_scope\" everything.");
  int status = kExitOk;
  AddRecord(app, status);
  AddRates(app, status);
  AddReport(app, status);
  AddSweep(app, status);
  AddCurve(app, status);
  AddCompare(app, status);
  AddAb(app, status);
  AddPlan(app, status);
  AddCell(app, status);
  AddCollect(app, status);
  AddFleet(app, status);
  AddMatrix(app, status);
  try {
    status = Parse(app, argc, argv, status);
    RequireStandardOutput();
  } catch (const Interrupted& error) {
    Tell(error.what());
    return kExitFailure;
  } catch (const UserError& error) {
    Tell(error.what());
    return status == kExitOk ? kExitBadUsage : status;
  } catch (const std::exception& error) {
    Tell(error.what());
    return kExitFailure;
  }
  return status;
}

}  // namespace scope
