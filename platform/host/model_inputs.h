// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Ormis::host {

/// What a file of inputs says about one input. Lines are those of the file.
struct InputChoice {
  std::size_t line = 0;
  std::optional<std::vector<std::int64_t>> shape;
  std::size_t shapeLine = 0;
  bool random = false;
  std::optional<std::string> value;  ///< a number, for each element
  std::size_t valueLine = 0;
};
using InputChoices = std::map<std::string, InputChoice>;  ///< by the name of the input

/// The file of inputs that belongs to a model file: the same path with ".inputs.yaml" in place of ".onnx".
std::string InputsPath(const std::string& modelPath);

/// Reads the file of inputs `path` into `choices`; without such a file there are none. Returns the empty
/// string, or what is wrong: the file, the line and what was expected. Throws std::bad_alloc.
std::string ReadInputs(const std::string& path, InputChoices& choices);

/// An input as the model declares it.
struct DeclaredInput {
  std::string name;
  bool whole = false;                ///< the elements are whole numbers or truth values
  std::vector<std::int64_t> shape;   ///< -1: open; empty: one number, or no shape is declared
  std::vector<std::string> symbols;  ///< the name of each open dimension, which may be empty
};

/// A shape as text: "1 x 3 x ? x width", where an open dimension has its name, or "?".
std::string ShapeText(const DeclaredInput& input);

/// Gives every open dimension of all inputs a size: the one of the choice; else the one that another input
/// has for the same name; else one with which usual networks run. `path` is that of the file of inputs.
/// Returns the empty string, or which choice does not fit the model or another choice. Throws std::bad_alloc.
std::string ChooseShapes(std::vector<DeclaredInput>& inputs, const InputChoices& choices,
                         const std::string& path);

}  // namespace Ormis::host
