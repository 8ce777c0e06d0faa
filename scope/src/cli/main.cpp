// SPDX-License-Identifier: Apache-2.0
#include "program.h"

// Apart from the program, so that it can be compiled without the command-line library.
int main(int argc, char** argv) {
  return scope::Main(argc, argv);
}
