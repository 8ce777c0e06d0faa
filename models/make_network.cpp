// SPDX-License-Identifier: Apache-2.0
#include <charconv>
#include <cstdio>
#include <iostream>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "networks.h"
#include "prepare_process.h"

namespace {

const char* const kUsage = R"(usage: make_network [--tiny | --memory [MB]] FILE
Writes the example network, or another one, as an ONNX model to FILE.

  --tiny         a much smaller network: for tests, and for trying a platform
  --memory [MB]  fully connected layers at batch 1, with weights of MB x 10^6 bytes, 1 to 2000 (default: 128). An
                 inference reads each weight once and computes little with it, so the memory limits it. The weights
                 should have four times the last cache's size: `residency cache` measures that
  --help         print this help
  --version      print the version
)";

constexpr std::int64_t kDefaultMegabytes = 128;

enum class Kind : std::uint8_t { kExample, kTiny, kMemory };

struct Options {
  Kind kind = Kind::kExample;
  std::int64_t megabytes = kDefaultMegabytes;
  std::string path;
};

/// A number of too many digits is the largest.
bool IsNumber(const std::string& text, std::int64_t& number) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc::result_out_of_range) number = std::numeric_limits<std::int64_t>::max();
  return error != std::errc::invalid_argument && rest == end;
}

/// Returns the empty string, or what is wrong with the arguments.
std::string Read(std::vector<std::string> arguments, Options& options) {
  if (!arguments.empty() && (arguments[0] == "--tiny" || arguments[0] == "--memory")) {
    options.kind = arguments[0] == "--tiny" ? Kind::kTiny : Kind::kMemory;
    arguments.erase(arguments.begin());
  }
  std::int64_t number = 0;
  if (options.kind == Kind::kMemory && arguments.size() == 2) {
    if (!IsNumber(arguments[0], options.megabytes) || options.megabytes < kMinMemoryMegabytes ||
        options.megabytes > kMaxMemoryMegabytes) {
      return "--memory is '" + arguments[0] + "', expected a whole number of MB from " +
             std::to_string(kMinMemoryMegabytes) + " to " + std::to_string(kMaxMemoryMegabytes);
    }
    arguments.erase(arguments.begin());
  } else if (options.kind == Kind::kMemory && arguments.size() == 1 && IsNumber(arguments[0], number)) {
    return "--memory " + arguments[0] + " is not followed by the name of a file";
  }
  if (arguments.size() != 1) return "expected one file, got " + std::to_string(arguments.size());
  options.path = arguments[0];
  if (options.path.empty()) return "the name of the file is empty";
  if (options.path.front() == '-') return "there is no option " + options.path;
  return {};
}

std::string Model(const Options& options) {
  switch (options.kind) {
    case Kind::kTiny:
      return onnx_writer::Serialize(TinyNetwork());
    case Kind::kMemory:
      return onnx_writer::Serialize(MemoryNetwork(options.megabytes));
    case Kind::kExample:
      break;
  }
  return onnx_writer::Serialize(ExampleNetwork());
}

/// Writes the file. It is renamed when complete, so that no reader finds a part of it.
bool Write(const std::string& model, const std::string& path) {
  const std::string part = path + ".part";
  (void)std::remove(part.c_str());
  // "x": a link that somebody puts there is not followed.
  std::FILE* const file = std::fopen(part.c_str(), "wbxe");
  bool written = file != nullptr && std::fwrite(model.data(), 1, model.size(), file) == model.size();
  if (file != nullptr) written = std::fclose(file) == 0 && written;
  if (written && std::rename(part.c_str(), path.c_str()) == 0) return true;
  std::perror(("make_network: cannot write " + path).c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  stress::PrepareProcess();
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments == std::vector<std::string>{"--help"}) {
    std::cout << kUsage;
    return 0;
  }
  if (arguments == std::vector<std::string>{"--version"}) {
    std::cout << "make_network " STRESS_VERSION "\n";
    return 0;
  }
  Options options;
  if (const std::string wrong = Read(arguments, options); !wrong.empty()) {
    std::cerr << "make_network: " << wrong << "\n" << kUsage;
    return 1;
  }
  try {
    return Write(Model(options), options.path) ? 0 : 1;
  } catch (const std::bad_alloc&) {
    std::cerr << "make_network: not enough memory to make " << options.path << "\n";
    return 1;
  }
}
