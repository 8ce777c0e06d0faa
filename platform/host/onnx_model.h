#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ormis/qet_error.h"

namespace Ormis::host {

/// How an engine operation ended: a code, and the reason when it is not kQetOk.
struct Outcome {
  QetError code = kQetOk;
  std::string reason;
  bool Ok() const { return code == kQetOk; }
};

/// One input or output of a model, and the memory behind it.
struct OnnxTensor {
  void* data = nullptr;  ///< the model's; page-aligned, zeroed when made
  std::size_t sizeBytes = 0;
};

/// A model that ONNX Runtime has loaded. It runs on the calling thread alone: no thread of its own.
/// Threads: one at a time.
class OnnxModel {
 public:
  /// Loads the model file `path`. Fills `model`, or returns why not.
  static Outcome Load(const std::string& path, std::unique_ptr<OnnxModel>& model);
  ~OnnxModel();
  OnnxModel(const OnnxModel&) = delete;
  OnnxModel& operator=(const OnnxModel&) = delete;

  std::size_t InputCount() const;
  bool HasInputs() const;
  bool HasOutputs() const;

  /// Make the buffers, all of them or none. A dimension that the model leaves open becomes 1.
  Outcome CreateInputs();
  Outcome CreateOutputs();
  const std::vector<OnnxTensor>& Inputs() const;
  const std::vector<OnnxTensor>& Outputs() const;

  /// Give the buffers back: as before CreateInputs, and CreateOutputs.
  void DropInputs() noexcept;
  void DropOutputs() noexcept;

  /// Runs the model once over its buffers. Requires: inputs and outputs. Allocates nothing of its own.
  Outcome Run();

  /// From here on Run fails with `reason`, and does nothing.
  void RefuseToRun(Outcome reason);

  /// Lets go of what all models share. Models that are still loaded keep it until they go.
  static void ReleaseEnvironment();

 private:
  struct State;
  explicit OnnxModel(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace Ormis::host
