// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/// The tree of a model file's fields (a protocol buffer). Lets a test change some fields and keep the rest.
struct ModelField {
  enum class Kind : std::uint8_t { kNumber = 0, kFixed64 = 1, kBytes = 2, kFixed32 = 5 };  ///< wire types

  std::uint32_t id = 0;
  Kind kind = Kind::kNumber;
  std::uint64_t number = 0;
  std::string bytes;                ///< the value, unless it is a number or a message
  std::vector<ModelField> message;  ///< the fields below, where the value is a message
};

/// Throws std::runtime_error where `bytes` are not a message.
std::vector<ModelField> ReadFields(const std::string& bytes);
std::string WriteFields(const std::vector<ModelField>& fields);

/// Changes one to three fields anywhere in the tree: numbers, texts, field numbers, operations; adds, removes
/// and moves some. The same `random` makes the same changes.
void ChangeFields(std::vector<ModelField>& fields, std::mt19937& random);
