// SPDX-License-Identifier: Apache-2.0
#include <yaml.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "ormis/qet_yaml.h"

namespace Ormis {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxNodes = 10'000;
constexpr std::size_t kMaxDepth = 64;

std::string ReadFile(const std::string& path) {
  const auto fail = [&path](int error) {
    throw std::runtime_error("cannot read " + path + ": " + std::generic_category().message(error));
  };
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
  if (file == nullptr) fail(errno);

  // Reads at most one byte more than allowed: a device may have no end.
  std::string text(kMaxFileBytes + 1, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file.get()));
  if (std::ferror(file.get()) != 0) fail(errno);
  if (text.size() > kMaxFileBytes) {
    throw std::runtime_error(path + ": larger than 1 MiB, expected a configuration file");
  }
  return text;
}

}  // namespace

/// Reads one document from the parser's events. The nodes are entries of a flat list, and an alias is a
/// further reference to an entry. The tree of values is made from the list at the end, when its size is known
/// to be within the limits.
class QetYamlBuilder {
 public:
  QetYamlBuilder(const std::string& path, const std::string& text) : path_(path), text_(text) {
    if (yaml_parser_initialize(&parser_) == 0) throw std::bad_alloc();
    yaml_parser_set_input_string(&parser_, reinterpret_cast<const unsigned char*>(text_.data()),
                                 text_.size());
  }
  ~QetYamlBuilder() { yaml_parser_delete(&parser_); }
  QetYamlBuilder(const QetYamlBuilder&) = delete;
  QetYamlBuilder& operator=(const QetYamlBuilder&) = delete;

  /// Reads the document into `root`, an empty node.
  void Build(QetYamlNode& root) {
    Expect(YAML_STREAM_START_EVENT);
    if (Next().type() == YAML_STREAM_END_EVENT) return;
    const Event first = Next();
    const std::size_t top = ParseNode(first, 1);
    const Kind kind = entries_[top].kind;
    if (kind != Kind::kMapping && kind != Kind::kNull) {
      Fail(first.Start(), std::string("the top level is a ") +
                              (kind == Kind::kSequence ? "sequence" : "scalar") + ", expected a mapping");
    }
    Expect(YAML_DOCUMENT_END_EVENT);
    const Event end = Next();
    if (end.type() != YAML_STREAM_END_EVENT) Fail(end.Start(), "a second document, expected one");
    Expand(top, root);
  }

 private:
  using Kind = QetYamlNode::Kind;

  /// The next event of the parser.
  class Event {
   public:
    explicit Event(QetYamlBuilder& builder) {
      if (yaml_parser_parse(&builder.parser_, &event_) == 0) builder.FailParsing();
    }
    ~Event() { yaml_event_delete(&event_); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    const yaml_event_t* operator->() const { return &event_; }
    yaml_event_type_t type() const { return event_.type; }
    const yaml_mark_t& Start() const { return event_.start_mark; }

   private:
    yaml_event_t event_{};
  };

  /// One node of the text. Aliases may make it several nodes of the tree.
  struct Entry {
    Kind kind = Kind::kNull;
    std::string scalar;
    std::map<std::string, std::size_t> children;  ///< of a mapping, by index into entries_
    std::size_t nodes = 1;                        ///< of its subtree, itself included
    std::size_t depth = 1;                        ///< levels of its subtree, its own included
    bool complete = false;
  };

  [[noreturn]] void Fail(const yaml_mark_t& at, const std::string& message) const {
    throw std::runtime_error(path_ + ":" + std::to_string(at.line + 1) + ":" + std::to_string(at.column + 1) +
                             ": " + message);
  }

  [[noreturn]] void FailParsing() const {
    if (parser_.error == YAML_MEMORY_ERROR) throw std::bad_alloc();
    std::string message = parser_.problem == nullptr ? "not YAML" : parser_.problem;
    if (parser_.context != nullptr) message += std::string(" ") + parser_.context;
    yaml_mark_t at = parser_.problem_mark;
    if (parser_.error == YAML_READER_ERROR) {
      // The reader reports only the offset of the byte that it refuses.
      const std::string before = text_.substr(0, parser_.problem_offset);
      at.line = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
      at.column = before.size() - (before.rfind('\n') + 1);  // npos + 1 is 0
    }
    Fail(at, message);
  }

  Event Next() { return Event(*this); }

  void Expect(yaml_event_type_t type) {
    const Event event = Next();
    if (event.type() != type) Fail(event.Start(), "unexpected structure");
  }

  static std::string Text(const unsigned char* text) {
    return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
  }

  /// Counts new nodes of the tree. Throws beyond a limit.
  void Spend(const Event& event, std::size_t nodes, std::size_t depth) {
    if (depth > kMaxDepth) Fail(event.Start(), "more than 64 levels deep");
    nodes_ += nodes;
    if (nodes_ > kMaxNodes) Fail(event.Start(), "more than 10000 nodes");
  }

  /// Parses the node that begins with `event` at level `level`. Recursive: kMaxDepth bounds it.
  std::size_t ParseNode(const Event& event, std::size_t level) {
    if (event.type() == YAML_ALIAS_EVENT) return ParseAlias(event, level);
    Spend(event, 1, level);
    const std::size_t index = entries_.size();
    entries_.emplace_back();
    if (event.type() == YAML_SCALAR_EVENT) {
      SetAnchor(event->data.scalar.anchor, index);
      ParseScalar(event, entries_[index]);
    } else if (event.type() == YAML_SEQUENCE_START_EVENT) {
      SetAnchor(event->data.sequence_start.anchor, index);
      ParseSequence(index, level);
    } else if (event.type() == YAML_MAPPING_START_EVENT) {
      SetAnchor(event->data.mapping_start.anchor, index);
      ParseMapping(index, level);
    } else {
      Fail(event.Start(), "unexpected structure");
    }
    entries_[index].complete = true;
    return index;
  }

  std::size_t ParseAlias(const Event& event, std::size_t level) {
    const std::string name = Text(event->data.alias.anchor);
    const auto found = anchors_.find(name);
    if (found == anchors_.end()) Fail(event.Start(), "undefined alias '" + name + "'");
    const Entry& target = entries_[found->second];
    if (!target.complete) Fail(event.Start(), "alias '" + name + "' inside the node that it names");
    Spend(event, target.nodes, level + target.depth - 1);
    return found->second;
  }

  void SetAnchor(const unsigned char* anchor, std::size_t index) {
    if (anchor != nullptr) anchors_[Text(anchor)] = index;
  }

  static void ParseScalar(const Event& event, Entry& entry) {
    const auto& scalar = event->data.scalar;
    entry.scalar.assign(reinterpret_cast<const char*>(scalar.value), scalar.length);
    const std::string tag = Text(scalar.tag);
    const bool plainNull = scalar.style == YAML_PLAIN_SCALAR_STYLE && tag.empty() &&
                           (entry.scalar.empty() || entry.scalar == "~" || entry.scalar == "null" ||
                            entry.scalar == "Null" || entry.scalar == "NULL");
    entry.kind = plainNull || tag == YAML_NULL_TAG ? Kind::kNull : Kind::kScalar;
  }

  void Include(std::size_t parent, std::size_t child) {
    entries_[parent].nodes += entries_[child].nodes;
    entries_[parent].depth = std::max(entries_[parent].depth, entries_[child].depth + 1);
  }

  void ParseSequence(std::size_t index, std::size_t level) {
    entries_[index].kind = Kind::kSequence;
    for (;;) {
      const Event item = Next();
      if (item.type() == YAML_SEQUENCE_END_EVENT) return;
      Include(index, ParseNode(item, level + 1));
    }
  }

  void ParseMapping(std::size_t index, std::size_t level) {
    entries_[index].kind = Kind::kMapping;
    for (;;) {
      const Event key = Next();
      if (key.type() == YAML_MAPPING_END_EVENT) return;
      const std::size_t keyIndex = ParseNode(key, level + 1);
      const Kind keyKind = entries_[keyIndex].kind;
      if (keyKind != Kind::kScalar && keyKind != Kind::kNull) {
        Fail(key.Start(), "a key that is not a scalar");
      }
      const std::string name = entries_[keyIndex].scalar;
      if (entries_[index].children.count(name) != 0) Fail(key.Start(), "duplicate key '" + name + "'");
      Include(index, keyIndex);

      const std::size_t valueIndex = ParseNode(Next(), level + 1);
      entries_[index].children.emplace(name, valueIndex);
      Include(index, valueIndex);
    }
  }

  /// Fills nodes in place. A node that is returned would be copied with its whole subtree.
  void Expand(std::size_t index, QetYamlNode& node) const {
    const Entry& entry = entries_[index];
    node.kind_ = entry.kind;
    node.scalar_ = entry.scalar;
    for (const auto& [key, child] : entry.children) Expand(child, node.children[key]);
  }

  const std::string& path_;
  const std::string& text_;
  yaml_parser_t parser_{};
  std::vector<Entry> entries_;
  std::map<std::string, std::size_t> anchors_;
  std::size_t nodes_ = 0;
};

namespace {

bool ToUnsigned(const std::string& text, unsigned int& out) {
  const char* begin = text.c_str();  // a zero ends it
  const char* const end = begin + text.size();
  if (*begin == '+') ++begin;
  int base = 10;
  if (begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'o')) {
    base = begin[1] == 'x' ? 16 : 8;
    begin += 2;
  }
  unsigned int value{};
  const auto [rest, error] = std::from_chars(begin, end, value, base);
  if (error != std::errc() || rest != end) return false;
  out = value;
  return true;
}

}  // namespace

QetYamlNode::QetYamlNode(const std::string& path) {
  const std::string text = ReadFile(path);
  QetYamlBuilder(path, text).Build(*this);
}

QetYamlNode::QetYamlNode() = default;
QetYamlNode::QetYamlNode(const QetYamlNode& other) = default;

// Copies first: `other` may be one of this node's own children, which are replaced.
QetYamlNode& QetYamlNode::operator=(const QetYamlNode& other) {
  QetYamlNode copy(other);
  children.swap(copy.children);
  scalar_.swap(copy.scalar_);
  kind_ = copy.kind_;
  return *this;
}

QetYamlNode::~QetYamlNode() = default;

QetYamlNode QetYamlNode::operator[](const std::string& key) const {
  const auto found = children.find(key);
  if (found == children.end()) throw std::runtime_error("no key '" + key + "'");
  return found->second;
}

template <>
bool QetYamlNode::GetValue<std::string>(const std::string& key, std::string& out) const {
  const auto found = children.find(key);
  if (found == children.end() || found->second.kind_ != Kind::kScalar) return false;
  out = found->second.scalar_;
  return true;
}

template <>
bool QetYamlNode::GetValue<unsigned int>(const std::string& key, unsigned int& out) const {
  const auto found = children.find(key);
  return found != children.end() && found->second.AsIf(out);
}

bool QetYamlNode::AsIf(unsigned int& out) const {
  return kind_ == Kind::kScalar && ToUnsigned(scalar_, out);
}

}  // namespace Ormis
