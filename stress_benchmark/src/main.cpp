// SPDX-License-Identifier: Apache-2.0
#include "stress_bencmark.h"

int main(int argc, char** argv) {
  return RunStressBenchmark(argc, argv);
}
