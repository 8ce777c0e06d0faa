// SPDX-License-Identifier: Apache-2.0
#include "onnx_tensors.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "tensor_elements.h"

namespace Ormis::host {

namespace {

/// Zeroed by writing, so that each page is memory of its own and not the kernel's shared zero page.
std::unique_ptr<void, FreeMemory> AllocatePages(std::size_t bytes) {
  void* memory = nullptr;
  if (posix_memalign(&memory, 4096, bytes) != 0) throw std::bad_alloc();
  std::memset(memory, 0, bytes);
  return std::unique_ptr<void, FreeMemory>(memory);
}

// For all inputs together, and for all outputs. A damaged dimension may ask for any amount. Linux may promise
// more memory than there is, and the process would be killed when the pages are written.
constexpr std::size_t kMaxTensorsBytes = std::size_t{2} << 30;

const char* KindName(ONNXType kind) {
  switch (kind) {
    case ONNX_TYPE_SEQUENCE:
      return "a sequence";
    case ONNX_TYPE_MAP:
      return "a map";
    case ONNX_TYPE_SPARSETENSOR:
      return "a sparse tensor";
    case ONNX_TYPE_OPTIONAL:
      return "an optional value";
    default:
      return "of an unknown kind";
  }
}

/// Reads element type and shape of an input or output. Fails for what is no tensor of numbers.
Outcome Describe(const OrtTypeInfo* typeInfo, TensorType& type) {
  ONNXType kind = ONNX_TYPE_UNKNOWN;
  ThrowOnFailure(Api().GetOnnxTypeFromTypeInfo(typeInfo, &kind));
  if (kind != ONNX_TYPE_TENSOR) {
    return {kQetUnsupported, type.item + " is " + KindName(kind) + ", expected a tensor of numbers"};
  }
  const OrtTensorTypeAndShapeInfo* shapeInfo = nullptr;
  ThrowOnFailure(Api().CastTypeInfoToTensorInfo(typeInfo, &shapeInfo));
  ThrowOnFailure(Api().GetTensorElementType(shapeInfo, &type.element));
  if (type.element == ONNX_TENSOR_ELEMENT_DATA_TYPE_STRING) {
    return {kQetUnsupported, type.item + " is a tensor of texts, expected a tensor of numbers"};
  }
  if (ElementBytes(type.element) == 0) {
    return {kQetUnsupported, type.item + " has element type " + std::to_string(type.element) +
                                 ", expected a numeric one of whole bytes"};
  }
  std::size_t rank = 0;
  ThrowOnFailure(Api().GetDimensionsCount(shapeInfo, &rank));
  type.declared.shape.resize(rank);
  ThrowOnFailure(Api().GetDimensions(shapeInfo, type.declared.shape.data(), rank));
  for (std::int64_t& size : type.declared.shape) size = std::max<std::int64_t>(size, -1);
  std::vector<const char*> symbols(rank, "");
  ThrowOnFailure(Api().GetSymbolicDimensions(shapeInfo, symbols.data(), rank));
  type.declared.symbols.assign(symbols.begin(), symbols.end());
  type.declared.whole = IsWhole(type.element);
  return {};
}

}  // namespace

Outcome DescribeAll(OrtSession* session, const TypeInfoGetter& getter, const OnnxTensors& tensors,
                    std::vector<TensorType>& types) {
  for (std::size_t i = 0; i < tensors.names.size(); ++i) {
    OrtTypeInfo* rawType = nullptr;
    ThrowOnFailure((Api().*getter.get)(session, i, &rawType));
    const TypeInfo typeInfo(rawType);
    types.emplace_back();
    types.back().item = std::string(getter.kind) + " '" + tensors.names[i] + "'";
    types.back().declared.name = tensors.names[i];
    if (const Outcome outcome = Describe(rawType, types.back()); !outcome.Ok()) return outcome;
  }
  return {};
}

Outcome Measure(std::vector<TensorType>& types) {
  std::size_t totalBytes = 0;
  for (TensorType& type : types) {
    type.bytes = ElementBytes(type.element);
    bool fits = true;
    for (const std::int64_t dimension : type.declared.shape) {
      const auto size = static_cast<std::size_t>(dimension);
      fits = fits && (size == 0 || type.bytes <= kMaxTensorsBytes / size);
      type.bytes *= size;  // may wrap where it does not fit
    }
    if (!fits || type.bytes > kMaxTensorsBytes - totalBytes) {
      return {kQetInvalidSize, type.item + " is too large, expected at most 2 GiB for all of its kind"};
    }
    totalBytes += type.bytes;
  }
  return {};
}

bool MayBeOpen(const TensorType& type) {
  const std::vector<std::int64_t>& shape = type.declared.shape;
  return shape.empty() || std::find(shape.begin(), shape.end(), -1) != shape.end();
}

MadeTensors MakeTensors(const std::vector<TensorType>& types) {
  MadeTensors made;
  OrtMemoryInfo* rawInfo = nullptr;
  ThrowOnFailure(Api().CreateCpuMemoryInfo(OrtDeviceAllocator, OrtMemTypeDefault, &rawInfo));
  const MemoryInfo memoryInfo(rawInfo);
  for (const TensorType& type : types) {
    made.memory.push_back(AllocatePages(type.bytes));
    OrtValue* value = nullptr;
    ThrowOnFailure(Api().CreateTensorWithDataAsOrtValue(memoryInfo.get(), made.memory.back().get(),
                                                        type.bytes, type.declared.shape.data(),
                                                        type.declared.shape.size(), type.element, &value));
    made.values.emplace_back(value);
    made.valuePointers.push_back(value);
    made.tensors.push_back({made.memory.back().get(), type.bytes});
  }
  return made;
}

void ReadNames(OrtSession* session,
               OrtStatus* (*OrtApi::*get)(const OrtSession*, std::size_t, OrtAllocator*, char**) noexcept,
               std::size_t count, OnnxTensors& tensors) {
  OrtAllocator* allocator = nullptr;
  ThrowOnFailure(Api().GetAllocatorWithDefaultOptions(&allocator));
  for (std::size_t i = 0; i < count; ++i) {
    char* name = nullptr;
    ThrowOnFailure((Api().*get)(session, i, allocator, &name));
    tensors.names.emplace_back(name);
    ThrowOnFailure(Api().AllocatorFree(allocator, name));
  }
  for (const std::string& name : tensors.names) tensors.namePointers.push_back(name.c_str());
}

}  // namespace Ormis::host
