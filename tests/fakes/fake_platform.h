// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ormis/ormis.h"

/// A scripted platform without engines. It replaces the operations of the platform library in the test
/// executable; the YAML reader and the log converters stay the real ones. It records each call with its
/// thread, makes chosen calls fail, and runs a test's function inside calls, for instance to advance virtual
/// time or to set a stop flag.
namespace fakePlatform {

struct Call {
  std::string name;  ///< "QetImageResize", "QetVenc::SendFrame", "memcpy_s", ...
  std::thread::id thread;
  std::int32_t result;
  const void* object = nullptr;  ///< the context, record, encoder, stream or handle that it was called on
  int channel = 0;               ///< channel operations and resize
  int interpolation = 0;         ///< resize
  int lastArgument = 0;          ///< resize
  const void* source = nullptr;  ///< copies and resize
  const void* destination = nullptr;  ///< copies and resize
  std::size_t destinationMax = 0;     ///< memcpy_s
  std::size_t count = 0;              ///< memcpy_s
  std::string path;                   ///< model file
};

void Reset();

/// Makes the `nth` call (from 1) of `operation` return `code`.
void Fail(const std::string& operation, int nth, std::int32_t code);
/// Makes every call of `operation` from the `nth` on return `code`.
void FailFrom(const std::string& operation, int nth, std::int32_t code);
/// How many calls of `operation` were made to fail. With it a test asserts that its fault was injected.
int FailuresDelivered(const std::string& operation);

/// Sets a function that runs inside each call of `operation`, after the call was recorded. It gets the number
/// of the call, from 1.
void OnCall(const std::string& operation, std::function<void(int)> hook);

std::vector<Call> Calls();
std::vector<Call> CallsOf(const std::string& operation);
int CountOf(const std::string& operation);
/// The names of all calls, in order.
std::vector<std::string> Names();

/// Sets the number that QetCreateChannel returns in its argument. By default it leaves the argument
/// unchanged.
void GiveChannel(int channel);

/// The bytes of the encoder at each Init, of the image record at each QetImageMallocAligned, and of the frame
/// at each SendFrame. Who compares them has to leave out the string members.
using EncoderBytes = std::array<unsigned char, sizeof(Ormis::QetVenc)>;
std::vector<EncoderBytes> Encoders();
using ImageBytes = std::array<unsigned char, sizeof(Ormis::ImageData)>;
std::vector<ImageBytes> AllocatedImages();
std::vector<ImageBytes> Frames();
/// True when every stream record was zero at its GetStream.
bool StreamsWereZero();
/// True when the last frame had `bytes` bytes of pixels, all zero.
bool LastFrameWasZero(std::size_t bytes);

/// The context and the parameters at the call of QetInitialize.
Ormis::QetContext InitializedContext();
Ormis::QetContextParameters InitializedParameters();

}  // namespace fakePlatform
