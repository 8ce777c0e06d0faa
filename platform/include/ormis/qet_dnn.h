// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// Inference: models and their input and output buffers.

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ormis/export.h"

namespace Ormis {

/// One input or output tensor of a model.
struct QetDNNBuffer {
  void* data = nullptr;         ///< the platform's memory; valid until QetDNNRelease or QetRelease
  std::uint64_t sizeBytes = 0;  ///< bytes at `data`
};

/// One loaded model with its input and output buffers. Value-initialise it on the thread that uses it, pass
/// it to the operations below, and destroy it after QetDNNRelease: the destructor does not free the model.
/// Callers that only run the model use none of the members. Operations on one model run one after the other,
/// even where two handles hold its id.
struct QetDNNHandle {
  std::uint64_t modelId = 0;                         ///< 0: no model
  std::string modelPath;                             ///< as given to QetDNNModelInitialize
  std::vector<QetDNNBuffer> inputs;                  ///< in the model's order; by QetDNNModelCreateInput
  std::vector<QetDNNBuffer> outputs;                 ///< in the model's order; by QetDNNModelCreateOutput
  std::map<const void*, std::uint32_t> inputIndex;   ///< buffer address to index in `inputs`
  std::map<const void*, std::uint32_t> outputIndex;  ///< buffer address to index in `outputs`
  std::map<std::uint32_t, void*> bufferOf;           ///< index to buffer address, outputs after inputs
  mutable std::recursive_mutex mutex;                ///< held by each operation on this handle
};

/// Loads the model file `path` (for the host: an ONNX file) into the current context. Each handle gets its
/// own copy of the model. Requires: a current context, a handle without a model. Returns 0, or a code and
/// leaves the handle as it was. QetDNNRelease may be called in either case.
ORMIS_API std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path);

/// Creates the model's input buffers. Where a caller never writes them, the inference reads what the platform
/// put there. The host gives dimensions that the model leaves open usual sizes, and fills inputs with zeros;
/// the file NAME.inputs.yaml beside NAME.onnx says otherwise. Requires: a current context, a loaded model, no
/// inputs yet. Returns 0, or a code: kQetUnsupported for an input that is not a tensor of numbers of whole
/// bytes, kQetInvalidArgument for a file of inputs that does not fit. After a failure there are no inputs.
ORMIS_API std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle);

/// Creates the model's output buffers. Where the model leaves dimensions open, the host runs an inference and
/// takes them from its outputs. Requirements and codes are those of QetDNNModelCreateInput, and
/// kQetInferenceFailure.
ORMIS_API std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle);

/// Runs one inference. Returns when the output buffers are written.
/// Requires: a current context, a model with inputs and outputs. Threads: any, each with its own handle.
/// Returns 0, or a code.
ORMIS_API std::int32_t QetDNNModelProcess(const QetDNNHandle& handle);

/// Releases the model and its buffers and empties the handle. Needs no context, and accepts a handle after
/// any step and after QetRelease. Returns 0; kQetModelNotReady for a handle without a model; or another code.
ORMIS_API std::int32_t QetDNNRelease(QetDNNHandle& handle);

}  // namespace Ormis
