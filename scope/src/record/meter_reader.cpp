// SPDX-License-Identifier: Apache-2.0
#include "meter_reader.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "engines.h"
#include "errors.h"
#include "figures.h"
#include "latency_buckets.h"
#include "run_error.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr std::size_t kLargestPacket = sizeof(ThreadSamplePacket) + kBucketCount * sizeof(BucketCount);

template <typename Packet>
Packet Unpack(const char* bytes, std::size_t size, const char* name) {
  if (size < sizeof(Packet)) {
    throw UserError(std::string("the meter sent a ") + name + " packet of " + std::to_string(size) +
                    " bytes, expected " + std::to_string(sizeof(Packet)));
  }
  Packet packet;
  std::memcpy(&packet, bytes, sizeof(packet));
  return packet;
}

// The middle of the highest bucket may be above the longest latency in it.
void SetLatencies(const Histogram& latencies, std::uint64_t maxNs, SecondWork& work) {
  work.maxNs = maxNs;
  work.p50Ns = std::min(latencies.Percentile(0.50), maxNs);
  work.p99Ns = std::min(latencies.Percentile(0.99), maxNs);
}

void AddTo(EngineSample& engine, const Sample& sample) {
  engine.threads += sample.operations != 0 ? 1 : 0;
  engine.operations += sample.operations;
  engine.busyNs += sample.busyNs;
  engine.bytes = Sum(engine.bytes, sample.bytes);
  engine.failures += sample.failures;
  engine.maxNs = std::max(engine.maxNs, sample.maxNs);
}

}  // namespace

MeterReader::MeterReader(std::uint64_t startNs) : startNs_(startNs) {
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error(std::string("cannot make the meter's socket: ") + std::strerror(errno));
  }
  socket_ = ends[0];
  childEnd_ = ends[1];
  // Room for one second of forty workers, in case this side is a second late. The system may grant less.
  const int bytes = 4 << 20;
  (void)setsockopt(childEnd_, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
}

MeterReader::~MeterReader() {
  CloseChildEnd();
  if (socket_ >= 0) (void)close(socket_);
}

void MeterReader::CloseChildEnd() {
  if (childEnd_ >= 0) (void)close(childEnd_);
  childEnd_ = -1;
}

void MeterReader::Read(std::vector<MeterSecond>& seconds) {
  std::vector<char> bytes(kLargestPacket + 1);
  for (int packets = 0; socket_ >= 0 && packets < kMostPackets; ++packets) {
    const ssize_t size = recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (size <= 0) {
      (void)close(socket_);
      socket_ = -1;
      // The program's end cut this second short. It is kept.
      if (!pending_.samples.empty()) Flush(startNs_, seconds);
      return;
    }
    Take(bytes.data(), static_cast<std::size_t>(size), seconds);
  }
}

void MeterReader::Take(const char* bytes, std::size_t size, std::vector<MeterSecond>& seconds) {
  const auto header = Unpack<PacketHeader>(bytes, size, "meter");
  if (header.magic != kMeterMagic) {
    throw UserError(
        "the meter's socket received a packet that is not from a meter: it has another magic number");
  }
  if (header.version != kMeterVersion) {
    throw UserError("the meter was built for another version: it sends version " +
                    std::to_string(header.version) + ", this program reads version " +
                    std::to_string(kMeterVersion) + ". Use libstress_scope.so of the same build.");
  }
  if (header.type == PacketType::kHello) {
    const auto hello = Unpack<HelloPacket>(bytes, size, "hello");
    // Another program under the same meter does not belong to this run.
    if (processId_ != 0) return;
    if (hello.bucketCount != kBucketCount) {
      throw UserError("the meter has " + std::to_string(hello.bucketCount) + " latency buckets, expected " +
                      std::to_string(kBucketCount) + ". Use libstress_scope.so of the same build.");
    }
    processId_ = header.processId;
    platformPath_.assign(hello.platformPath, strnlen(hello.platformPath, sizeof(hello.platformPath)));
    return;
  }
  if (header.processId != processId_) return;
  if (header.type == PacketType::kThreadSample) {
    TakeSample(bytes, size, seconds);
  } else if (header.type == PacketType::kEndOfSecond) {
    const auto end = Unpack<EndOfSecondPacket>(bytes, size, "end");
    last_ = end.last != 0;
    delayedSamples_ = end.delayedSamples;
    unmeasured_ = end.unmeasured;
    Flush(header.timeNs, seconds);
  } else if (header.type == PacketType::kError) {
    TakeError(bytes, size);
  } else if (header.type == PacketType::kCheck) {
    TakeCheck(bytes, size);
  } else if (header.type == PacketType::kStreams) {
    TakeStreams(bytes, size);
  } else if (header.type == PacketType::kDeadline) {
    TakeDeadline(bytes, size);
  } else if (header.type == PacketType::kFill) {
    TakeFill(bytes, size);
  } else {
    throw UserError("the meter sent a packet of the unknown type " +
                    std::to_string(static_cast<std::uint32_t>(header.type)));
  }
}

void MeterReader::TakeSample(const char* bytes, std::size_t size, std::vector<MeterSecond>& seconds) {
  const auto packet = Unpack<ThreadSamplePacket>(bytes, size, "sample");
  const auto row = static_cast<std::size_t>(packet.engine);
  if (row >= Engines().size() || size != sizeof(packet) + packet.buckets * sizeof(BucketCount)) {
    throw UserError("the meter sent a sample that cannot be read: engine " + std::to_string(row) + ", " +
                    std::to_string(packet.buckets) + " buckets in " + std::to_string(size) + " bytes");
  }
  const std::string engine = Engines()[row].id;
  Histogram second;
  for (std::uint32_t i = 0; i < packet.buckets; ++i) {
    BucketCount entry;
    std::memcpy(&entry, bytes + sizeof(packet) + i * sizeof(entry), sizeof(entry));
    if (entry.bucket >= kBucketCount) {
      throw UserError("the meter sent a count for bucket " + std::to_string(entry.bucket) + " of " +
                      std::to_string(kBucketCount));
    }
    second.Add(entry.bucket, entry.count);
  }
  const auto thread = static_cast<int>(packet.thread);
  // A thread has one sample a second. Here the queue was full when the previous second ended.
  if (std::any_of(pending_.samples.begin(), pending_.samples.end(),
                  [&](const Sample& sample) { return sample.engine == engine && sample.thread == thread; })) {
    Flush(startNs_, seconds);
  }
  latencies_[{engine, thread}].Add(second);
  pendingLatencies_[engine].Add(second);
  pending_.timeS = static_cast<double>(packet.header.timeNs - startNs_) * 1e-9;
  // A set-up ends early. Rows for the seconds after it would be empty.
  if (!Engines()[row].load && packet.operations == 0 && packet.failures == 0) return;

  Sample sample;
  sample.engine = engine;
  sample.thread = thread;
  sample.operations = packet.operations;
  sample.busyNs = packet.busyNs;
  if (packet.bytesKnown != 0) sample.bytes = packet.bytes;
  sample.failures = packet.failures;
  if (packet.operations != 0)
    SetLatencies(second, std::max(packet.maxNs, BucketLow(second.Buckets().rbegin()->first)), sample);
  pending_.samples.push_back(sample);
}

void MeterReader::TakeError(const char* bytes, std::size_t size) {
  const auto packet = Unpack<ErrorPacket>(bytes, size, "error");
  const auto row = static_cast<std::size_t>(packet.engine);
  const auto kind = static_cast<std::size_t>(packet.kind);
  if (row >= Engines().size() || kind >= kErrorKinds) {
    throw UserError("the meter sent an error that cannot be read: engine " + std::to_string(row) + ", kind " +
                    std::to_string(kind));
  }
  static constexpr const char* kWhat[kErrorKinds] = {"copy", "source", "result", "threads", "passing"};
  RunError error;
  if (packet.header.timeNs > startNs_) {
    error.timeS = static_cast<double>(packet.header.timeNs - startNs_) * 1e-9;
  }
  error.source = Engines()[row].id;
  error.thread = packet.thread;
  error.operation = packet.operation;
  error.what = kWhat[kind];
  if (packet.kind == ErrorKind::kThreads) error.note = "compared with thread " + std::to_string(packet.other);
  if (packet.placed != 0) {
    error.offset = packet.offset;
    error.address = Format("0x%llx", static_cast<unsigned long long>(packet.address));
    error.expected = Format("0x%016llx", static_cast<unsigned long long>(packet.expected));
    error.found = Format("0x%016llx", static_cast<unsigned long long>(packet.found));
    error.bits = packet.bits;
  }
  errors_.push_back(std::move(error));
}

void MeterReader::TakeCheck(const char* bytes, std::size_t size) {
  const auto packet = Unpack<CheckPacket>(bytes, size, "check");
  const auto row = static_cast<std::size_t>(packet.engine);
  const auto state = static_cast<std::size_t>(packet.state);
  if (row >= Engines().size() || state >= kCheckStates) {
    throw UserError("the meter sent a check that cannot be read: engine " + std::to_string(row) + ", state " +
                    std::to_string(state));
  }
  static constexpr const char* kStates[kCheckStates] = {"learning",   "judged",         kPartlyJudged,
                                                        "alone",      "sources change", "not deterministic",
                                                        "unreadable", "unknown"};
  checks_[row] = {Engines()[row].id,  kStates[state],
                  packet.operations,  packet.checked,
                  packet.whole,       packet.bytes,
                  packet.allBytes,    packet.errors,
                  packet.unlisted,    static_cast<double>(packet.checkNs) * 1e-9,
                  packet.threads,     packet.judgedThreads,
                  packet.leftOut != 0};
}

std::vector<EngineCheck> MeterReader::Checks() const {
  std::vector<EngineCheck> checks;
  for (const auto& [row, check] : checks_) checks.push_back(check);
  return checks;
}

void MeterReader::TakeStreams(const char* bytes, std::size_t size) {
  const auto packet = Unpack<StreamsPacket>(bytes, size, "streams");
  const auto text = [](std::uint64_t hash) {
    return Format("%016llx", static_cast<unsigned long long>(hash));
  };
  StreamHashes& streams = streams_[text(packet.key)];
  streams = {text(packet.key), {}};
  for (const std::uint64_t hash : packet.hashes) streams.groups.push_back(hash == 0 ? "" : text(hash));
  while (!streams.groups.empty() && streams.groups.back().empty()) streams.groups.pop_back();
}

std::vector<StreamHashes> MeterReader::Streams() const {
  std::vector<StreamHashes> streams;
  for (const auto& [key, hashes] : streams_) streams.push_back(hashes);
  return streams;
}

void MeterReader::TakeFill(const char* bytes, std::size_t size) {
  const auto packet = Unpack<FillPacket>(bytes, size, "fill");
  const auto row = static_cast<std::size_t>(packet.engine);
  if (row >= Engines().size()) {
    throw UserError("the meter sent counts of filled buffers that cannot be read: engine " +
                    std::to_string(row));
  }
  filled_[row] = {Engines()[row].id, packet.buffers, packet.bytes, packet.refused};
}

std::vector<EngineFill> MeterReader::Filled() const {
  std::vector<EngineFill> filled;
  for (const auto& [row, fill] : filled_) filled.push_back(fill);
  return filled;
}

void MeterReader::TakeDeadline(const char* bytes, std::size_t size) {
  const auto packet = Unpack<DeadlinePacket>(bytes, size, "deadline");
  const auto row = static_cast<std::size_t>(packet.engine);
  if (row >= Engines().size()) {
    throw UserError("the meter sent a deadline that cannot be read: engine " + std::to_string(row));
  }
  deadlines_[row] = {Engines()[row].id, packet.deadlineNs, packet.operations,
                     packet.missed,     packet.longestRun, 0};
}

std::vector<EngineDeadline> MeterReader::Deadlines() const {
  std::vector<EngineDeadline> deadlines;
  for (const auto& [row, deadline] : deadlines_) {
    Histogram all;
    for (const auto& [key, histogram] : latencies_) {
      if (key.first == deadline.engine) all.Add(histogram);
    }
    deadlines.push_back(deadline);
    deadlines.back().p999Ns = all.Percentile(0.999);
  }
  return deadlines;
}

void MeterReader::Flush(std::uint64_t timeNs, std::vector<MeterSecond>& seconds) {
  if (timeNs > startNs_) pending_.timeS = static_cast<double>(timeNs - startNs_) * 1e-9;
  pending_.second = second_ = SecondAfter(second_, pending_.timeS - timeS_);
  timeS_ = pending_.timeS;
  std::sort(pending_.samples.begin(), pending_.samples.end(), [](const Sample& left, const Sample& right) {
    return std::tie(left.engine, left.thread) < std::tie(right.engine, right.thread);
  });
  for (Sample& sample : pending_.samples) {
    sample.second = second_;
    sample.timeS = timeS_;
    std::vector<EngineSample>& engines = pending_.engines;
    if (engines.empty() || engines.back().engine != sample.engine) {
      engines.emplace_back();
      engines.back().second = second_;
      engines.back().timeS = timeS_;
      engines.back().engine = sample.engine;
      engines.back().bytes = 0;
    }
    AddTo(engines.back(), sample);
  }
  for (EngineSample& engine : pending_.engines) {
    SetLatencies(pendingLatencies_[engine.engine], engine.maxNs, engine);
  }
  pendingLatencies_.clear();
  seconds.push_back(std::exchange(pending_, {}));
}

std::vector<HistogramRow> MeterReader::HistogramRows() const {
  std::vector<HistogramRow> rows;
  for (const auto& [key, histogram] : latencies_) {
    for (const auto& [bucket, count] : histogram.Buckets()) {
      rows.push_back({key.first, key.second, BucketLow(bucket), BucketHigh(bucket), count});
    }
  }
  return rows;
}

}  // namespace scope
