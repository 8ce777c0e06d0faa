// SPDX-License-Identifier: Apache-2.0

// The input is a script of image operations on four records; most operations are wrong. The harness keeps a
// model of what is alive, and derives from it which call has to succeed. A step is one letter and its
// arguments (a byte each; W and H: two bytes, N: four, little-endian). A and B are records:
//
//   n A W H TYPE       a fresh record of that size and type; M allocates it as well
//   o A W H TYPE OFF   a record of the caller's own memory, which begins OFF x 16 bytes into it
//   w A N  h A N  t A N  m A N  s A N   sets width, height, imageType, bufferMode, dataSize
//   p A KIND B OFF     sets data: 0 null, 1 caller's memory + OFF, 2 data of B + OFF, 3 memory freed before
//   = A B              A becomes a copy of B
//   a A   d A          QetImageMallocAligned, QetImageDestroy
//   c A B              QetMemcpyToKivu from A to B
//   r A B CH I T       QetImageResize from A to B on channel CH; I other than 0: interpolation, T: time limit
//   k CH  K CH         QetCreateChannel, QetDestroyChannel
//   x                  destroys the thread's context, or makes a new one
//
// Other bytes are skipped.
#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fake_log.h"
#include "fuzz_input.h"
#include "limited_memory.h"
#include "ormis/ormis.h"
#include "require.h"

namespace {

using Ormis::ImageData;

constexpr std::size_t kRecords = 4;
constexpr std::size_t kUserBytes = 65536;
constexpr std::uint32_t kMaxSide = 1U << 24;
// Tables of a resize grow with the sides. Above this side one of them may be too large for LimitedMemory.
constexpr std::uint32_t kSideThatAlwaysFits = 1U << 16;
// What one input may keep alive and copy. These are limits of the harness; the platform has none.
constexpr std::uint64_t kMaxLiveBytes = std::uint64_t{16} << 20;
constexpr std::uint64_t kMaxWorkBytes = std::uint64_t{16} << 20;

struct Live {
  std::uint64_t id;  ///< from the platform, in the record
  std::uint32_t width;
  std::uint32_t height;
  std::uint32_t type;
  std::uint32_t bytes;
};

/// The bytes of an image, or nothing where there can be no such image.
std::optional<std::uint32_t> BytesOf(const ImageData& record) {
  const std::uint64_t pixels = std::uint64_t{record.width} * record.height;
  if (pixels == 0 || pixels > UINT32_MAX) return {};
  std::uint64_t bytes = 0;
  if (record.imageType == 0 || record.imageType == 1) {
    bytes = pixels * 3;
  } else if (record.imageType == 2 || record.imageType == 9) {
    if (record.width % 2 != 0 || record.height % 2 != 0) return {};
    bytes = pixels / 2 * 3;
  } else if (record.imageType == 10 || record.imageType == 11) {
    if (record.width % 2 != 0) return {};
    bytes = pixels * 2;
  } else if (record.imageType >= 12 && record.imageType <= 15) {
    bytes = pixels * 4;
  } else {
    return {};
  }
  if (bytes > UINT32_MAX) return {};
  return static_cast<std::uint32_t>(bytes);
}

bool Same(const ImageData& a, const ImageData& b) {
  return a.offset00 == b.offset00 && a.offset08 == b.offset08 && a.width == b.width && a.height == b.height &&
         a.dataSize == b.dataSize && a.bufferMode == b.bufferMode && a.imageType == b.imageType &&
         a.data == b.data && std::equal(std::begin(a.offset40), std::end(a.offset40), std::begin(b.offset40));
}

enum class Expect : std::uint8_t { kSuccess, kFailure, kSuccessOrNoMemory };

/// Runs an operation. Checks its status, and that a failure is logged in one line that names the operation.
template <typename Call>
bool Succeeds(const char* operation, Expect expect, Call&& call) {
  fakeLog::Reset();
  const std::int32_t status = call();
  const std::vector<std::string> errors = fakeLog::Texts(ara::log::LogLevel::kError);
  const std::string answer = std::string(operation) + " answers " + std::to_string(status) +
                             (errors.empty() ? "" : ": " + errors[0]);
  FUZZ_REQUIRE(
      status == Ormis::kQetOk || (status >= Ormis::kQetInvalidArgument && status < Ormis::kQetInternal),
      answer);
  FUZZ_REQUIRE(errors.size() == (status == Ormis::kQetOk ? 0 : 1), answer);
  FUZZ_REQUIRE(errors.empty() || errors[0].rfind(std::string(operation) + ": ", 0) == 0, answer);
  const bool success = status == Ormis::kQetOk;
  FUZZ_REQUIRE(expect != Expect::kSuccess || success, answer);
  FUZZ_REQUIRE(expect != Expect::kFailure || !success, answer);
  FUZZ_REQUIRE(expect != Expect::kSuccessOrNoMemory || success || status == Ormis::kQetOutOfMemory, answer);
  return success;
}

class Script {
 public:
  Script(const std::uint8_t* data, std::size_t size) : input_(data, size), userMemory_(kUserBytes, 0x5a) {
    FUZZ_REQUIRE(Ormis::QetInitialize(process_, {}) == Ormis::kQetOk, "QetInitialize");
    ToggleContext();
  }
  ~Script() { FUZZ_REQUIRE(Ormis::QetRelease(process_) == Ormis::kQetOk, "QetRelease"); }
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;

  void Play() {
    while (!input_.Empty() && workBytes_ < kMaxWorkBytes) Step();
  }

 private:
  ImageData& NextRecord() { return records_[input_.Byte() % kRecords]; }

  void Step() {
    switch (input_.Byte()) {
      case 'n':
        FreshRecord(Ormis::kQetBufferPlatform);
        break;
      case 'M':
        Allocate(FreshRecord(Ormis::kQetBufferPlatform));
        break;
      case 'o':
        OwnRecord(FreshRecord(Ormis::kQetBufferUser));
        break;
      case 'w':
        NextRecord().width = input_.Number();
        break;
      case 'h':
        NextRecord().height = input_.Number();
        break;
      case 't':
        NextRecord().imageType = input_.Number();
        break;
      case 'm':
        NextRecord().bufferMode = input_.Number();
        break;
      case 's':
        NextRecord().dataSize = input_.Number();
        break;
      case 'p':
        PointRecord(NextRecord());
        break;
      case '=': {
        ImageData& record = NextRecord();
        record = ImageData(NextRecord());
        break;
      }
      case 'a':
        Allocate(NextRecord());
        break;
      case 'd':
        Destroy(NextRecord());
        break;
      case 'c': {
        ImageData& source = NextRecord();
        Copy(source, NextRecord());
        break;
      }
      case 'r': {
        ImageData& source = NextRecord();
        Resize(source, NextRecord());
        break;
      }
      case 'k':
        CreateChannel(Channel());
        break;
      case 'K':
        DestroyChannel(Channel());
        break;
      case 'x':
        ToggleContext();
        break;
      default:
        break;
    }
  }

  // Numbers around the 256 channels.
  int Channel() { return int{input_.Byte()} - 2; }

  ImageData& FreshRecord(std::uint32_t bufferMode) {
    ImageData& record = NextRecord();
    record = ImageData{};
    record.bufferMode = bufferMode;
    record.width = input_.Number(2);
    record.height = input_.Number(2);
    record.imageType = input_.Byte();
    return record;
  }

  void OwnRecord(ImageData& record) {
    record.data = userMemory_.data() + std::size_t{input_.Byte()} * 16;
    record.dataSize = BytesOf(record).value_or(0);
  }

  void PointRecord(ImageData& record) {
    const std::uint8_t kind = input_.Byte();
    std::uint8_t* const other = NextRecord().data;
    const std::uint8_t offset = input_.Byte();
    record.data = kind == 0   ? nullptr
                  : kind == 1 ? userMemory_.data() + offset
                  : kind == 2 ? (other == nullptr ? nullptr : other + offset)
                              : freed_;
  }

  void Allocate(ImageData& record) {
    const std::optional<std::uint32_t> bytes = BytesOf(record);
    if (bytes && *bytes <= LimitedMemory::kMaxBytes && liveBytes_ + *bytes > kMaxLiveBytes) return;
    const bool valid =
        bound_ && record.bufferMode == Ormis::kQetBufferPlatform && record.data == nullptr && bytes;
    const bool fits = bytes.value_or(0) <= LimitedMemory::kMaxBytes;
    const ImageData before = record;
    if (!Succeeds("QetImageMallocAligned", valid && fits ? Expect::kSuccess : Expect::kFailure,
                  [&] { return Ormis::QetImageMallocAligned(record); })) {
      FUZZ_REQUIRE(Same(record, before), "a record that was refused has changed");
      return;
    }
    FUZZ_REQUIRE(record.dataSize == *bytes, std::to_string(record.dataSize));
    FUZZ_REQUIRE(reinterpret_cast<std::uintptr_t>(record.data) % 4096 == 0, "alignment");
    FUZZ_REQUIRE(live_.count(record.data) == 0, "memory that is in use");
    FUZZ_REQUIRE(std::all_of(record.data, record.data + *bytes, [](std::uint8_t byte) { return byte == 0; }),
                 "zeroed");
    FUZZ_REQUIRE(ids_.insert(record.offset00).second, "a number that was given out before");
    live_[record.data] = {record.offset00, record.width, record.height, record.imageType, *bytes};
    liveBytes_ += *bytes;
    workBytes_ += *bytes;
  }

  void Destroy(ImageData& record) {
    const auto found = live_.find(record.data);
    const bool valid = bound_ && found != live_.end() && found->second.id == record.offset00;
    const ImageData before = record;
    if (!Succeeds("QetImageDestroy", valid ? Expect::kSuccess : Expect::kFailure,
                  [&] { return Ormis::QetImageDestroy(record); })) {
      FUZZ_REQUIRE(Same(record, before), "a record that was refused has changed");
      return;
    }
    FUZZ_REQUIRE(record.data == nullptr && record.dataSize == 0 && record.offset00 == 0,
                 "an image that is gone");
    freed_ = before.data;
    liveBytes_ -= found->second.bytes;
    live_.erase(found);
  }

  /// The memory of a record of the platform's, or null where the record differs from what was allocated.
  const Live* LiveOf(const ImageData& record) const {
    const auto found = live_.find(record.data);
    if (record.bufferMode != Ormis::kQetBufferPlatform || found == live_.end()) return nullptr;
    const Live& live = found->second;
    const bool same = record.offset00 == live.id && record.width == live.width &&
                      record.height == live.height && record.imageType == live.type &&
                      record.dataSize == live.bytes;
    return same ? &live : nullptr;
  }

  /// The platform cannot check a record of the caller's own memory, so `data` must point to that many
  /// readable bytes.
  std::uint64_t ReadableBytes(const std::uint8_t* data) const {
    const auto within = [data](const std::uint8_t* begin, std::size_t bytes) -> std::uint64_t {
      const auto at = reinterpret_cast<std::uintptr_t>(data);
      const auto first = reinterpret_cast<std::uintptr_t>(begin);
      return at >= first && at < first + bytes ? first + bytes - at : 0;
    };
    std::uint64_t bytes = within(userMemory_.data(), userMemory_.size());
    for (const auto& [begin, live] : live_) bytes = std::max(bytes, within(begin, live.bytes));
    return bytes;
  }

  bool IsSource(ImageData& record) const {
    if (record.bufferMode != Ormis::kQetBufferUser) return LiveOf(record) != nullptr;
    const std::uint64_t readable = ReadableBytes(record.data);
    if (readable == 0) record.data = nullptr;
    if (record.dataSize > readable) record.dataSize = static_cast<std::uint32_t>(readable);
    const std::optional<std::uint32_t> bytes = BytesOf(record);
    return record.data != nullptr && bytes && *bytes <= record.dataSize;
  }

  void Copy(ImageData& source, ImageData& destination) {
    const bool valid = IsSource(source) && LiveOf(destination) != nullptr && bound_ &&
                       source.imageType == destination.imageType && source.width == destination.width &&
                       source.height == destination.height;
    std::vector<std::uint8_t> pixels;
    if (valid) {
      workBytes_ += destination.dataSize;
      std::memset(destination.data, static_cast<int>(workBytes_ & 0xff), destination.dataSize);
      pixels.assign(source.data, source.data + destination.dataSize);
    }
    if (!Succeeds("QetMemcpyToKivu", valid ? Expect::kSuccess : Expect::kFailure,
                  [&] { return Ormis::QetMemcpyToKivu(source, destination); })) {
      return;
    }
    FUZZ_REQUIRE(std::equal(pixels.begin(), pixels.end(), destination.data), "pixels as they were copied");
  }

  void Resize(const ImageData& source, const ImageData& destination) {
    const int channel = Channel();
    const std::uint8_t changedInterpolation = input_.Byte();
    const std::uint8_t changedTimeLimit = input_.Byte();
    const auto interpolation = static_cast<Ormis::QetImageInterpolationType>(
        changedInterpolation == 0 ? Ormis::kQetInterpolationArea : changedInterpolation);
    const int timeLimit = changedTimeLimit == 0 ? -1 : changedTimeLimit;
    const std::uint32_t side = std::max({source.width, source.height, destination.width, destination.height});
    const bool valid =
        bound_ && channels_.count(channel) != 0 && interpolation == Ormis::kQetInterpolationArea &&
        timeLimit == -1 && LiveOf(source) != nullptr && LiveOf(destination) != nullptr &&
        source.data != destination.data && source.imageType == destination.imageType && side <= kMaxSide;
    const std::uint8_t shade = input_.Byte();
    if (valid) {
      workBytes_ += std::uint64_t{source.dataSize} + destination.dataSize;
      std::memset(source.data, shade, source.dataSize);
      std::memset(destination.data, static_cast<std::uint8_t>(~shade), destination.dataSize);
    }
    const Expect expect = !valid                        ? Expect::kFailure
                          : side <= kSideThatAlwaysFits ? Expect::kSuccess
                                                        : Expect::kSuccessOrNoMemory;
    if (!Succeeds("QetImageResize", expect, [&] {
          return Ormis::QetImageResize(channel, source, destination, interpolation, timeLimit);
        })) {
      return;
    }
    FUZZ_REQUIRE(std::all_of(destination.data, destination.data + destination.dataSize,
                             [shade](std::uint8_t byte) { return byte == shade; }),
                 "a picture of one shade keeps it at every size");
  }

  void CreateChannel(int wish) {
    int channel = wish;
    const bool valid = bound_ && channels_.size() < 256;
    if (!Succeeds("QetCreateChannel", valid ? Expect::kSuccess : Expect::kFailure,
                  [&] { return Ormis::QetCreateChannel(channel); })) {
      FUZZ_REQUIRE(channel == wish, std::to_string(channel));
      return;
    }
    FUZZ_REQUIRE(channel >= 0 && channel < 256 && channels_.insert(channel).second, std::to_string(channel));
  }

  void DestroyChannel(int channel) {
    const bool valid = bound_ && channels_.count(channel) != 0;
    if (Succeeds("QetDestroyChannel", valid ? Expect::kSuccess : Expect::kFailure,
                 [&] { return Ormis::QetDestroyChannel(channel); })) {
      channels_.erase(channel);
    }
  }

  void ToggleContext() {
    if (bound_) {
      FUZZ_REQUIRE(Ormis::QetDestroyContext(context_) == Ormis::kQetOk, "QetDestroyContext");
    } else {
      FUZZ_REQUIRE(Ormis::QetCreateContext(context_) == Ormis::kQetOk, "QetCreateContext");
      FUZZ_REQUIRE(Ormis::QetSetCurrentContext(context_) == Ormis::kQetOk, "QetSetCurrentContext");
    }
    bound_ = !bound_;
  }

  FuzzInput input_;
  std::vector<std::uint8_t> userMemory_;
  Ormis::QetContext process_;
  Ormis::QetContext context_;
  bool bound_ = false;
  ImageData records_[kRecords];
  std::map<std::uint8_t*, Live> live_;
  std::set<std::uint64_t> ids_ = {0};
  std::set<int> channels_;
  std::uint8_t* freed_ = nullptr;
  std::uint64_t liveBytes_ = 0;
  std::uint64_t workBytes_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const LimitedMemory limit;
  Script script(data, size);
  script.Play();
  return 0;
}
