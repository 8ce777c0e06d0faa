#include <exception>
#include <iostream>

#include "commands.h"
#include "run_folder.h"

int main(int argc, char** argv) {
  CLI::App app("Exact rates, bytes and latencies of a run of stress_benchmark.", "stress_scope");
  app.set_version_flag("--version", scope::kToolVersion);
  app.require_subcommand(1);
  app.failure_message(CLI::FailureMessage::simple);
  int status = scope::kExitOk;
  scope::AddRecord(app, status);
  scope::AddRates(app, status);
  scope::AddReport(app, status);
  scope::AddSweep(app, status);
  scope::AddCompare(app, status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? scope::kExitOk : scope::kExitBadUsage;
  } catch (const scope::RunFolderError& error) {
    std::cerr << "stress_scope: " << error.what() << '\n';
    return scope::kExitBadUsage;
  } catch (const std::exception& error) {
    std::cerr << "stress_scope: " << error.what() << '\n';
    return scope::kExitFailure;
  }
  return status;
}
