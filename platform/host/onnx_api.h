// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <onnxruntime_c_api.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

// Only the C interface of ONNX Runtime: it is built with another C++ standard library.
namespace Ormis::host {

/// The functions of ONNX Runtime.
inline const OrtApi& Api() {
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
using ShapeInfo =
    std::unique_ptr<OrtTensorTypeAndShapeInfo, Releaser<&OrtApi::ReleaseTensorTypeAndShapeInfo>>;
using Value = std::unique_ptr<OrtValue, Releaser<&OrtApi::ReleaseValue>>;

/// Makes one line of the runtime's text, for the log.
inline std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

inline std::string Text(const Status& status) {
  return OneLine(Api().GetErrorMessage(status.get()));
}

/// Throws where `result` is a failure. For calls that fail only where memory is out or the runtime is broken.
inline void ThrowOnFailure(OrtStatus* result) {
  const Status status(result);
  if (status != nullptr) throw std::runtime_error(Text(status));
}

}  // namespace Ormis::host
