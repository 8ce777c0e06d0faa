#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "networks.h"

int main(int argc, char** argv) {
  const bool tiny = argc > 1 && std::strcmp(argv[1], "--tiny") == 0;
  if (argc != (tiny ? 3 : 2)) {
    std::cerr << "usage: make_network [--tiny] FILE\n";
    return 1;
  }
  const std::string path = argv[argc - 1];
  const std::string model = onnx_writer::Serialize(tiny ? TinyNetwork() : ExampleNetwork());

  // Renamed when whole: nothing ever sees half a network.
  const std::string part = path + ".part";
  std::ofstream file(part, std::ios::binary | std::ios::trunc);
  file.write(model.data(), static_cast<std::streamsize>(model.size()));
  file.close();
  if (!file || std::rename(part.c_str(), path.c_str()) != 0) {
    std::perror(("make_network: cannot write " + path).c_str());
    return 1;
  }
  return 0;
}
