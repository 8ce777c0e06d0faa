// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The reader of configuration files.

#include <cstdint>
#include <map>
#include <string>

#include "ormis/export.h"

namespace Ormis {

/// A node of a parsed YAML document. Copies are independent, and a node may be assigned from one of its own
/// children. Threads: any may read; one that writes excludes all others.
/// Limits of a file: one document, 64 levels, 10,000 nodes, 1 MiB. Keys, values and items are nodes, and an
/// alias counts as all the nodes that it names. Duplicate keys, keys that are not scalars, and undefined or
/// self-referencing aliases are errors. A scalar is null when its tag is !!null, or when it has no tag and is
/// plain: ~, null, Null, NULL or empty. Tags have no other effect. "<<" is a key like any other.
class ORMIS_API QetYamlNode {
 public:
  /// Reads the file; the node is its root. The root is a mapping, or null where the document is empty or
  /// null. Throws std::runtime_error: for a fault of the text with line and column, from 1 ("c.yaml:7:3:
  /// ..."); for a file that cannot be read with the reason. Throws std::bad_alloc.
  explicit QetYamlNode(const std::string& path);
  /// A null node.
  QetYamlNode();
  /// Copies the node and everything below it.
  QetYamlNode(const QetYamlNode& other);
  /// Becomes a copy of `other`, which may be one of this node's own children.
  QetYamlNode& operator=(const QetYamlNode& other);
  ~QetYamlNode();

  /// Returns a copy of the child of that key. Throws std::runtime_error with the key when there is none: look
  /// into `children` first.
  QetYamlNode operator[](const std::string& key) const;

  /// Reads the child's scalar into `out`. Returns false, and leaves `out` alone, when the key is missing or
  /// its value does not convert. T is std::string or unsigned int. Every scalar but null converts to a
  /// string. Decimal, 0x and 0o numbers up to 4294967295 convert to an unsigned int, plain or quoted, with an
  /// optional +.
  template <typename T>
  bool GetValue(const std::string& key, T& out) const;

  /// Reads this node's own scalar as GetValue reads an unsigned int. Returns false and leaves `out` as it was
  /// when it does not convert.
  bool AsIf(unsigned int& out) const;

  /// The children of a mapping by key; empty for any other node. Test here whether a key exists.
  std::map<std::string, QetYamlNode> children;

 private:
  enum class Kind : std::uint32_t { kNull, kScalar, kSequence, kMapping };
  friend class QetYamlBuilder;

  std::string scalar_;
  Kind kind_ = Kind::kNull;
};

/// The text of a child.
template <>
ORMIS_API bool QetYamlNode::GetValue<std::string>(const std::string& key, std::string& out) const;
/// The number of a child.
template <>
ORMIS_API bool QetYamlNode::GetValue<unsigned int>(const std::string& key, unsigned int& out) const;

}  // namespace Ormis
