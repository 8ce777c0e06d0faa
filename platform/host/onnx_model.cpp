// SPDX-License-Identifier: Apache-2.0
#include "onnx_model.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>

#include "diagnostics.h"
#include "model_inputs.h"
#include "onnx_tensors.h"
#include "tensor_elements.h"

// Only the C interface of ONNX Runtime: it is built with another C++ standard library.
namespace Ormis::host {

namespace {

/// Gets the runtime's messages from warnings on. Errors of the runtime become warnings: where an operation
/// fails, its status says so, and the operation logs that once at error level. Allocates nothing: the runtime
/// may call this because memory is out.
void ORT_API_CALL LogMessage(void*, OrtLoggingLevel, const char* category, const char*,
                             const char* codeLocation, const char* message) {
  Log().LogWarn({__FILE__, "LogMessage", __LINE__})
      << "ONNX Runtime: " << category << ": " << message << " (" << codeLocation << ")";
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
  // A session that runs one operation after the other, as it does by itself, has no other threads.
  ThrowOnFailure(Api().SetIntraOpNumThreads(raw, 1));
  ThrowOnFailure(Api().SetSessionGraphOptimizationLevel(raw, ORT_ENABLE_ALL));
  return options;
}

/// Returns why the file cannot be read, or the empty string.
std::string Unreadable(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file";
  if (!std::ifstream(path, std::ios::binary)) return std::strerror(errno);
  return {};
}

/// Returns the empty string, or the line of the choice and why it does not fit.
std::string FillInput(const InputChoice& choice, const TensorType& type, std::uint32_t seed,
                      const OnnxTensor& tensor) {
  const std::string fault =
      Fill(choice, type.element, tensor.sizeBytes / ElementBytes(type.element), seed, tensor.data);
  if (fault.empty()) return {};
  return ":" + std::to_string(choice.valueLine) + ": " + type.declared.name + ": " + fault;
}

}  // namespace

struct OnnxModel::State {
  std::string path;
  std::shared_ptr<OrtEnv> environment;
  Session session;
  OnnxTensors inputs;
  OnnxTensors outputs;
  Outcome refusal;  ///< why the model must not run, or kQetOk
};

OnnxModel::OnnxModel(std::unique_ptr<State> state) : state_(std::move(state)) {}

OnnxModel::~OnnxModel() = default;

Outcome OnnxModel::Load(const std::string& path, std::unique_ptr<OnnxModel>& model) {
  if (const std::string reason = Unreadable(path); !reason.empty()) {
    return {kQetModelUnreadable, "cannot read model " + path + ": " + reason};
  }
  auto state = std::make_unique<State>();
  state->path = path;
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
  return state_->inputs.made.has_value();
}

bool OnnxModel::HasOutputs() const {
  return state_->outputs.made.has_value();
}

Outcome OnnxModel::CreateInputs() {
  return MakeInputs(state_->inputs);
}

Outcome OnnxModel::MakeInputs(OnnxTensors& inputs) const {
  std::vector<TensorType> types;
  if (const Outcome outcome = DescribeAll(state_->session.get(), kInputTypes, inputs, types); !outcome.Ok()) {
    return outcome;
  }
  const std::string path = InputsPath(state_->path);
  InputChoices choices;
  std::string fault = ReadInputs(path, choices);
  std::vector<DeclaredInput> shapes;
  for (const TensorType& type : types) shapes.push_back(type.declared);
  if (fault.empty()) fault = ChooseShapes(shapes, choices, path);
  if (!fault.empty()) return {kQetInvalidArgument, fault};
  for (std::size_t i = 0; i < types.size(); ++i) types[i].declared.shape = shapes[i].shape;
  if (const Outcome outcome = Measure(types); !outcome.Ok()) return outcome;
  inputs.made = MakeTensors(types);
  for (std::size_t i = 0; i < types.size(); ++i) {
    const auto choice = choices.find(types[i].declared.name);
    if (choice == choices.end()) continue;
    fault = FillInput(choice->second, types[i], static_cast<std::uint32_t>(i), inputs.made->tensors[i]);
    if (fault.empty()) continue;
    inputs.made.reset();
    return {kQetInvalidArgument, path + fault};
  }
  return {};
}

Outcome OnnxModel::CreateOutputs() {
  std::vector<TensorType> types;
  if (const Outcome outcome = DescribeAll(state_->session.get(), kOutputTypes, state_->outputs, types);
      !outcome.Ok()) {
    return outcome;
  }
  // Without an inference these sizes stay unknown. A model that must not run and has no such output gets its
  // buffers, and its first inference says why.
  if (std::any_of(types.begin(), types.end(), MayBeOpen)) {
    if (!state_->refusal.Ok()) return state_->refusal;
    std::vector<std::vector<std::int64_t>> shapes;
    if (const Outcome outcome = LearnOutputs(shapes); !outcome.Ok()) return outcome;
    for (std::size_t i = 0; i < types.size(); ++i) types[i].declared.shape = shapes[i];
  }
  if (const Outcome outcome = Measure(types); !outcome.Ok()) return outcome;
  state_->outputs.made = MakeTensors(types);
  return {};
}

Outcome OnnxModel::LearnOutputs(std::vector<std::vector<std::int64_t>>& shapes) const {
  const OnnxTensors& names = state_->outputs;
  OnnxTensors own;  // where the outputs are created before the inputs
  const OnnxTensors* inputs = &state_->inputs;
  if (!inputs->made) {
    own.names = inputs->names;
    own.namePointers = inputs->namePointers;
    if (const Outcome outcome = MakeInputs(own); !outcome.Ok()) return outcome;
    inputs = &own;
  }
  std::vector<OrtValue*> raw(names.names.size());
  const Status status(Api().Run(state_->session.get(), nullptr, inputs->namePointers.data(),
                                inputs->made->valuePointers.data(), inputs->namePointers.size(),
                                names.namePointers.data(), names.namePointers.size(), raw.data()));
  std::vector<Value> values;
  for (OrtValue* const value : raw) values.emplace_back(value);
  if (status != nullptr) return {kQetInferenceFailure, "the first inference failed: " + Text(status)};
  for (const OrtValue* const value : raw) {
    OrtTensorTypeAndShapeInfo* rawShape = nullptr;
    ThrowOnFailure(Api().GetTensorTypeAndShape(value, &rawShape));
    const ShapeInfo shapeInfo(rawShape);
    std::size_t rank = 0;
    ThrowOnFailure(Api().GetDimensionsCount(rawShape, &rank));
    shapes.emplace_back(rank);
    ThrowOnFailure(Api().GetDimensions(rawShape, shapes.back().data(), rank));
  }
  return {};
}

const std::vector<OnnxTensor>& OnnxModel::Inputs() const {
  return state_->inputs.made->tensors;
}

const std::vector<OnnxTensor>& OnnxModel::Outputs() const {
  return state_->outputs.made->tensors;
}

void OnnxModel::DropInputs() noexcept {
  state_->inputs.made.reset();
}

void OnnxModel::DropOutputs() noexcept {
  state_->outputs.made.reset();
}

void OnnxModel::RefuseToRun(Outcome reason) {
  state_->refusal = std::move(reason);
}

Outcome OnnxModel::Run() {
  if (!state_->refusal.Ok()) return state_->refusal;
  OnnxTensors& inputs = state_->inputs;
  OnnxTensors& outputs = state_->outputs;
  const Status status(Api().Run(state_->session.get(), nullptr, inputs.namePointers.data(),
                                inputs.made->valuePointers.data(), inputs.namePointers.size(),
                                outputs.namePointers.data(), outputs.namePointers.size(),
                                outputs.made->valuePointers.data()));
  if (status != nullptr) return {kQetInferenceFailure, Text(status)};
  return {};
}

// Called when the platform ends. At exit would be too late: the runtime's own statics may be gone.
void OnnxModel::ReleaseEnvironment() {
  const std::lock_guard<std::mutex> lock(environmentMutex);
  sharedEnvironment.reset();
}

}  // namespace Ormis::host
