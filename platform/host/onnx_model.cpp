// SPDX-License-Identifier: Apache-2.0
#include "onnx_model.h"

#include <onnxruntime_c_api.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <stdexcept>

#include "diagnostics.h"

// Only the C interface of ONNX Runtime: it is built with another C++ standard library.
namespace Ormis::host {

namespace {

const OrtApi& Api() {
  static const OrtApi* const api = OrtGetApiBase()->GetApi(ORT_API_VERSION);
  if (api == nullptr) {
    throw std::runtime_error(std::string("the ONNX Runtime library is version ") +
                             OrtGetApiBase()->GetVersionString() + ", expected 1." +
                             std::to_string(ORT_API_VERSION) + " or later");
  }
  return *api;
}

template <auto kRelease>
struct Releaser {
  template <typename T>
  void operator()(T* object) const {
    (Api().*kRelease)(object);
  }
};
using MemoryInfo = std::unique_ptr<OrtMemoryInfo, Releaser<&OrtApi::ReleaseMemoryInfo>>;
using Session = std::unique_ptr<OrtSession, Releaser<&OrtApi::ReleaseSession>>;
using SessionOptions = std::unique_ptr<OrtSessionOptions, Releaser<&OrtApi::ReleaseSessionOptions>>;
using Status = std::unique_ptr<OrtStatus, Releaser<&OrtApi::ReleaseStatus>>;
using TypeInfo = std::unique_ptr<OrtTypeInfo, Releaser<&OrtApi::ReleaseTypeInfo>>;
using Value = std::unique_ptr<OrtValue, Releaser<&OrtApi::ReleaseValue>>;

/// Makes one line of the runtime's text, for the log.
std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

std::string Text(const Status& status) {
  return OneLine(Api().GetErrorMessage(status.get()));
}

/// Throws where `result` is a failure. For calls that fail only where memory is out or the runtime is broken.
void ThrowOnFailure(OrtStatus* result) {
  const Status status(result);
  if (status != nullptr) throw std::runtime_error(Text(status));
}

void ORT_API_CALL LogMessage(void*, OrtLoggingLevel severity, const char* category, const char*,
                             const char* codeLocation, const char* message) {
  // Errors of the runtime become warnings: where an operation fails, its status says so, and the operation
  // logs that once at error level.
  if (severity < ORT_LOGGING_LEVEL_WARNING) return;
  const ara::log::SourceLocation here{__FILE__, "LogMessage", __LINE__};
  try {
    Log().LogWarn(here) << "ONNX Runtime: " << category << ": " << OneLine(message) << " (" << codeLocation
                        << ")";
  } catch (const std::bad_alloc&) {
    Log().LogWarn(here) << "ONNX Runtime: a message that memory was too short for";
  }
}

// One environment for all models. Each model holds it, because a session must not outlive it.
std::mutex environmentMutex;
std::shared_ptr<OrtEnv> sharedEnvironment;

std::shared_ptr<OrtEnv> Environment() {
  const std::lock_guard<std::mutex> lock(environmentMutex);
  if (sharedEnvironment == nullptr) {
    OrtEnv* environment = nullptr;
    ThrowOnFailure(Api().CreateEnvWithCustomLogger(LogMessage, nullptr, ORT_LOGGING_LEVEL_WARNING, "ormis",
                                                   &environment));
    sharedEnvironment.reset(environment, Releaser<&OrtApi::ReleaseEnv>());
  }
  return sharedEnvironment;
}

SessionOptions SingleThreaded() {
  OrtSessionOptions* raw = nullptr;
  ThrowOnFailure(Api().CreateSessionOptions(&raw));
  SessionOptions options(raw);
  ThrowOnFailure(Api().SetIntraOpNumThreads(raw, 1));
  ThrowOnFailure(Api().SetInterOpNumThreads(raw, 1));
  ThrowOnFailure(Api().SetSessionExecutionMode(raw, ORT_SEQUENTIAL));
  ThrowOnFailure(Api().SetSessionGraphOptimizationLevel(raw, ORT_ENABLE_ALL));
  ThrowOnFailure(Api().AddSessionConfigEntry(raw, "session.intra_op.allow_spinning", "0"));
  ThrowOnFailure(Api().AddSessionConfigEntry(raw, "session.inter_op.allow_spinning", "0"));
  return options;
}

/// Bytes of one element; 0 for a type whose elements have no fixed size in whole bytes.
std::size_t ElementBytes(ONNXTensorElementDataType type) {
  switch (type) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FN:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FNUZ:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E5M2:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E5M2FNUZ:
      return 1;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16:
      return 2;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32:
      return 4;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX64:
      return 8;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX128:
      return 16;
    default:
      return 0;
  }
}

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

/// Zeroed by writing, so that each page is memory of its own and not the kernel's shared zero page.
std::unique_ptr<void, FreeMemory> AllocatePages(std::size_t bytes) {
  constexpr std::size_t kPage = 4096;
  const std::size_t rounded = bytes == 0 ? kPage : (bytes + kPage - 1) / kPage * kPage;
  std::unique_ptr<void, FreeMemory> memory(std::aligned_alloc(kPage, rounded));
  if (memory == nullptr) throw std::bad_alloc();
  std::memset(memory.get(), 0, rounded);
  return memory;
}

/// The inputs or the outputs of a model: the names from the model and, after CreateTensors, buffers and
/// values. The arrays are those that Run hands to the runtime, so that it allocates nothing.
struct Tensors {
  std::vector<std::string> names;
  std::vector<const char*> namePointers;  ///< of `names`
  std::vector<OnnxTensor> tensors;        ///< this and the members below are empty until `made`
  std::vector<std::unique_ptr<void, FreeMemory>> memory;
  std::vector<Value> values;
  std::vector<OrtValue*> valuePointers;  ///< of `values`
  bool made = false;
};

// For all inputs together, and for all outputs. A damaged dimension may ask for any amount. Linux may promise
// more memory than there is, and the process would be killed when the pages are written.
constexpr std::size_t kMaxTensorsBytes = std::size_t{2} << 30;

struct TypeInfoGetter {
  OrtStatus* (*OrtApi::*get)(const OrtSession*, std::size_t, OrtTypeInfo**) noexcept;
  const char* kind;
};

struct TensorType {
  ONNXTensorElementDataType element = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
  std::vector<std::int64_t> shape;
  std::size_t bytes = 0;
};

/// Reads a tensor's element type, shape and size, and adds the size to `totalBytes`. Fails where the sum
/// would exceed kMaxTensorsBytes.
Outcome Describe(const OrtTypeInfo* typeInfo, const std::string& item, std::size_t& totalBytes,
                 TensorType& type) {
  const OrtTensorTypeAndShapeInfo* shapeInfo = nullptr;
  ThrowOnFailure(Api().CastTypeInfoToTensorInfo(typeInfo, &shapeInfo));
  if (shapeInfo == nullptr) return {kQetUnsupported, item + " is not a tensor"};

  ThrowOnFailure(Api().GetTensorElementType(shapeInfo, &type.element));
  type.bytes = ElementBytes(type.element);
  if (type.bytes == 0) {
    return {kQetUnsupported, item + " has element type " + std::to_string(type.element) +
                                 ", expected a numeric one of whole bytes"};
  }
  std::size_t dimensionCount = 0;
  ThrowOnFailure(Api().GetDimensionsCount(shapeInfo, &dimensionCount));
  type.shape.resize(dimensionCount);
  ThrowOnFailure(Api().GetDimensions(shapeInfo, type.shape.data(), dimensionCount));
  bool fits = true;
  for (std::int64_t& dimension : type.shape) {
    if (dimension < 0) dimension = 1;
    const auto size = static_cast<std::size_t>(dimension);
    fits = fits && (size == 0 || type.bytes <= kMaxTensorsBytes / size);
    type.bytes *= size;  // may wrap where it does not fit
  }
  if (!fits || type.bytes > kMaxTensorsBytes - totalBytes) {
    return {kQetInvalidSize, item + " is too large, expected at most 2 GiB for all of its kind"};
  }
  totalBytes += type.bytes;
  return {};
}

Outcome CreateTensors(OrtSession* session, const TypeInfoGetter& getter, Tensors& tensors) {
  std::vector<TensorType> types;
  std::size_t totalBytes = 0;
  for (std::size_t i = 0; i < tensors.names.size(); ++i) {
    OrtTypeInfo* rawType = nullptr;
    ThrowOnFailure((Api().*getter.get)(session, i, &rawType));
    const TypeInfo typeInfo(rawType);
    const std::string item = std::string(getter.kind) + " '" + tensors.names[i] + "'";
    types.emplace_back();
    if (const Outcome outcome = Describe(rawType, item, totalBytes, types.back()); !outcome.Ok())
      return outcome;
  }

  Tensors made;
  OrtMemoryInfo* rawInfo = nullptr;
  ThrowOnFailure(Api().CreateCpuMemoryInfo(OrtDeviceAllocator, OrtMemTypeDefault, &rawInfo));
  const MemoryInfo memoryInfo(rawInfo);
  for (std::size_t i = 0; i < types.size(); ++i) {
    const TensorType& type = types[i];
    made.memory.push_back(AllocatePages(type.bytes));
    OrtValue* value = nullptr;
    ThrowOnFailure(Api().CreateTensorWithDataAsOrtValue(memoryInfo.get(), made.memory.back().get(),
                                                        type.bytes, type.shape.data(), type.shape.size(),
                                                        type.element, &value));
    made.values.emplace_back(value);
    made.valuePointers.push_back(value);
    made.tensors.push_back({made.memory.back().get(), type.bytes});
  }

  tensors.memory = std::move(made.memory);
  tensors.values = std::move(made.values);
  tensors.valuePointers = std::move(made.valuePointers);
  tensors.tensors = std::move(made.tensors);
  tensors.made = true;
  return {};
}

void DropTensors(Tensors& tensors) noexcept {
  tensors.made = false;
  tensors.tensors.clear();
  tensors.valuePointers.clear();
  tensors.values.clear();
  tensors.memory.clear();
}

void ReadNames(OrtSession* session,
               OrtStatus* (*OrtApi::*get)(const OrtSession*, std::size_t, OrtAllocator*, char**) noexcept,
               std::size_t count, Tensors& tensors) {
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

/// Returns why the file cannot be read, or the empty string.
std::string Unreadable(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file";
  errno = 0;
  if (!std::ifstream(path, std::ios::binary)) return std::strerror(errno != 0 ? errno : EIO);
  return {};
}

}  // namespace

struct OnnxModel::State {
  std::shared_ptr<OrtEnv> environment;
  Session session;
  Tensors inputs;
  Tensors outputs;
  Outcome refusal;  ///< why the model must not run, or kQetOk
};

OnnxModel::OnnxModel(std::unique_ptr<State> state) : state_(std::move(state)) {}

OnnxModel::~OnnxModel() = default;

Outcome OnnxModel::Load(const std::string& path, std::unique_ptr<OnnxModel>& model) {
  if (const std::string reason = Unreadable(path); !reason.empty()) {
    return {kQetModelUnreadable, "cannot read model " + path + ": " + reason};
  }
  auto state = std::make_unique<State>();
  state->environment = Environment();
  const SessionOptions options = SingleThreaded();
  OrtSession* session = nullptr;
  if (const Status status(
          Api().CreateSession(state->environment.get(), path.c_str(), options.get(), &session));
      status != nullptr) {
    return {kQetModelUnreadable, "cannot load model " + path + ": " + Text(status)};
  }
  state->session.reset(session);
  std::size_t count = 0;
  ThrowOnFailure(Api().SessionGetInputCount(session, &count));
  ReadNames(session, &OrtApi::SessionGetInputName, count, state->inputs);
  ThrowOnFailure(Api().SessionGetOutputCount(session, &count));
  ReadNames(session, &OrtApi::SessionGetOutputName, count, state->outputs);
  model.reset(new OnnxModel(std::move(state)));
  return {};
}

std::size_t OnnxModel::InputCount() const {
  return state_->inputs.names.size();
}

bool OnnxModel::HasInputs() const {
  return state_->inputs.made;
}

bool OnnxModel::HasOutputs() const {
  return state_->outputs.made;
}

Outcome OnnxModel::CreateInputs() {
  return CreateTensors(state_->session.get(), {&OrtApi::SessionGetInputTypeInfo, "input"}, state_->inputs);
}

Outcome OnnxModel::CreateOutputs() {
  return CreateTensors(state_->session.get(), {&OrtApi::SessionGetOutputTypeInfo, "output"}, state_->outputs);
}

const std::vector<OnnxTensor>& OnnxModel::Inputs() const {
  return state_->inputs.tensors;
}

const std::vector<OnnxTensor>& OnnxModel::Outputs() const {
  return state_->outputs.tensors;
}

void OnnxModel::DropInputs() noexcept {
  DropTensors(state_->inputs);
}

void OnnxModel::DropOutputs() noexcept {
  DropTensors(state_->outputs);
}

void OnnxModel::RefuseToRun(Outcome reason) {
  state_->refusal = std::move(reason);
}

Outcome OnnxModel::Run() {
  if (!state_->refusal.Ok()) return state_->refusal;
  Tensors& inputs = state_->inputs;
  Tensors& outputs = state_->outputs;
  const Status status(Api().Run(state_->session.get(), nullptr, inputs.namePointers.data(),
                                inputs.valuePointers.data(), inputs.namePointers.size(),
                                outputs.namePointers.data(), outputs.namePointers.size(),
                                outputs.valuePointers.data()));
  if (status != nullptr) return {kQetInferenceFailure, Text(status)};
  return {};
}

// Called when the platform ends. At exit would be too late: the runtime's own statics may be gone.
void OnnxModel::ReleaseEnvironment() {
  const std::lock_guard<std::mutex> lock(environmentMutex);
  sharedEnvironment.reset();
}

}  // namespace Ormis::host
