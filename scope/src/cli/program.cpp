// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include <exception>
#include <iostream>

#include "commands.h"
#include "errors.h"

namespace scope {

int Main(int argc, char** argv) {
  CLI::App app("Exact rates, bytes and latencies of a run of stress_benchmark.", "stress_scope");
  app.set_version_flag("--version", kToolVersion);
  app.require_subcommand(1);
  app.failure_message(CLI::FailureMessage::simple);
  int status = kExitOk;
  AddRecord(app, status);
  AddRates(app, status);
  AddReport(app, status);
  AddSweep(app, status);
  AddCompare(app, status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitOk : kExitBadUsage;
  } catch (const UserError& error) {
    std::cerr << "stress_scope: " << error.what() << '\n';
    return kExitBadUsage;
  } catch (const std::exception& error) {
    std::cerr << "stress_scope: " << error.what() << '\n';
    return kExitFailure;
  }
  return status;
}

}  // namespace scope
