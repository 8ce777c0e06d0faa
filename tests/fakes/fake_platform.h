#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ormis/ormis.h"

/// A scripted platform: the operations that do something, without engines. It records who called what on
/// which thread, fails the call it is told to fail, and runs a hook in each call (to let virtual time pass or
/// to raise a stop flag). The YAML reader and the log converters stay the real ones. It takes the place of
/// the platform library's operations in the test executable.
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

/// Lets the `nth` call (from 1) of `operation` return `code`.
void Fail(const std::string& operation, int nth, std::int32_t code);
/// Lets every call of `operation` from the `nth` on return `code`.
void FailFrom(const std::string& operation, int nth, std::int32_t code);
/// How many failures of `operation` were delivered: a test asserts that its fault fired.
int FailuresDelivered(const std::string& operation);

/// Runs inside each call of `operation`, after it was recorded, with its number from 1.
void OnCall(const std::string& operation, std::function<void(int)> hook);

std::vector<Call> Calls();
std::vector<Call> CallsOf(const std::string& operation);
int CountOf(const std::string& operation);
/// Names alone, in the order of the calls.
std::vector<std::string> Names();

/// What QetCreateChannel puts into its argument; without a call it leaves the wish.
void GiveChannel(int channel);

/// The bytes of the encoder at its Init, of the frame at its first SendFrame, and of each image record handed
/// to QetImageMallocAligned (string members excluded by whoever compares).
using EncoderBytes = std::array<unsigned char, sizeof(Ormis::QetVenc)>;
std::vector<EncoderBytes> Encoders();
using ImageBytes = std::array<unsigned char, sizeof(Ormis::ImageData)>;
std::vector<ImageBytes> AllocatedImages();
std::vector<ImageBytes> Frames();
/// True when every stream record was all zero at its GetStream.
bool StreamsWereZero();
/// The pixels of the last frame were `bytes` zeros.
bool LastFrameWasZero(std::size_t bytes);

/// The context given to QetInitialize and its parameters, as they were.
Ormis::QetContext InitializedContext();
Ormis::QetContextParameters InitializedParameters();

}  // namespace fakePlatform
