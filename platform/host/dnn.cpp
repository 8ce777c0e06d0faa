#include <memory>
#include <mutex>
#include <string>

#include "diagnostics.h"
#include "model_trial.h"
#include "onnx_model.h"
#include "ormis/qet_dnn.h"
#include "state.h"

namespace Ormis {
namespace host {

namespace {

Table<std::uint64_t, OnnxModel> models;

/// Returns the handle's model, or null after saying why there is none and setting `status`.
std::shared_ptr<OnnxModel> RequireModel(const char* operation, const QetDNNHandle& handle,
                                        std::int32_t& status) {
  status = RequireContext(operation);
  if (status != kQetOk) return nullptr;
  std::shared_ptr<OnnxModel> model = models.Find(handle.modelId);
  if (model == nullptr) {
    status = QET_FAIL(operation, kQetModelNotReady, "no model is loaded: call QetDNNModelInitialize first");
  }
  return model;
}

/// Lists the new tensors in the handle. `firstIndex` is the index of the first of them among all tensors.
void Publish(const std::vector<OnnxTensor>& tensors, std::uint32_t firstIndex,
             std::vector<QetDNNBuffer>& buffers, std::map<const void*, std::uint32_t>& bufferIndex,
             std::map<std::string, std::uint32_t>& tensorIndex) {
  for (const OnnxTensor& tensor : tensors) {
    const auto index = static_cast<std::uint32_t>(buffers.size());
    buffers.push_back({tensor.data, tensor.sizeBytes});
    bufferIndex.emplace(tensor.data, index);
    tensorIndex.emplace(tensor.name, firstIndex + index);
  }
}

void Empty(QetDNNHandle& handle) {
  handle.modelId = 0;
  handle.modelPath.clear();
  handle.inputs.clear();
  handle.outputs.clear();
  handle.inputIndex.clear();
  handle.outputIndex.clear();
  handle.tensorIndex.clear();
}

}  // namespace

Leftover ReclaimModels() noexcept {
  const Leftover left{models.TakeAll().size(), 0};
  OnnxModel::ReleaseEnvironment();
  return left;
}

}  // namespace host

std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path) {
  constexpr const char* kOperation = "QetDNNModelInitialize";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    if (host::models.Find(handle.modelId) != nullptr) {
      return QET_FAIL(kOperation, kQetAlreadyInitialized,
                      "the handle holds model " << handle.modelPath << " already, expected an empty one");
    }
    const host::TrialResult trial = host::TryModel(path);
    if (!trial.load.Ok()) return QET_FAIL(kOperation, trial.load.code, trial.load.reason);
    std::unique_ptr<host::OnnxModel> model;
    if (const host::Outcome outcome = host::OnnxModel::Load(path, model); !outcome.Ok()) {
      return QET_FAIL(kOperation, outcome.code, outcome.reason);
    }
    if (!trial.run.Ok()) model->RefuseToRun(trial.run);
    host::Empty(handle);
    handle.modelPath = path;
    const std::uint64_t id = host::NextId();
    host::models.Add(id, std::move(model));
    handle.modelId = id;
    return kQetOk;
  });
}

std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNModelCreateInput";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    std::int32_t status = kQetOk;
    const auto model = host::RequireModel(kOperation, handle, status);
    if (model == nullptr) return status;
    if (model->HasInputs()) {
      return QET_FAIL(kOperation, kQetAlreadyInitialized,
                      "model " << handle.modelPath << " has its inputs already");
    }
    if (const host::Outcome outcome = model->CreateInputs(); !outcome.Ok()) {
      return QET_FAIL(kOperation, outcome.code, "model " << handle.modelPath << ": " << outcome.reason);
    }
    host::Publish(model->Inputs(), 0, handle.inputs, handle.inputIndex, handle.tensorIndex);
    return kQetOk;
  });
}

std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNModelCreateOutput";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    std::int32_t status = kQetOk;
    const auto model = host::RequireModel(kOperation, handle, status);
    if (model == nullptr) return status;
    if (model->HasOutputs()) {
      return QET_FAIL(kOperation, kQetAlreadyInitialized,
                      "model " << handle.modelPath << " has its outputs already");
    }
    if (const host::Outcome outcome = model->CreateOutputs(); !outcome.Ok()) {
      return QET_FAIL(kOperation, outcome.code, "model " << handle.modelPath << ": " << outcome.reason);
    }
    host::Publish(model->Outputs(), static_cast<std::uint32_t>(model->InputCount()), handle.outputs,
                  handle.outputIndex, handle.tensorIndex);
    return kQetOk;
  });
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNModelProcess";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    std::int32_t status = kQetOk;
    const auto model = host::RequireModel(kOperation, handle, status);
    if (model == nullptr) return status;
    if (!model->HasInputs() || !model->HasOutputs()) {
      return QET_FAIL(kOperation, kQetModelNotReady,
                      "model " << handle.modelPath << " has no "
                               << (model->HasInputs() ? "outputs" : "inputs") << " yet");
    }
    if (const host::Outcome outcome = model->Run(); !outcome.Ok()) {
      return QET_FAIL(kOperation, outcome.code, "model " << handle.modelPath << ": " << outcome.reason);
    }
    return kQetOk;
  });
}

std::int32_t QetDNNRelease(QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNRelease";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    const auto model = host::models.Take(handle.modelId);
    // Also after QetRelease, which took the model: the handle's buffers are gone then.
    host::Empty(handle);
    if (model == nullptr) {
      return QET_FAIL(kOperation, kQetModelNotReady, "the handle holds no model");
    }
    return kQetOk;
  });
}

}  // namespace Ormis
