// SPDX-License-Identifier: Apache-2.0

/// Stands for the benchmark with the meter in it: sends the packets and prints the lines of a script.
/// usage: scripted_meter CONFIG SCRIPT
/// A line of the script is one of
///   sample ENGINE THREAD [BUCKET COUNT]...   work of a thread on the engine with this number
///   deadline ENGINE OPERATIONS MISSED       counts of an engine whose deadline the environment names
///   fill ENGINE BUFFERS REFUSED             counts of an engine whose sources the environment has filled
///   second MS                                end of a second, this long after the start
///   print LINE                               to standard output
///   await FILE                               until there is one, at most a minute
/// The last packet says that the program ends. Every operation has 1000 bytes.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "latency_buckets.h"
#include "protocol.h"

namespace {

using namespace scope;

int meter = -1;

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

PacketHeader Header(PacketType type, std::uint64_t timeNs) {
  return {kMeterMagic, kMeterVersion, type, getpid(), timeNs};
}

void Send(const void* bytes, std::size_t size) {
  if (send(meter, bytes, size, 0) != static_cast<ssize_t>(size)) std::exit(3);
}

void SendSample(std::istringstream& words, std::uint64_t timeNs) {
  ThreadSamplePacket sample{};
  sample.header = Header(PacketType::kThreadSample, timeNs);
  std::uint32_t engine = 0;
  words >> engine >> sample.thread;
  sample.engine = static_cast<Engine>(engine);
  sample.bytesKnown = 1;
  std::vector<BucketCount> counts;
  for (BucketCount entry{}; words >> entry.bucket >> entry.count;) {
    counts.push_back(entry);
    sample.operations += entry.count;
    sample.busyNs += entry.count * BucketLow(entry.bucket);
    sample.bytes += std::uint64_t{1000} * entry.count;
    sample.maxNs = BucketHigh(entry.bucket) - 1;
  }
  sample.buckets = static_cast<std::uint32_t>(counts.size());
  std::vector<char> packet(sizeof(sample) + counts.size() * sizeof(BucketCount));
  std::memcpy(packet.data(), &sample, sizeof(sample));
  if (!counts.empty()) {
    std::memcpy(packet.data() + sizeof(sample), counts.data(), counts.size() * sizeof(BucketCount));
  }
  Send(packet.data(), packet.size());
}

void SendDeadline(std::istringstream& words, std::uint64_t timeNs) {
  if (std::getenv(kDeadlinesVariable) == nullptr) std::exit(5);
  DeadlinePacket deadline{};
  deadline.header = Header(PacketType::kDeadline, timeNs);
  std::uint32_t engine = 0;
  words >> engine >> deadline.operations >> deadline.missed;
  deadline.engine = static_cast<Engine>(engine);
  deadline.deadlineNs = 5'000;
  deadline.longestRun = deadline.missed;
  Send(&deadline, sizeof(deadline));
}

void SendFill(std::istringstream& words, std::uint64_t timeNs) {
  if (std::getenv(kFillVariable) == nullptr) std::exit(6);
  FillPacket fill{};
  fill.header = Header(PacketType::kFill, timeNs);
  std::uint32_t engine = 0;
  words >> engine >> fill.buffers >> fill.refused;
  fill.engine = static_cast<Engine>(engine);
  fill.bytes = std::uint64_t{1000} * fill.buffers;
  Send(&fill, sizeof(fill));
}

void Await(const std::string& file) {
  for (int i = 0; access(file.c_str(), F_OK) != 0; ++i) {
    if (i == 12'000) std::exit(7);
    (void)usleep(5'000);
  }
}

void SendEnd(std::uint64_t timeNs, bool last) {
  EndOfSecondPacket end{};
  end.header = Header(PacketType::kEndOfSecond, timeNs);
  end.last = last ? 1 : 0;
  Send(&end, sizeof(end));
}

}  // namespace

int main(int argc, char** argv) {
  const char* const descriptor = std::getenv(kDescriptorVariable);
  if (argc != 3 || descriptor == nullptr) return 2;
  meter = std::atoi(descriptor);
  const std::uint64_t startNs = NowNs();
  std::uint64_t timeNs = startNs;
  HelloPacket hello{};
  hello.header = Header(PacketType::kHello, timeNs);
  hello.bucketCount = kBucketCount;
  Send(&hello, sizeof(hello));
  std::ifstream script(argv[2]);
  for (std::string line; std::getline(script, line);) {
    std::istringstream words(line);
    std::string what;
    words >> what;
    if (what == "sample") {
      SendSample(words, timeNs);
    } else if (what == "deadline") {
      SendDeadline(words, timeNs);
    } else if (what == "fill") {
      SendFill(words, timeNs);
    } else if (what == "second") {
      std::uint64_t ms = 0;
      words >> ms;
      timeNs = startNs + ms * 1'000'000;
      SendEnd(timeNs, false);
    } else if (what == "print") {
      std::cout << line.substr(what.size() + 1) << std::endl;
    } else if (what == "await") {
      Await(line.substr(what.size() + 1));
    } else {
      return 4;
    }
  }
  SendEnd(timeNs, true);
  return 0;
}
