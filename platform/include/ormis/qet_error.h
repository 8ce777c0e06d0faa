// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The status codes of the host.

#include <cstdint>

namespace Ormis {

/// Status codes of this implementation. Every `Qet` operation returns a 32-bit signed status: 0 is success,
/// any other value a failure. Callers log the number and never interpret it, so another implementation may
/// use its own numbers. These start at 1001, so that they stand out in a log.
enum QetError : std::int32_t {
  kQetOk = 0,                     ///< success
  kQetInvalidArgument = 1001,     ///< a value outside what the operation accepts
  kQetNotInitialized = 1002,      ///< QetInitialize has not succeeded, or QetRelease has been called since
  kQetAlreadyInitialized = 1003,  ///< the object or the platform is initialised already
  kQetNoContext = 1004,           ///< no live context is bound to the calling thread
  kQetUnknownContext = 1005,      ///< the context was never created, or has been destroyed
  kQetUnknownChannel = 1006,      ///< the channel was never created, or has been destroyed
  kQetUnknownBuffer = 1007,       ///< the image's memory is not from QetImageMallocAligned, or was freed
  kQetUnsupported = 1008,         ///< a type or mode that this implementation does not have
  kQetInvalidSize = 1009,         ///< a size of zero, too large a size, or one that does not fit its buffer
  kQetOutOfMemory = 1010,         ///< there is not enough memory
  kQetEncoderNotReady = 1011,     ///< the encoder is not initialised
  kQetNoStream = 1012,            ///< no stream is waiting, or the stream was released before
  kQetEncoderFailure = 1013,      ///< the encoder engine refused or failed
  kQetModelNotReady = 1014,       ///< the model is not loaded, or its inputs or outputs do not exist
  kQetModelUnreadable = 1015,     ///< the model file cannot be read or loaded
  kQetInferenceFailure = 1016,    ///< the inference engine failed
  kQetBusy = 1017,                ///< too much is in use: fetch or release something first
  kQetInternal = 1018,            ///< another failure inside a library; the log has its text
};

}  // namespace Ormis
