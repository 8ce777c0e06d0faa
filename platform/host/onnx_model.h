// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ormis/qet_error.h"

namespace Ormis::host {

/// Result of an engine operation: a code, and the reason where it is not kQetOk.
struct Outcome {
  QetError code = kQetOk;
  std::string reason;
  bool Ok() const { return code == kQetOk; }
};

/// One input or output of a model, and the memory behind it.
struct OnnxTensor {
  void* data = nullptr;  ///< owned by the model; page-aligned
  std::size_t sizeBytes = 0;
};

struct OnnxTensors;

/// A model that ONNX Runtime has loaded. It runs on the calling thread and starts no thread.
/// Threads: one at a time.
class OnnxModel {
 public:
  /// Loads the model file `path`. Fills `model`, or returns the reason of the failure.
  static Outcome Load(const std::string& path, std::unique_ptr<OnnxModel>& model);
  ~OnnxModel();
  OnnxModel(const OnnxModel&) = delete;
  OnnxModel& operator=(const OnnxModel&) = delete;

  std::size_t InputCount() const;
  bool HasInputs() const;
  bool HasOutputs() const;

  /// Create the buffers: all of them or none. A file of inputs beside the model (model_inputs.h) says how
  /// large inputs are and what they hold; else they have usual sizes, and zeros. Where the model leaves sizes
  /// of outputs open, they are those of a first inference.
  Outcome CreateInputs();
  Outcome CreateOutputs();
  const std::vector<OnnxTensor>& Inputs() const;   ///< requires: HasInputs
  const std::vector<OnnxTensor>& Outputs() const;  ///< requires: HasOutputs

  /// Free the buffers. The state is then that before CreateInputs or CreateOutputs.
  void DropInputs() noexcept;
  void DropOutputs() noexcept;

  /// Runs the model once over its buffers. Requires: inputs and outputs. Allocates nothing of its own.
  Outcome Run();

  /// From now on Run does nothing and returns `reason`. So does CreateOutputs where it needs an inference.
  void RefuseToRun(Outcome reason);

  /// Releases the environment that all models share. It lives on until the last loaded model is destroyed.
  static void ReleaseEnvironment();

 private:
  struct State;
  Outcome MakeInputs(OnnxTensors& inputs) const;
  Outcome LearnOutputs(std::vector<std::vector<std::int64_t>>& shapes) const;
  explicit OnnxModel(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace Ormis::host
