// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model_inputs.h"
#include "onnx_api.h"
#include "onnx_model.h"

namespace Ormis::host {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

/// Buffers and values.
struct MadeTensors {
  std::vector<OnnxTensor> tensors;
  std::vector<std::unique_ptr<void, FreeMemory>> memory;
  std::vector<Value> values;
  std::vector<OrtValue*> valuePointers;  ///< of `values`
};

/// The inputs or the outputs of a model: the names from the model and, once made, buffers and values.
/// The arrays of pointers are those that Run hands to the runtime, so that it allocates nothing.
struct OnnxTensors {
  std::vector<std::string> names;
  std::vector<const char*> namePointers;  ///< of `names`
  std::optional<MadeTensors> made;
};

/// Type, shape and size of one input or output.
struct TensorType {
  std::string item;  ///< for messages
  ONNXTensorElementDataType element = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
  DeclaredInput declared;
  std::size_t bytes = 0;
};

/// The inputs, or the outputs.
struct TypeInfoGetter {
  OrtStatus* (*OrtApi::*get)(const OrtSession*, std::size_t, OrtTypeInfo**) noexcept;
  const char* kind;
};
constexpr TypeInfoGetter kInputTypes = {&OrtApi::SessionGetInputTypeInfo, "input"};
constexpr TypeInfoGetter kOutputTypes = {&OrtApi::SessionGetOutputTypeInfo, "output"};

/// Reads the types of all inputs, or of all outputs. Fails for one that is no tensor of numbers.
Outcome DescribeAll(OrtSession* session, const TypeInfoGetter& getter, const OnnxTensors& tensors,
                    std::vector<TensorType>& types);

/// Computes the bytes of tensors without open dimensions. Fails where they take more than 2 GiB together.
Outcome Measure(std::vector<TensorType>& types);

/// Whether only an inference tells the shape: a dimension is open, or there is none. The engine reports no
/// dimensions for one number, and for a tensor of which the model does not declare how many it has.
bool MayBeOpen(const TensorType& type);

/// Makes zeroed buffers and values of measured types.
MadeTensors MakeTensors(const std::vector<TensorType>& types);

/// Reads the names of `count` inputs, or outputs.
void ReadNames(OrtSession* session,
               OrtStatus* (*OrtApi::*get)(const OrtSession*, std::size_t, OrtAllocator*, char**) noexcept,
               std::size_t count, OnnxTensors& tensors);

}  // namespace Ormis::host
