// SPDX-License-Identifier: Apache-2.0
#include "figures.h"

#include <cmath>

#include "number_text.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kNsPerUs = 1e3;

std::string CountText(double value) {
  return Format("%.0f", value);
}

std::string BandwidthText(double value) {
  return Format("%.3f", value);
}

std::string LatencyText(double us) {
  return Latency(static_cast<std::uint64_t>(std::llround(us * kNsPerUs)));
}

template <std::uint64_t Work::* kCount>
std::optional<double> CountOf(const Work& work) {
  return static_cast<double>(work.*kCount);
}

template <std::uint64_t Work::* kLatencyNs>
std::optional<double> LatencyOf(const Work& work) {
  if (work.*kLatencyNs == 0) return std::nullopt;
  return static_cast<double>(work.*kLatencyNs) / kNsPerUs;
}

}  // namespace

std::optional<std::uint64_t> Sum(std::optional<std::uint64_t> left, std::optional<std::uint64_t> right) {
  return left && right ? std::optional(*left + *right) : std::nullopt;
}

void SetRates(Work& work, double spanS) {
  if (spanS <= 0) return;
  work.operationsPerS = static_cast<double>(work.operations) / spanS;
  if (work.bytes) work.gigabytesPerS = static_cast<double>(*work.bytes) / spanS / kBytesPerGigabyte;
}

const std::vector<FigureKind>& FigureKinds() {
  constexpr bool kOfMemoryAlone = true;
  static const std::vector<FigureKind> kKinds = {
      {Figure::kCount, "operations", "ops", "", false, false, "", CountText, CountOf<&Work::operations>},
      {Figure::kOperations, "ops", "ops/s", "op/s", false, true, "rate", RateText,
       [](const Work& work) { return std::optional(work.operationsPerS); }},
      {Figure::kBandwidth, "bandwidth", "GB/s", "GB/s", false, true, "bandwidth", BandwidthText,
       [](const Work& work) { return work.gigabytesPerS; }},
      {Figure::kP50, "p50", "p50", "us", true, true, "latency", LatencyText, LatencyOf<&Work::p50Ns>},
      {Figure::kP99, "p99", "p99", "us", true, true, "latency", LatencyText, LatencyOf<&Work::p99Ns>},
      {Figure::kMax, "max", "max", "us", true, false, "latency", LatencyText, LatencyOf<&Work::maxNs>},
      {Figure::kFailures, "failures", "failed", "", true, false, "", CountText, CountOf<&Work::failures>},
      {Figure::kPrinted, "printed", "printed fps", "fps", false, true, "", RateText, nullptr},
      {Figure::kExact, "exact", "exact fps", "fps", false, false, "", RateText,
       [](const Work& work) { return work.busyRate > 0 ? std::optional(work.busyRate) : std::nullopt; }},
      // The meter does not keep so rare a latency of an engine for each second.
      {Figure::kP999, "p999", "p99.9", "us", true, true, "", LatencyText, nullptr, kOfMemoryAlone}};
  return kKinds;
}

const FigureKind& KindOf(Figure figure) {
  return FigureKinds().at(static_cast<std::size_t>(figure));
}

std::vector<const FigureKind*> EngineKinds() {
  std::vector<const FigureKind*> kinds;
  for (const FigureKind& kind : FigureKinds()) {
    if (!kind.ofMemoryAlone) kinds.push_back(&kind);
  }
  return kinds;
}

std::vector<const FigureKind*> ComparedKinds() {
  std::vector<const FigureKind*> kinds;
  for (const FigureKind& kind : FigureKinds()) {
    if (kind.compared) kinds.push_back(&kind);
  }
  return kinds;
}

std::string FigureText(const FigureKind& kind, const Work& work) {
  const std::optional<double> value = kind.of == nullptr ? std::nullopt : kind.of(work);
  return value ? kind.text(*value) : "-";
}

}  // namespace scope
