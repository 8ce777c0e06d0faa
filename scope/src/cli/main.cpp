#include "program.h"

int main(int argc, char** argv) {
  return scope::Main(argc, argv);
}
