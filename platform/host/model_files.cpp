// SPDX-License-Identifier: Apache-2.0
#include "model_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <utility>

#include "model_inputs.h"

namespace Ormis::host {

namespace {

// The messages of a model file, a protocol buffer, on the way to the names of external files.
enum class Message : std::uint8_t {
  kModel,
  kFunction,
  kGraph,
  kNode,
  kAttribute,
  kSparseTensor,
  kTensor,
  kExternalData
};

struct Field {
  Message in;
  std::uint8_t number;
  Message is;
};

// Field numbers of onnx.proto3.
constexpr Field kFields[] = {
    {Message::kModel, 7, Message::kGraph},           // graph
    {Message::kModel, 25, Message::kFunction},       // functions
    {Message::kFunction, 7, Message::kNode},         // node
    {Message::kGraph, 1, Message::kNode},            // node
    {Message::kGraph, 5, Message::kTensor},          // initializer
    {Message::kGraph, 15, Message::kSparseTensor},   // sparse_initializer
    {Message::kNode, 5, Message::kAttribute},        // attribute
    {Message::kAttribute, 5, Message::kTensor},      // t
    {Message::kAttribute, 6, Message::kGraph},       // g
    {Message::kAttribute, 10, Message::kTensor},     // tensors
    {Message::kAttribute, 11, Message::kGraph},      // graphs
    {Message::kSparseTensor, 1, Message::kTensor},   // values
    {Message::kSparseTensor, 2, Message::kTensor},   // indices
    {Message::kTensor, 13, Message::kExternalData},  // external_data
};

constexpr int kMaxDepth = 64;  // graphs may be nested; a damaged file shall not end the stack
constexpr std::uint64_t kMaxText = 4096;

/// Walks through the messages of a file. Skips what it need not read, the weights above all.
class ModelReader {
 public:
  ModelReader(std::FILE* file, std::uint64_t size) : file_(file), size_(size) {}

  std::set<std::string> Read() {
    (void)Walk(Message::kModel, size_, 0);
    return std::move(names_);
  }

 private:
  /// Returns false where the file is damaged.
  bool Walk(Message message, std::uint64_t end, int depth) {
    std::string key;
    std::string value;
    while (at_ < end) {
      std::uint64_t tag = 0;
      std::uint64_t length = 0;
      if (!Varint(tag)) return false;
      const std::uint64_t wireType = tag & 7U;
      const std::uint64_t number = tag >> 3U;
      if (!LengthOf(wireType, length) || at_ > end || length > end - at_) return false;
      if (wireType != kLengthDelimited) {
        Skip(length);
      } else if (message == Message::kExternalData && length <= kMaxText) {
        Text(length, number == 1 ? key : value);
      } else if (!WalkField(message, number, length, depth)) {
        return false;
      }
    }
    if (message == Message::kExternalData && key == "location" && !value.empty()) names_.insert(value);
    return true;
  }

  bool WalkField(Message message, std::uint64_t number, std::uint64_t length, int depth) {
    const Field* const field = std::find_if(std::begin(kFields), std::end(kFields), [&](const Field& one) {
      return one.in == message && one.number == number;
    });
    if (field == std::end(kFields) || depth == kMaxDepth) {
      Skip(length);
      return true;
    }
    return Walk(field->is, at_ + length, depth + 1);
  }

  /// Reads the length of a field's value, or finds it from its wire type. A varint is read here and leaves 0
  /// bytes.
  bool LengthOf(std::uint64_t wireType, std::uint64_t& length) {
    std::uint64_t unused = 0;
    length = wireType == 1 ? 8 : wireType == 5 ? 4 : 0;
    if (wireType == 0) return Varint(unused);
    return wireType == kLengthDelimited ? Varint(length) : length != 0;
  }

  bool Varint(std::uint64_t& value) {
    value = 0;
    for (unsigned int shift = 0; shift < kVarintBits; shift += 7) {
      const int byte = std::fgetc(file_);
      if (byte == EOF) return false;
      ++at_;
      value |= (static_cast<std::uint64_t>(byte) & 0x7FU) << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }

  // The length of a value is within the file. Where the file is cut off meanwhile, the next byte shows it.

  void Text(std::uint64_t length, std::string& text) {
    text.resize(length);
    at_ += length;
    (void)std::fread(text.data(), 1, length, file_);
  }

  void Skip(std::uint64_t length) {
    at_ += length;
    (void)fseeko(file_, static_cast<off_t>(at_), SEEK_SET);
  }

  static constexpr std::uint64_t kLengthDelimited = 2;
  static constexpr unsigned int kVarintBits = 70;  // ten bytes of seven bits

  std::FILE* file_;
  std::uint64_t size_;
  std::uint64_t at_ = 0;
  std::set<std::string> names_;
};

FileState StateOf(const std::string& path) {
  struct stat status{};
  (void)stat(path.c_str(), &status);  // leaves all zero where it fails
  return {status.st_dev,          status.st_ino,         status.st_size,        status.st_mtim.tv_sec,
          status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

}  // namespace

std::set<std::string> ExternalWeights(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
  struct stat status{};
  if (file == nullptr || fstat(fileno(file.get()), &status) != 0) return {};
  return ModelReader(file.get(), static_cast<std::uint64_t>(status.st_size)).Read();
}

bool IsRegularFile(const std::string& path) {
  struct stat status{};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::vector<FileState> StatesOfModel(const std::string& path) {
  std::vector<FileState> states = {StateOf(path)};
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  states.push_back(StateOf(InputsPath(path)));
  for (const std::string& name : ExternalWeights(path)) states.push_back(StateOf(folder + name));
  return states;
}

}  // namespace Ormis::host
