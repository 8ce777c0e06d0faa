// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The H.264 encoder and the streams that it makes.

#include <cstddef>
#include <cstdint>
#include <map>

#include "ormis/export.h"
#include "ormis/qet_image.h"

/// One packet of an encoded stream: 48 bytes.
struct ux_venc_packet {
  const std::uint8_t* data;   ///< H.264 byte stream (Annex B start codes); the encoder's memory
  std::uint64_t sizeBytes;    ///< bytes at `data`
  std::int64_t frameIndex;    ///< number of the encoded frame, from 0
  std::uint32_t isKeyFrame;   ///< 1 when decoding can start here, else 0
  std::uint32_t reserved0;    ///< the platform's
  std::uint64_t reserved[2];  ///< the platform's
};
static_assert(sizeof(ux_venc_packet) == 48, "size of ux_venc_packet");

/// One encoded stream with its packets: 456 bytes. Callers zero it before GetStream and pass the same record
/// to ReleaseStream. The encoder sets the fields. The packets are valid until ReleaseStream.
struct ux_venc_stream {
  std::uint64_t streamId;     ///< names the stream for ReleaseStream; 0: none
  std::uint32_t packetCount;  ///< packets in use, at most 8
  std::uint32_t channel;      ///< channel of the encoder
  std::uint64_t totalBytes;   ///< of all packets
  std::uint64_t reserved[6];  ///< the platform's
  ux_venc_packet packets[8];  ///< the first `packetCount` of them are in use
};
static_assert(sizeof(ux_venc_stream) == 456, "size of ux_venc_stream");
static_assert(offsetof(ux_venc_stream, packets) == 72, "layout of ux_venc_stream");

namespace Ormis {

/// A video encoder. Set the configuration members and call Init, then SendFrame, GetStream and ReleaseStream
/// for every frame. The constructor is inline; the destructor is a library call and ends the encoder.
/// Members whose meaning is known have a name. The others are named by their offset and are the encoder's
/// own: set them to the values that it documents, and to nothing else. Threads: one thread at a time per
/// encoder, with a current context.
class ORMIS_API QetVenc {
 public:
  // Not defaulted, because the eight bytes at 0x88 stay unset: with a defaulted constructor,
  // value-initialisation would zero them.
  QetVenc() {}  // NOLINT(modernize-use-equals-default)

  /// Ends the encoder in any state and frees its streams. Needs no context and no initialised platform.
  ~QetVenc();

  QetVenc(const QetVenc&) = delete;
  QetVenc& operator=(const QetVenc&) = delete;

  /// Opens the encoder with the present values of the members. Later changes of them have no effect.
  /// Requires: a current context; not initialised before; width and height even, at least 2 and at most
  /// maxWidth and maxHeight; bitrateKbps, frameRate, gopSize and streamBufferBytes above 0. The host accepts
  /// at most 16384 pixels a side, 2147483 kbit/s, 100000 frames per second and a gopSize of 2147483647; its
  /// engine may refuse combinations of these. Returns 0, or a code and leaves the encoder as it was.
  std::int32_t Init();

  /// Encodes one frame. It has width and height of this encoder, image type 2 and at least width x height x 3
  /// / 2 bytes at data: in the caller's memory (bufferMode 0), or in a live image of QetImageMallocAligned
  /// (bufferMode 1, with an unchanged record). When the call returns, the frame has been read, even if
  /// another thread destroys the image meanwhile, and its stream is ready. Streams are kept until they are
  /// released. Returns kQetBusy when too many are kept (the host: 16) or their bytes have reached
  /// streamBufferBytes. Requires: a current context. Returns 0, or a code.
  std::int32_t SendFrame(const ImageData& frame);

  /// Fetches the stream of the oldest frame whose stream was not fetched. Its packets are valid until
  /// ReleaseStream, the encoder's end or QetRelease. Requires: a current context. Returns 0, or a code
  /// (kQetNoStream where no stream waits) and leaves `stream` as it was.
  std::int32_t GetStream(ux_venc_stream& stream);

  /// Frees the buffers of a fetched stream and zeroes the record. To be called once for every successful
  /// GetStream. Requires: a current context. Returns 0, or a code (kQetNoStream for a stream that was not
  /// fetched or was released before).
  std::int32_t ReleaseStream(ux_venc_stream& stream);

  std::uint64_t encoderId = 0;                       ///< 0x00, the encoder's own; 0: not initialised
  std::uint64_t offset08[16] = {};                   ///< 0x08
  std::uint64_t offset88;                            ///< 0x88, left unset
  std::uint32_t offset90[11] = {};                   ///< 0x90
  std::uint32_t offsetBC = 0;                        ///< 0xBC
  std::uint32_t offsetC0 = 0;                        ///< 0xC0
  std::uint32_t offsetC4 = 0;                        ///< 0xC4
  std::uint32_t width = 0;                           ///< 0xC8, pixels
  std::uint32_t height = 0;                          ///< 0xCC, pixels
  std::uint32_t channel = 0;                         ///< 0xD0, encoder channel
  std::uint32_t offsetD4 = 0;                        ///< 0xD4
  std::uint32_t bitrateKbps = 0;                     ///< 0xD8, target, 1000 bit/s
  std::uint32_t offsetDC = 0;                        ///< 0xDC
  std::uint32_t maxWidth = 0;                        ///< 0xE0, pixels
  std::uint32_t maxHeight = 0;                       ///< 0xE4, pixels
  std::uint32_t offsetE8 = 0;                        ///< 0xE8
  std::uint32_t streamBufferBytes = 0;               ///< 0xEC, room for encoded data
  std::uint32_t offsetF0 = 0;                        ///< 0xF0
  std::uint32_t offsetF4 = 0;                        ///< 0xF4
  std::uint32_t offsetF8 = 0;                        ///< 0xF8
  std::uint32_t offsetFC = 0;                        ///< 0xFC
  std::map<std::uint32_t, std::uint64_t> offset100;  ///< 0x100, empty
  std::uint32_t offset118 = 0;                       ///< 0x118
  std::uint32_t offset11C = 0;                       ///< 0x11C
  std::uint64_t offset120 = 0;                       ///< 0x120
  std::uint32_t offset128 = 0;                       ///< 0x128
  std::uint32_t offset12C = 0;                       ///< 0x12C
  std::uint32_t frameRate = 0;                       ///< 0x130, frames per second that the bit rate refers to
  std::uint32_t gopSize = 0;                         ///< 0x134, frames from one key frame to the next
};
static_assert(sizeof(QetVenc) == 0x138, "size of QetVenc");
#define ORMIS_ASSERT_OFFSET(member, at) static_assert(offsetof(QetVenc, member) == (at), "offset of " #member)
ORMIS_ASSERT_OFFSET(encoderId, 0x00);
ORMIS_ASSERT_OFFSET(offset08, 0x08);
ORMIS_ASSERT_OFFSET(offset88, 0x88);
ORMIS_ASSERT_OFFSET(offset90, 0x90);
ORMIS_ASSERT_OFFSET(offsetBC, 0xBC);
ORMIS_ASSERT_OFFSET(offsetC0, 0xC0);
ORMIS_ASSERT_OFFSET(offsetC4, 0xC4);
ORMIS_ASSERT_OFFSET(width, 0xC8);
ORMIS_ASSERT_OFFSET(height, 0xCC);
ORMIS_ASSERT_OFFSET(channel, 0xD0);
ORMIS_ASSERT_OFFSET(offsetD4, 0xD4);
ORMIS_ASSERT_OFFSET(bitrateKbps, 0xD8);
ORMIS_ASSERT_OFFSET(offsetDC, 0xDC);
ORMIS_ASSERT_OFFSET(maxWidth, 0xE0);
ORMIS_ASSERT_OFFSET(maxHeight, 0xE4);
ORMIS_ASSERT_OFFSET(offsetE8, 0xE8);
ORMIS_ASSERT_OFFSET(streamBufferBytes, 0xEC);
ORMIS_ASSERT_OFFSET(offsetF0, 0xF0);
ORMIS_ASSERT_OFFSET(offsetF4, 0xF4);
ORMIS_ASSERT_OFFSET(offsetF8, 0xF8);
ORMIS_ASSERT_OFFSET(offsetFC, 0xFC);
ORMIS_ASSERT_OFFSET(offset100, 0x100);
ORMIS_ASSERT_OFFSET(offset118, 0x118);
ORMIS_ASSERT_OFFSET(offset11C, 0x11C);
ORMIS_ASSERT_OFFSET(offset120, 0x120);
ORMIS_ASSERT_OFFSET(offset128, 0x128);
ORMIS_ASSERT_OFFSET(offset12C, 0x12C);
ORMIS_ASSERT_OFFSET(frameRate, 0x130);
ORMIS_ASSERT_OFFSET(gopSize, 0x134);
#undef ORMIS_ASSERT_OFFSET
static_assert(sizeof(std::map<std::uint32_t, std::uint64_t>) == 24, "size of the map at 0x100");

}  // namespace Ormis
