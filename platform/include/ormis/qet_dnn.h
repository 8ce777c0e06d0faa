#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ormis/export.h"

namespace Ormis {

/// One input or output tensor of a model.
struct QetDNNBuffer {
  void* data = nullptr;  ///< the platform's memory, valid until QetDNNRelease
  std::uint64_t sizeBytes = 0;
};

/// One loaded model with its input and output buffers. Value-initialise it on the thread that uses it, hand
/// it to the operations below, destroy it after QetDNNRelease: the destructor frees the members, not the
/// model. Callers that only run the model need none of its members. Operations on one model run one after the
/// other, also where a second handle holds its number.
struct QetDNNHandle {
  std::uint64_t modelId = 0;                         ///< 0: no model
  std::string modelPath;                             ///< as given to QetDNNModelInitialize
  std::vector<QetDNNBuffer> inputs;                  ///< in the model's order; QetDNNModelCreateInput
  std::vector<QetDNNBuffer> outputs;                 ///< in the model's order; QetDNNModelCreateOutput
  std::map<const void*, std::uint32_t> inputIndex;   ///< buffer address to index in `inputs`
  std::map<const void*, std::uint32_t> outputIndex;  ///< buffer address to index in `outputs`
  std::map<std::uint32_t, void*> bufferOf;           ///< index to buffer address, outputs after inputs
  mutable std::recursive_mutex mutex;                ///< held by each operation on this handle
};

/// Loads the model file `path` (the host: an ONNX file) into the current context. Each handle has a copy of
/// the model of its own. Requires: a current context, a handle without a model. Returns 0, or a code and
/// leaves the handle as it was; QetDNNRelease may follow in either case.
ORMIS_API std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path);

/// Creates the model's input buffers. Callers that never write them infer over what the platform left there
/// (the host leaves zeros). A dimension that the model leaves open becomes 1. Requires: a current context, a
/// loaded model, no inputs yet. Returns 0; kQetUnsupported for an input whose elements are no numbers of
/// whole bytes; or another code. After a failure there are no inputs.
ORMIS_API std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle);

/// Creates the model's output buffers. Dimensions, requirements and codes as for the inputs.
ORMIS_API std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle);

/// Runs one inference; returns after the model has executed once and the output buffers are written.
/// Requires: a current context, a model with inputs and outputs. Threads: any, each with its own handle.
/// Returns 0, or a code.
ORMIS_API std::int32_t QetDNNModelProcess(const QetDNNHandle& handle);

/// Releases the model and its buffers and empties the handle. Accepts a handle in any partial state, without
/// a context, and after QetRelease, too; one without a model answers kQetModelNotReady.
ORMIS_API std::int32_t QetDNNRelease(QetDNNHandle& handle);

}  // namespace Ormis
