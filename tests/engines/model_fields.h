#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/// A model file as the tree of its fields (a protocol buffer), to change some of them and leave the rest a
/// model.
struct ModelField {
  enum class Kind : std::uint8_t { kNumber = 0, kFixed64 = 1, kBytes = 2, kFixed32 = 5 };  ///< wire types

  std::uint32_t id = 0;
  Kind kind = Kind::kNumber;
  std::uint64_t number = 0;
  std::string bytes;                ///< of every kind but kNumber, where there are no fields below
  std::vector<ModelField> message;  ///< where the bytes are a message themselves
};

/// Throws std::runtime_error for bytes that are no message.
std::vector<ModelField> ReadFields(const std::string& bytes);
std::string WriteFields(const std::vector<ModelField>& fields);

/// Changes one to three fields anywhere in the tree: numbers, texts, field numbers, operations; adds, removes
/// and moves some. The same `random` makes the same changes.
void ChangeFields(std::vector<ModelField>& fields, std::mt19937& random);
