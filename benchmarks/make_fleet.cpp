// SPDX-License-Identifier: Apache-2.0

// Writes the folders of a made-up fleet, to measure collect and fleet.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "made_fleet.h"
#include "program.h"

namespace {

constexpr const char* kUsage =
    "usage: make_fleet FOLDER BOARDS NIGHTS REPEATS SEED\n"
    "\n"
    "Writes the runs of a made-up fleet into FOLDER/night-01, FOLDER/night-02, ... Board b0 gets slower in "
    "the last "
    "night.\n";

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "make_fleet", kUsage);
  if (argc != 6) {
    (void)std::fputs(kUsage, stderr);
    return 2;
  }
  try {
    const MadeSize size = {std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4])};
    // Board b0 has got slower in the last night.
    MadeFleet fleet(std::strtoull(argv[5], nullptr, 10), size, {0.88, 1, true});
    for (int night = 1; night <= size.nights; ++night)
      fleet.Write(std::string(argv[1]) + scope::Format("/night-%02d", night), night == size.nights);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_fleet: %s\n", error.what());
    return 1;
  }
}
