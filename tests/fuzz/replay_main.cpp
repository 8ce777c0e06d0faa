// SPDX-License-Identifier: Apache-2.0

// Runs a fuzzer's harness over stored inputs. Needs no fuzzer, so it works with any compiler on any target.
//
//   PROGRAM FILE_OR_FOLDER...
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesOf(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::vector<fs::path> files = FilesOf(argv[i]);
    if (files.empty()) {
      std::cerr << "no inputs in " << argv[i] << "\n";
      return 1;
    }
    for (const fs::path& path : files) {
      std::ifstream file(path, std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      if (!file) {
        std::cerr << "cannot read " << path << "\n";
        return 1;
      }
      // Printed before the run, because a harness ends the process at a finding.
      std::cout << path.string() << std::endl;
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::cout << count << " inputs replayed\n";
  return count == 0 ? 1 : 0;
}
