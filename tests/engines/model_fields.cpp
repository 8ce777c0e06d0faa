// SPDX-License-Identifier: Apache-2.0
#include "model_fields.h"

#include <stdexcept>

namespace {

using Kind = ModelField::Kind;
using Message = std::vector<ModelField>;

constexpr int kMaxDepth = 8;

class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}

  bool Message(::Message& fields, int depth) {
    while (at_ < bytes_.size()) {
      std::uint64_t key = 0;
      if (!Number(key) || key >> 3 == 0 || key >> 3 > 100) return false;
      ModelField field;
      field.id = static_cast<std::uint32_t>(key >> 3);
      field.kind = static_cast<Kind>(key & 7);
      if (!Value(field, depth)) return false;
      fields.push_back(field);
    }
    return true;
  }

 private:
  bool Number(std::uint64_t& number) {
    for (unsigned int shift = 0; at_ < bytes_.size() && shift < 64; shift += 7) {
      const auto byte = static_cast<unsigned char>(bytes_[at_++]);
      number |= std::uint64_t{byte & 0x7fU} << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }

  bool Value(ModelField& field, int depth) {
    std::uint64_t size = 0;
    switch (field.kind) {
      case Kind::kNumber:
        return Number(field.number);
      case Kind::kFixed32:
        size = 4;
        break;
      case Kind::kFixed64:
        size = 8;
        break;
      case Kind::kBytes:
        if (!Number(size)) return false;
        break;
      default:
        return false;
    }
    if (size > bytes_.size() - at_) return false;
    field.bytes = bytes_.substr(at_, size);
    at_ += size;
    // The format does not say whether bytes are a message, so try.
    ::Message below;
    if (field.kind == Kind::kBytes && depth < kMaxDepth && size > 0 &&
        Reader(field.bytes).Message(below, depth + 1)) {
      field.message = std::move(below);
      field.bytes.clear();
    }
    return true;
  }

  const std::string& bytes_;
  std::size_t at_ = 0;
};

void WriteNumber(std::uint64_t number, std::string& bytes) {
  for (; number >= 0x80; number >>= 7) bytes.push_back(static_cast<char>(number | 0x80));
  bytes.push_back(static_cast<char>(number));
}

void List(Message& message, std::vector<Message*>& all) {
  all.push_back(&message);
  for (ModelField& field : message) {
    if (!field.message.empty()) List(field.message, all);
  }
}

class Changer {
 public:
  Changer(Message& root, std::mt19937& random) : root_(root), random_(random) { List(root, messages_); }

  void Change() {
    Message& message = *messages_[Below(messages_.size())];
    if (message.empty()) return;
    const std::size_t index = Below(message.size());
    switch (Below(8)) {
      case 0:
      case 1:
      case 2:
        ChangeValue(message[index]);
        break;
      case 3:
        Insert(message, ModelField(message[index]));
        break;
      case 4:
        message.erase(message.begin() + static_cast<std::ptrdiff_t>(index));
        break;
      case 5:
        message[index].id = static_cast<std::uint32_t>(1 + Below(25));
        break;
      case 6: {
        const Message& other = *messages_[Below(messages_.size())];
        if (!other.empty()) Insert(message, ModelField(other[Below(other.size())]));
        break;
      }
      default:
        ChangeOperation();
        break;
    }
  }

 private:
  std::size_t Below(std::size_t end) { return random_() % end; }

  void Insert(Message& message, const ModelField& field) {
    message.insert(message.begin() + static_cast<std::ptrdiff_t>(Below(message.size() + 1)), field);
  }

  void ChangeValue(ModelField& field) {
    static constexpr std::uint64_t kNumbers[] = {0,
                                                 1,
                                                 2,
                                                 3,
                                                 7,
                                                 11,
                                                 16,
                                                 255,
                                                 1ULL << 16,
                                                 INT32_MAX,
                                                 1ULL << 31,
                                                 UINT32_MAX,
                                                 1ULL << 32,
                                                 1ULL << 40,
                                                 1ULL << 62,
                                                 INT64_MAX,
                                                 1ULL << 63,
                                                 UINT64_MAX,
                                                 UINT64_MAX - 1};
    if (field.kind == Kind::kNumber) {
      field.number = kNumbers[Below(std::size(kNumbers))];
      return;
    }
    switch (Below(4)) {
      case 0:
        field.bytes.clear();
        break;
      case 1:
        field.bytes.resize(Below(field.bytes.size() * 2 + 2), static_cast<char>(random_()));
        break;
      case 2:
        if (!field.bytes.empty()) field.bytes[Below(field.bytes.size())] = static_cast<char>(random_());
        break;
      default:
        field.bytes.assign(8 * Below(9), Below(2) == 0 ? '\0' : '\xff');
        break;
    }
    field.message.clear();
    // A value of a fixed kind always has its size.
    if (field.kind != Kind::kBytes) field.bytes.resize(field.kind == Kind::kFixed32 ? 4 : 8);
  }

  /// Field 7 of a model is its graph, field 1 of a graph is a node, field 4 of a node is its operation.
  void ChangeOperation() {
    static const char* const kOperations[] = {"Conv",       "ConvTranspose", "MaxPool",    "AveragePool",
                                              "LpPool",     "Gemm",          "MatMul",     "Reshape",
                                              "Transpose",  "Concat",        "Split",      "Slice",
                                              "Gather",     "Expand",        "Tile",       "Pad",
                                              "Resize",     "Upsample",      "Loop",       "If",
                                              "Scan",       "LSTM",          "GRU",        "TopK",
                                              "NonZero",    "Range",         "Constant",   "ConstantOfShape",
                                              "OneHot",     "ScatterND",     "GatherND",   "Shape",
                                              "Squeeze",    "Cast",          "Div",        "Mod",
                                              "CumSum",     "Einsum",        "Identity",   "RoiAlign",
                                              "LRN",        "DepthToSpace",  "MaxUnpool",  "QLinearConv",
                                              "SequenceAt", "GridSample",    "Multinomial"};
    std::vector<ModelField*> operations;
    for (ModelField& graph : root_) {
      if (graph.id != 7) continue;
      for (ModelField& node : graph.message) {
        if (node.id != 1) continue;
        for (ModelField& field : node.message) {
          if (field.id == 4) operations.push_back(&field);
        }
      }
    }
    if (operations.empty()) return;
    ModelField& operation = *operations[Below(operations.size())];
    operation.kind = Kind::kBytes;
    operation.message.clear();
    operation.bytes = kOperations[Below(std::size(kOperations))];
  }

  Message& root_;
  std::mt19937& random_;
  std::vector<Message*> messages_;
};

}  // namespace

std::vector<ModelField> ReadFields(const std::string& bytes) {
  Message fields;
  if (!Reader(bytes).Message(fields, 0)) throw std::runtime_error("no protocol buffer");
  return fields;
}

std::string WriteFields(const std::vector<ModelField>& fields) {
  std::string bytes;
  for (const ModelField& field : fields) {
    WriteNumber(std::uint64_t{field.id} << 3 | static_cast<std::uint64_t>(field.kind), bytes);
    if (field.kind == Kind::kNumber) {
      WriteNumber(field.number, bytes);
      continue;
    }
    const std::string value = field.message.empty() ? field.bytes : WriteFields(field.message);
    if (field.kind == Kind::kBytes) WriteNumber(value.size(), bytes);
    bytes += value;
  }
  return bytes;
}

void ChangeFields(std::vector<ModelField>& fields, std::mt19937& random) {
  // A new Changer for each change: a change invalidates its list of messages.
  for (auto changes = 1 + random() % 3; changes > 0; --changes) Changer(fields, random).Change();
}
