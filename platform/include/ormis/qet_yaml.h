#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ormis/export.h"

namespace Ormis {

/// A node of a parsed YAML document; a value: copies are independent, and a node may be assigned from one of
/// its own children. Reading is const and safe from any
/// thread. Limits of a document, against files that are hostile or simply no configuration: one document, 64
/// levels deep, 10,000 nodes (keys and items count, an alias counts as what it names), 1 MiB. Errors are
/// also: duplicate keys, keys that are no scalars, undefined and self-referencing aliases. Tags other than
/// !!null and !!str are ignored; "<<" is a key like any other.
class ORMIS_API QetYamlNode {
 public:
  /// Loads and parses the file; this is its root node, a mapping (or nothing, for an empty document).
  /// Throws std::runtime_error, with line and column, from 1, where it is about the text ("c.yaml:7:3: ...").
  explicit QetYamlNode(const std::string& path);
  QetYamlNode();
  QetYamlNode(const QetYamlNode& other);
  QetYamlNode& operator=(const QetYamlNode& other);
  ~QetYamlNode();

  /// The child of that key. Throws std::runtime_error naming the key when there is none: test `children`
  /// first.
  QetYamlNode operator[](const std::string& key) const;

  /// Reads the child's scalar into `out`. Returns false, and leaves `out` alone, when the key is missing or
  /// its value does not convert. For T = std::string any scalar but null converts; for T = unsigned int
  /// decimal, 0x and 0o numbers up to 4294967295, plain or quoted, with an optional +.
  template <typename T>
  bool GetValue(const std::string& key, T& out) const;

  /// Converts this node's own scalar as GetValue<unsigned int> does. Returns false, and leaves `out` alone,
  /// when it does not convert.
  bool AsIf(unsigned int& out) const;

  /// The children of a mapping by key; empty for anything else. Callers count a key here before they read it.
  std::map<std::string, QetYamlNode> children;

 private:
  enum class Kind : std::uint32_t { kNull, kScalar, kSequence, kMapping };
  friend class QetYamlBuilder;

  std::string scalar_;
  Kind kind_ = Kind::kNull;
};

template <>
ORMIS_API bool QetYamlNode::GetValue<std::string>(const std::string& key, std::string& out) const;
template <>
ORMIS_API bool QetYamlNode::GetValue<unsigned int>(const std::string& key, unsigned int& out) const;

}  // namespace Ormis
