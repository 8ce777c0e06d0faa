// SPDX-License-Identifier: Apache-2.0
#include "prepare_process.h"
#include "program.h"

// Apart from the program, so that it can be compiled without the command-line library.
int main(int argc, char** argv) {
  stress::PrepareProcess();
  return scope::Main(argc, argv);
}
