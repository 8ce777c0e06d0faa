// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>

#include <memory>
#include <mutex>
#include <string>

#include "cache_flush.h"
#include "diagnostics.h"
#include "model_trial.h"
#include "onnx_model.h"
#include "ormis/qet_dnn.h"
#include "state.h"

namespace Ormis {
namespace host {

namespace {

struct Model {
  std::mutex mutex;  ///< two handles may hold the id of one model
  std::unique_ptr<OnnxModel> engine;
};

Table<std::uint64_t, Model> models;

/// One load of a model, from its trial to its end. Loading takes and frees more memory than the weights have,
/// and the C library would keep it. Only the last running load gives it back, because this disturbs
/// all threads, also those of workers that are measured already.
class LoadInProgress {
 public:
  LoadInProgress() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
  }
  ~LoadInProgress() {
    // Also keeps a second call out: under a preloaded allocator the first call sets up the C library's own
    // allocator, and two at once break that.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--count_ != 0) return;
#ifdef __GLIBC__
    (void)malloc_trim(0);
#endif
  }
  LoadInProgress(const LoadInProgress&) = delete;
  LoadInProgress& operator=(const LoadInProgress&) = delete;

 private:
  inline static std::mutex mutex_;
  inline static int count_ = 0;
};

/// Returns the handle's model. Otherwise logs why there is none, sets `status` and returns null.
std::shared_ptr<Model> RequireModel(const char* operation, const QetDNNHandle& handle, std::int32_t& status) {
  status = RequireContext(operation);
  if (status != kQetOk) return nullptr;
  std::shared_ptr<Model> model = models.Find(handle.modelId);
  if (model == nullptr) {
    status = QET_FAIL(operation, kQetModelNotReady, "no model is loaded: call QetDNNModelInitialize first");
  }
  return model;
}

/// Enters the new tensors into the three lists of a handle. Throws where memory is out, and leaves the lists
/// as they were then. `firstIndex` is the index of the first new tensor among all tensors.
void Publish(const std::vector<OnnxTensor>& tensors, std::uint32_t firstIndex,
             std::vector<QetDNNBuffer>& buffers, std::map<const void*, std::uint32_t>& bufferIndex,
             std::map<std::uint32_t, void*>& bufferOf) {
  std::vector<QetDNNBuffer> newBuffers;
  std::map<const void*, std::uint32_t> newBufferIndex;
  std::map<std::uint32_t, void*> newBufferOf = bufferOf;
  for (const OnnxTensor& tensor : tensors) {
    const auto index = static_cast<std::uint32_t>(newBuffers.size());
    newBuffers.push_back({tensor.data, tensor.sizeBytes});
    newBufferIndex.emplace(tensor.data, index);
    newBufferOf.emplace(firstIndex + index, tensor.data);
  }
  buffers.swap(newBuffers);
  bufferIndex.swap(newBufferIndex);
  bufferOf.swap(newBufferOf);
}

/// What differs between a model's inputs and its outputs.
struct Side {
  const char* name;
  bool afterInputs;  ///< the outputs are counted on from the inputs
  bool (OnnxModel::*has)() const;
  Outcome (OnnxModel::*create)();
  const std::vector<OnnxTensor>& (OnnxModel::*tensors)() const;
  void (OnnxModel::*drop)() noexcept;
};

constexpr Side kInputs = {"inputs",
                          false,
                          &OnnxModel::HasInputs,
                          &OnnxModel::CreateInputs,
                          &OnnxModel::Inputs,
                          &OnnxModel::DropInputs};
constexpr Side kOutputs = {"outputs",
                           true,
                           &OnnxModel::HasOutputs,
                           &OnnxModel::CreateOutputs,
                           &OnnxModel::Outputs,
                           &OnnxModel::DropOutputs};

/// Creates the buffers of one side, and enters them into the lists of the handle: `buffers` and `bufferIndex`
/// are that side's.
std::int32_t CreateBuffers(const char* operation, const Side& side, QetDNNHandle& handle,
                           std::vector<QetDNNBuffer>& buffers,
                           std::map<const void*, std::uint32_t>& bufferIndex) {
  const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
  std::int32_t status = kQetOk;
  const auto model = RequireModel(operation, handle, status);
  if (model == nullptr) return status;
  const std::lock_guard<std::mutex> modelLock(model->mutex);
  OnnxModel& engine = *model->engine;
  if ((engine.*side.has)()) {
    return QET_FAIL(operation, kQetAlreadyInitialized,
                    "model " << handle.modelPath << " has its " << side.name << " already");
  }
  if (const Outcome outcome = (engine.*side.create)(); !outcome.Ok()) {
    return QET_FAIL(operation, outcome.code, "model " << handle.modelPath << ": " << outcome.reason);
  }
  try {
    const auto first = static_cast<std::uint32_t>(side.afterInputs ? engine.InputCount() : 0);
    Publish((engine.*side.tensors)(), first, buffers, bufferIndex, handle.bufferOf);
  } catch (...) {
    (engine.*side.drop)();
    throw;
  }
  return kQetOk;
}

void FlushTensors(const std::vector<OnnxTensor>& tensors) {
  for (const OnnxTensor& tensor : tensors) portable::FlushFromCaches(tensor.data, tensor.sizeBytes);
}

void Empty(QetDNNHandle& handle) {
  handle.modelId = 0;
  handle.modelPath.clear();
  handle.inputs.clear();
  handle.outputs.clear();
  handle.inputIndex.clear();
  handle.outputIndex.clear();
  handle.bufferOf.clear();
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
    const host::LoadInProgress load;
    const host::TrialResult trial = host::TryModel(path);
    if (!trial.load.Ok()) return QET_FAIL(kOperation, trial.load.code, trial.load.reason);
    auto model = std::make_shared<host::Model>();
    if (const host::Outcome outcome = host::OnnxModel::Load(path, model->engine); !outcome.Ok()) {
      return QET_FAIL(kOperation, outcome.code, outcome.reason);
    }
    if (!trial.run.Ok()) model->engine->RefuseToRun(trial.run);
    std::string modelPath = path;  // `path` may be the handle's member, which Empty clears
    const std::uint64_t id = host::NextId();
    host::models.Add(id, std::move(model));
    host::Empty(handle);
    handle.modelPath.swap(modelPath);
    handle.modelId = id;
    return kQetOk;
  });
}

std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNModelCreateInput";
  return host::Guarded(kOperation, [&] {
    return host::CreateBuffers(kOperation, host::kInputs, handle, handle.inputs, handle.inputIndex);
  });
}

std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNModelCreateOutput";
  return host::Guarded(kOperation, [&] {
    return host::CreateBuffers(kOperation, host::kOutputs, handle, handle.outputs, handle.outputIndex);
  });
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNModelProcess";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    std::int32_t status = kQetOk;
    const auto model = host::RequireModel(kOperation, handle, status);
    if (model == nullptr) return status;
    const std::lock_guard<std::mutex> modelLock(model->mutex);
    if (!model->engine->HasInputs() || !model->engine->HasOutputs()) {
      return QET_FAIL(kOperation, kQetModelNotReady,
                      "model " << handle.modelPath << " has no "
                               << (model->engine->HasInputs() ? "outputs" : "inputs") << " yet");
    }
    if (const host::Outcome outcome = model->engine->Run(); !outcome.Ok()) {
      return QET_FAIL(kOperation, outcome.code, "model " << handle.modelPath << ": " << outcome.reason);
    }
    host::FlushTensors(model->engine->Inputs());
    host::FlushTensors(model->engine->Outputs());
    return kQetOk;
  });
}

std::int32_t QetDNNRelease(QetDNNHandle& handle) {
  constexpr const char* kOperation = "QetDNNRelease";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    const std::lock_guard<std::recursive_mutex> lock(handle.mutex);
    const auto model = host::models.Take(handle.modelId);
    // Also where QetRelease has taken the model: the buffers that the handle names are gone.
    host::Empty(handle);
    if (model == nullptr) {
      return QET_FAIL(kOperation, kQetModelNotReady, "the handle holds no model");
    }
    return kQetOk;
  });
}

}  // namespace Ormis
