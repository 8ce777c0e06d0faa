// SPDX-License-Identifier: Apache-2.0
#include "model_inputs.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <system_error>
#include <utility>

#include "yaml_events.h"

namespace Ormis::host {

namespace {

constexpr std::int64_t kOpen = -1;

// Sizes with which usual networks run.
constexpr std::int64_t kPictureSide = 640;  // of detectors; a multiple of their stride, 32
constexpr std::int64_t kLineWidth = 320;    // of recognisers of text, whose height is fixed
constexpr std::int64_t kLineHeight = 64;    // at most
constexpr std::int64_t kTokens = 64;
constexpr std::int64_t kSamples = 512;  // of sound: the smallest window of speech networks

template <typename Number>
bool ToNumber(const std::string& text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end;
}

std::vector<std::int64_t> ReadShape(YamlEvents& events) {
  const std::string expected = "expected a shape, such as [1, 3, 640, 640]";
  if (events.Next() != YAML_SEQUENCE_START_EVENT) events.Fail("shape is no list, " + expected);
  std::vector<std::int64_t> shape;
  for (yaml_event_type_t type = events.Next(); type != YAML_SEQUENCE_END_EVENT; type = events.Next()) {
    std::int64_t size = 0;
    if (type != YAML_SCALAR_EVENT || !ToNumber(events.Text(), size) || size < 1) {
      events.Fail("a size of the shape is no whole number from 1, " + expected);
    }
    shape.push_back(size);
  }
  return shape;
}

void ReadChoiceKey(YamlEvents& events, InputChoice& choice, bool& filled) {
  const std::string key = events.Text();
  if (key == "shape") {
    if (choice.shape) events.Fail("'shape' stands there twice, expected it once");
    choice.shapeLine = events.Line();
    choice.shape = ReadShape(events);
    return;
  }
  if (key != "fill" && key != "value") {
    events.Fail("unknown key '" + key + "', expected shape, fill or value");
  }
  if (filled) events.Fail("'" + key + "' beside another fill or value, expected one of them");
  filled = true;
  choice.valueLine = events.Line();
  if (events.Next() != YAML_SCALAR_EVENT) events.Fail(key + " has no plain value");
  if (key == "value") {
    choice.value = events.Text();
    return;
  }
  choice.random = events.Text() == "random";
  if (!choice.random && events.Text() != "zeros") {
    events.Fail("fill is '" + events.Text() + "', expected zeros or random");
  }
}

void ReadChoice(YamlEvents& events, InputChoices& choices) {
  const std::string name = events.Text();
  InputChoice choice;
  choice.line = events.Line();
  if (choices.count(name) != 0) events.Fail("'" + name + "' stands there twice, expected it once");
  if (events.Next() != YAML_MAPPING_START_EVENT) {
    events.Fail(name + " has no keys, expected shape, fill or value");
  }
  bool filled = false;
  events.ReadMapping([&] { ReadChoiceKey(events, choice, filled); });
  choices.emplace(name, std::move(choice));
}

bool IsPictureDepth(std::int64_t size) {
  return size == 1 || size == 3 || size == 4;
}

/// Gives an open height and width of a picture their sizes.
void ChooseSides(std::int64_t& height, std::int64_t& width) {
  if (height == kOpen) height = width == kOpen ? kPictureSide : width;
  if (width == kOpen) width = height <= kLineHeight ? kLineWidth : height;
}

/// Recognises pictures of rank 3 and 4 by their depth, 1, 3 or 4 channels before or behind the sides.
bool ChoosePicture(const DeclaredInput& input, std::vector<std::int64_t>& shape) {
  const std::size_t rank = shape.size();
  if (rank == 4) {
    if (shape[1] == kOpen && shape[3] == kOpen) shape[1] = 3;
    if (IsPictureDepth(shape[1])) return ChooseSides(shape[2], shape[3]), true;
    if (IsPictureDepth(shape[3])) return ChooseSides(shape[1], shape[2]), true;
  }
  if (rank == 3 && !input.whole) {
    if (IsPictureDepth(shape[0]) && shape[1] == kOpen && shape[2] == kOpen) {
      return ChooseSides(shape[1], shape[2]), true;
    }
    if (IsPictureDepth(shape[2]) && shape[0] == kOpen && shape[1] == kOpen) {
      return ChooseSides(shape[0], shape[1]), true;
    }
  }
  return false;
}

/// Sizes of the open dimensions of an input of which nothing else is known.
std::vector<std::int64_t> UsualShape(const DeclaredInput& input) {
  std::vector<std::int64_t> shape = input.shape;
  const std::size_t rank = shape.size();
  const bool picture = ChoosePicture(input, shape);
  if (rank != 0 && shape[0] == kOpen) shape[0] = 1;  // the batch
  if (picture || rank < 2 || rank > 3) {
    // Of other ranks nothing is usual.
  } else if (rank == 3 && input.shape[0] > 1) {
    if (shape[1] == kOpen) shape[1] = 1;  // a state: layers, batch, width
  } else {
    const std::int64_t length = rank == 2 && !input.whole ? kSamples : kTokens;
    std::replace(shape.begin(), shape.end(), kOpen, length);
  }
  std::replace(shape.begin(), shape.end(), kOpen, std::int64_t{1});
  return shape;
}

std::string UnknownInput(const std::string& path, const InputChoice& choice, const std::string& name,
                         const std::string& names) {
  return path + ":" + std::to_string(choice.line) + ": unknown input '" + name + "', the model has " + names;
}

std::string WrongShape(const std::string& path, const InputChoice& choice, const DeclaredInput& input) {
  return path + ":" + std::to_string(choice.shapeLine) + ": the shape of '" + input.name + "' is " +
         ShapeText({{}, false, *choice.shape, {}}) + ", the model says " + ShapeText(input);
}

bool Fits(const DeclaredInput& input, const std::vector<std::int64_t>& shape) {
  return std::equal(
      shape.begin(), shape.end(), input.shape.begin(), input.shape.end(),
      [](std::int64_t size, std::int64_t declared) { return declared == kOpen || declared == size; });
}

}  // namespace

std::string InputsPath(const std::string& modelPath) {
  const std::string ending = ".onnx";
  const bool ends = modelPath.size() > ending.size() &&
                    modelPath.compare(modelPath.size() - ending.size(), ending.size(), ending) == 0;
  return modelPath.substr(0, modelPath.size() - (ends ? ending.size() : 0)) + ".inputs.yaml";
}

std::string ReadInputs(const std::string& path, InputChoices& choices) {
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return {};
  return ReadYamlFile(path, [&](YamlEvents& events) {
    bool seen = false;
    events.ReadDocument([&] {
      if (events.Text() != "inputs") events.Fail("unknown key '" + events.Text() + "', expected inputs");
      if (std::exchange(seen, true)) events.Fail("'inputs' stands there twice, expected it once");
      if (events.Next() != YAML_MAPPING_START_EVENT) {
        events.Fail("inputs has no keys, expected names of inputs");
      }
      events.ReadMapping([&] { ReadChoice(events, choices); });
    });
  });
}

std::string ShapeText(const DeclaredInput& input) {
  if (input.shape.empty()) return "one number";
  std::string text;
  for (std::size_t i = 0; i < input.shape.size(); ++i) {
    if (i != 0) text += " x ";
    const std::string symbol = i < input.symbols.size() && !input.symbols[i].empty() ? input.symbols[i] : "?";
    text += input.shape[i] == kOpen ? symbol : std::to_string(input.shape[i]);
  }
  return text;
}

std::string ChooseShapes(std::vector<DeclaredInput>& inputs, const InputChoices& choices,
                         const std::string& path) {
  std::string names;
  for (const DeclaredInput& input : inputs) {
    names += (names.empty() ? "'" : ", '") + input.name + "' (" + ShapeText(input) + ")";
  }
  std::map<std::string, std::int64_t> sizes;  // by the name of the dimension
  const auto remember = [&](const DeclaredInput& input, const std::vector<std::int64_t>& shape) {
    for (std::size_t i = 0; i < shape.size(); ++i) {
      if (input.shape[i] == kOpen && !input.symbols[i].empty()) sizes.emplace(input.symbols[i], shape[i]);
    }
  };
  for (const auto& [name, choice] : choices) {
    const auto input = std::find_if(inputs.begin(), inputs.end(),
                                    [&, &wanted = name](const auto& one) { return one.name == wanted; });
    if (input == inputs.end()) {
      return UnknownInput(path, choice, name, names);
    }
    if (!choice.shape) continue;
    if (!Fits(*input, *choice.shape)) {
      return WrongShape(path, choice, *input);
    }
    remember(*input, *choice.shape);
  }
  for (DeclaredInput& input : inputs) {
    const auto choice = choices.find(input.name);
    std::vector<std::int64_t> shape;
    if (choice != choices.end() && choice->second.shape) {
      shape = *choice->second.shape;
    } else {
      DeclaredInput known = input;
      for (std::size_t i = 0; i < known.shape.size(); ++i) {
        const auto size = sizes.find(known.symbols[i]);
        if (known.shape[i] == kOpen && size != sizes.end()) known.shape[i] = size->second;
      }
      shape = UsualShape(known);
      remember(input, shape);
    }
    input.shape = std::move(shape);
  }
  return {};
}

}  // namespace Ormis::host
