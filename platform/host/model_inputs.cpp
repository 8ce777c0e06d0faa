// SPDX-License-Identifier: Apache-2.0
#include "model_inputs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "whole_number.h"
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

std::vector<std::int64_t> ReadShape(YamlEvents& events) {
  const std::string expected = "expected a shape, such as [1, 3, 640, 640]";
  if (events.Next() != YAML_SEQUENCE_START_EVENT) events.Fail("shape is no list, " + expected);
  std::vector<std::int64_t> shape;
  for (yaml_event_type_t type = events.Next(); type != YAML_SEQUENCE_END_EVENT; type = events.Next()) {
    std::int64_t size = 0;
    if (type != YAML_SCALAR_EVENT || !ReadWholeNumber(events.Text(), size) || size < 1) {
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

/// Recognises pictures of rank 3 and 4 by their depth, 1, 3 or 4 channels before or behind the sides, and
/// gives the sides their sizes.
void ChoosePicture(const DeclaredInput& input, std::vector<std::int64_t>& shape) {
  const std::vector<std::int64_t>& declared = input.shape;
  if (declared.size() == 4) {
    const bool openDepth = declared[1] == kOpen && declared[3] == kOpen;
    if (openDepth && shape[1] == kOpen) shape[1] = 3;
    if (openDepth || IsPictureDepth(declared[1])) return ChooseSides(shape[2], shape[3]);
    if (IsPictureDepth(declared[3])) return ChooseSides(shape[1], shape[2]);
  }
  if (declared.size() == 3 && !input.whole) {
    if (IsPictureDepth(declared[0]) && declared[1] == kOpen && declared[2] == kOpen) {
      return ChooseSides(shape[1], shape[2]);
    }
    if (IsPictureDepth(declared[2]) && declared[0] == kOpen && declared[1] == kOpen) {
      return ChooseSides(shape[0], shape[1]);
    }
  }
}

/// Gives what is still open in `shape` the sizes of usual networks. The declared shape tells the kind of the
/// input: a batch that another input has set to 2 makes no state of it.
void ChooseUsualSizes(const DeclaredInput& input, std::vector<std::int64_t>& shape) {
  const std::size_t rank = shape.size();
  ChoosePicture(input, shape);
  const bool state = rank == 3 && input.shape[0] > 1;  // layers, batch, width
  if (rank == 1 && !input.whole && shape[0] == kOpen) shape[0] = kSamples;
  if (!state && (rank == 2 || rank == 3)) {
    const std::int64_t length = rank == 2 && !input.whole ? kSamples : kTokens;
    std::replace(shape.begin() + 1, shape.end(), kOpen, length);
  }
  std::replace(shape.begin(), shape.end(), kOpen, std::int64_t{1});  // the batch, and what is not usual
}

std::string InLine(const std::string& path, std::size_t line, const std::string& fault) {
  return path + ":" + std::to_string(line) + ": " + fault;
}

std::string UnknownInput(const std::string& path, const InputChoice& choice, const std::string& name,
                         const std::string& names) {
  return InLine(path, choice.line, "unknown input '" + name + "', the model has " + names);
}

std::string WrongShape(const std::string& path, const InputChoice& choice, const DeclaredInput& input) {
  return InLine(path, choice.shapeLine,
                "the shape of '" + input.name + "' is " + ShapeText({{}, false, *choice.shape, {}}) +
                    ", the model says " + ShapeText(input));
}

/// The engine reports one number where the model does not declare how many dimensions there are. So any shape
/// fits that, and the inference shows whether the model takes it.
bool Fits(const DeclaredInput& input, const std::vector<std::int64_t>& shape) {
  return input.shape.empty() || std::equal(shape.begin(), shape.end(), input.shape.begin(), input.shape.end(),
                                           [](std::int64_t size, std::int64_t declared) {
                                             return declared == kOpen || declared == size;
                                           });
}

struct NamedSize {
  std::int64_t size;
  std::string input;  ///< the first that has it
  bool once;          ///< the input has only one dimension of that name
};
using NamedSizes = std::map<std::string, NamedSize>;  ///< by the name of the dimension

/// Enters the sizes that `shape` gives to open dimensions with a name. Returns the empty string, or which
/// size contradicts that of another input. Some models use one name for several sizes of an input: such a
/// name says nothing about others.
std::string EnterSizes(const DeclaredInput& input, const std::vector<std::int64_t>& shape,
                       NamedSizes& sizes) {
  for (std::size_t i = 0; i < input.symbols.size(); ++i) {
    const std::string& symbol = input.symbols[i];
    if (input.shape[i] != kOpen || symbol.empty()) continue;
    const bool once = std::count(input.symbols.begin(), input.symbols.end(), symbol) == 1;
    const auto [place, isNew] = sizes.emplace(symbol, NamedSize{shape[i], input.name, once});
    const NamedSize& known = place->second;
    if (isNew || known.size == shape[i] || !known.once || !once) continue;
    return "'" + symbol + "' is " + std::to_string(shape[i]) + " in the shape of '" + input.name + "' and " +
           std::to_string(known.size) + " in that of '" + known.input + "', expected one size";
  }
  return {};
}

void ChooseShape(DeclaredInput& input, const InputChoices& choices, NamedSizes& sizes) {
  const auto choice = choices.find(input.name);
  if (choice != choices.end() && choice->second.shape) {
    input.shape = *choice->second.shape;
    return;
  }
  std::vector<std::int64_t> shape = input.shape;
  std::transform(shape.begin(), shape.end(), input.symbols.begin(), shape.begin(),
                 [&](std::int64_t size, const std::string& symbol) {
                   const auto known = sizes.find(symbol);
                   return size == kOpen && known != sizes.end() ? known->second.size : size;
                 });
  ChooseUsualSizes(input, shape);
  (void)EnterSizes(input, shape, sizes);  // contradicts none: those that are known were taken
  input.shape = std::move(shape);
}

}  // namespace

std::string InputsPath(const std::string& modelPath) {
  const std::string ending = ".onnx";
  const bool ends = modelPath.size() > ending.size() &&
                    modelPath.compare(modelPath.size() - ending.size(), ending.size(), ending) == 0;
  return modelPath.substr(0, modelPath.size() - (ends ? ending.size() : 0)) + ".inputs.yaml";
}

std::string ReadInputs(const std::string& path, InputChoices& choices) {
  struct stat status{};
  if (lstat(path.c_str(), &status) != 0 && errno == ENOENT) return {};  // a link to nothing is a mistake
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
    const std::string shape = input.shape.empty() ? "one number, or any shape" : ShapeText(input);
    names += (names.empty() ? "'" : ", '") + input.name + "' (" + shape + ")";
  }
  NamedSizes sizes;
  for (const auto& [name, choice] : choices) {
    const auto input = std::find_if(inputs.begin(), inputs.end(),
                                    [&, &wanted = name](const auto& one) { return one.name == wanted; });
    if (input == inputs.end()) return UnknownInput(path, choice, name, names);
    if (!choice.shape) continue;
    if (!Fits(*input, *choice.shape)) return WrongShape(path, choice, *input);
    const std::string fault = EnterSizes(*input, *choice.shape, sizes);
    if (!fault.empty()) return InLine(path, choice.shapeLine, fault);
  }
  for (const bool alone : {false, true}) {  // a size that stands alone may be the batch of another input
    for (DeclaredInput& input : inputs) {
      if ((input.symbols.size() == 1) == alone) ChooseShape(input, choices, sizes);
    }
  }
  return {};
}

}  // namespace Ormis::host
