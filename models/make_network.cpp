// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstring>
#include <iostream>

#include "networks.h"
#include "prepare_process.h"

namespace {

const char* const kUsage = R"(usage: make_network [--tiny] FILE
Writes the example network, an ONNX model, to FILE.

  --tiny     a much smaller network: for tests, and for trying a platform
  --help     print this help
  --version  print the version
)";

}  // namespace

int main(int argc, char** argv) {
  stress::PrepareProcess();
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::cout << kUsage;
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::cout << "make_network " STRESS_VERSION "\n";
    return 0;
  }
  const bool tiny = argc > 1 && std::strcmp(argv[1], "--tiny") == 0;
  const std::string path = argc == (tiny ? 3 : 2) ? argv[argc - 1] : "";
  if (path.empty() || path.front() == '-') {
    std::cerr << kUsage;
    return 1;
  }
  const std::string model = onnx_writer::Serialize(tiny ? TinyNetwork() : ExampleNetwork());

  // Renamed when complete, so that no reader finds a part of the file.
  const std::string part = path + ".part";
  (void)std::remove(part.c_str());
  // "x": a link that somebody puts there is not followed.
  std::FILE* const file = std::fopen(part.c_str(), "wbxe");
  bool written = file != nullptr && std::fwrite(model.data(), 1, model.size(), file) == model.size();
  if (file != nullptr) written = std::fclose(file) == 0 && written;
  if (!written || std::rename(part.c_str(), path.c_str()) != 0) {
    std::perror(("make_network: cannot write " + path).c_str());
    return 1;
  }
  return 0;
}
