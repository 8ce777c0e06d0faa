#include "report_charts.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <utility>

#include "text_format.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;

// The colours of Okabe and Ito, which the colour-blind tell apart, without the yellow that white swallows.
constexpr std::array<const char*, kMostRuns> kColours = {"#0072b2", "#d55e00", "#009e73", "#aa4499",
                                                         "#e69f00", "#56b4e9", "#000000", "#767676"};
// Colour is not the only difference between the lines of two runs.
constexpr std::array<const char*, kMostRuns> kMarkers = {"circle", "rect", "triangle", "rectRot",
                                                         "cross",  "star", "crossRot", "line"};
constexpr int kBinsPerOctave = 8;
constexpr double kLeastRange = 5;
// ---------------------------------------------------------------------------------------------------

// A point of a chart; without a value the line has a gap there.
Json Point(double x, const std::optional<double>& y) {
  const auto rounded = [](double value) { return std::stod(Format("%.6g", value)); };
  return Json::array({rounded(x), y && std::isfinite(*y) ? Json(rounded(*y)) : Json(nullptr)});
}

class ChartMaker {
 public:
  explicit ChartMaker(const Runs& runs) : runs_(runs), engines_(Engines(runs)) {
    for (const ReportedRun& run : runs) {
      durationS_ = std::max(durationS_, run.run.info.durationS);
      for (const Sample& sample : run.run.samples) durationS_ = std::max(durationS_, sample.timeS);
      for (const Rate& rate : run.run.rates) durationS_ = std::max(durationS_, rate.timeS);
    }
  }

  // All engines of each run on top of each other; the same scale for every run.
  std::vector<Chart> Totals() const {
    std::vector<Chart> charts;
    double top = 0;
    for (std::size_t i = 0; i != runs_.size(); ++i) {
      if (!runs_[i].summary.gigabytesPerS) continue;
      const std::string name = runs_.size() == 1 ? std::string() : ": " + runs_[i].name;
      Chart chart = OverTime("total-" + std::to_string(i), "Bandwidth of all engines" + name,
                             "Bandwidth (GB/s, stacked)");
      chart.spec["stacked"] = true;
      chart.broad = runs_.size() == 1;
      std::map<double, double> sums;
      for (const EngineSummary& engine : runs_[i].summary.engines) {
        if (!IsLoad(engine.engine)) continue;
        Json series = Series(engine.engine, EngineColour(engine.engine), {}, "circle");
        series["fill"] = true;
        // A stack needs a value of every engine at every time.
        for (const double timeS : WholeTimes(runs_[i])) {
          const EngineSecond* const second = SecondAt(engine, timeS);
          if (second != nullptr && second->afterGap) {
            series["points"].push_back(Point(timeS, std::nullopt));
            continue;
          }
          const double value = second == nullptr ? 0 : second->GigabytesPerS().value_or(0);
          sums[timeS] += value;
          series["points"].push_back(Point(timeS, value));
        }
        chart.spec["series"].push_back(series);
      }
      for (const auto& [timeS, sum] : sums) top = std::max(top, sum);
      charts.push_back(chart);
    }
    for (Chart& chart : charts) chart.spec["yMax"] = top;
    return charts;
  }

  std::vector<Chart> Of(const std::string& engine) const {
    std::vector<Chart> charts;
    const bool measured = std::any_of(runs_.begin(), runs_.end(),
                                      [&](const ReportedRun& run) { return Find(run, engine) != nullptr; });
    if (measured) {
      charts.push_back(RateChart(engine));
      const Chart bandwidth = BandwidthChart(engine);
      if (!bandwidth.spec["series"].empty()) charts.push_back(bandwidth);
      charts.push_back(LatencyChart(engine));
      const Chart histogram = HistogramChart(engine);
      if (!histogram.spec["series"].empty()) charts.push_back(histogram);
    }
    const Chart printed = PrintedChart(engine, measured);
    if (!printed.spec["series"].empty()) charts.push_back(printed);
    return charts;
  }

  std::vector<Chart> Counters() const {
    std::vector<Chart> charts;
    for (std::size_t i = 0; i != runs_.size(); ++i) {
      std::map<std::pair<std::string, std::string>, std::map<std::string, Json>> bySource;
      for (const CounterValue& value : runs_[i].run.counters) {
        Json& points = bySource[{value.source, value.unit}][value.name];
        if (points.is_null()) points = Json::array();
        points.push_back(Point(value.timeS, value.value));
      }
      for (const auto& [source, names] : bySource) {
        const std::string run = runs_.size() == 1 ? std::string() : ": " + runs_[i].name;
        Chart chart = OverTime("counter-" + std::to_string(i) + "-" + std::to_string(charts.size()),
                               source.first + run, source.first + " (" + source.second + ")");
        std::size_t number = 0;
        for (const auto& [name, points] : names) {
          Json series =
              Series(name, kColours[number % kColours.size()], {}, kMarkers[number % kMarkers.size()]);
          series["points"] = points;
          chart.spec["series"].push_back(series);
          ++number;
        }
        charts.push_back(chart);
      }
    }
    return charts;
  }

 private:
  Chart OverTime(const std::string& id, const std::string& title, const std::string& yTitle) const {
    Chart chart{id, title, {}};
    chart.spec = Json{{"id", id},         {"xTitle", "Time since the start (s)"},
                      {"xMin", 0},        {"xMax", std::ceil(durationS_ + 0.2)},
                      {"yTitle", yTitle}, {"series", Json::array()}};
    return chart;
  }

  static Json Series(const std::string& name, const std::string& colour, const std::vector<int>& dash,
                     const std::string& marker) {
    return Json{
        {"name", name}, {"colour", colour}, {"dash", dash}, {"marker", marker}, {"points", Json::array()}};
  }

  // One run: the engine's colour. Several: the run's.
  std::string Colour(std::size_t run, const std::string& engine) const {
    return runs_.size() == 1 ? EngineColour(engine) : kColours[run];
  }

  std::string EngineColour(const std::string& engine) const {
    const auto at = std::find(engines_.begin(), engines_.end(), engine);
    return kColours[static_cast<std::size_t>(at - engines_.begin()) % kColours.size()];
  }

  std::string SeriesName(std::size_t run, const std::string& what) const {
    if (runs_.size() == 1) return what;
    return what.empty() ? runs_[run].name : runs_[run].name + ", " + what;
  }

  // In rising order, as the summary has them.
  static const EngineSecond* SecondAt(const EngineSummary& engine, double timeS) {
    const auto begin = engine.seconds.begin() + static_cast<std::ptrdiff_t>(engine.firstWhole);
    const auto end = engine.seconds.begin() + static_cast<std::ptrdiff_t>(engine.endWhole);
    const auto at = std::lower_bound(
        begin, end, timeS, [](const EngineSecond& second, double time) { return second.timeS < time; });
    return at != end && at->timeS == timeS ? &*at : nullptr;
  }

  static std::set<double> WholeTimes(const ReportedRun& run) {
    std::set<double> times;
    for (const EngineSummary& engine : run.summary.engines) {
      if (!IsLoad(engine.engine)) continue;
      for (std::size_t i = engine.firstWhole; i != engine.endWhole; ++i)
        times.insert(engine.seconds[i].timeS);
    }
    return times;
  }

  // The whole seconds of an engine; nothing is drawn across a gap.
  static Json Points(const EngineSummary& engine,
                     const std::function<std::optional<double>(const EngineSecond&)>& value) {
    Json points = Json::array();
    for (std::size_t i = engine.firstWhole; i != engine.endWhole; ++i) {
      const EngineSecond& second = engine.seconds[i];
      points.push_back(Point(second.timeS, second.afterGap ? std::nullopt : value(second)));
    }
    return points;
  }

  void AddSeries(Chart& chart, const std::string& engine, const std::string& what,
                 const std::vector<int>& dash,
                 const std::function<std::optional<double>(const EngineSecond&)>& value) const {
    for (std::size_t i = 0; i != runs_.size(); ++i) {
      const EngineSummary* const summary = Find(runs_[i], engine);
      if (summary == nullptr) continue;
      Json series = Series(SeriesName(i, what), Colour(i, engine), dash, kMarkers[i]);
      series["points"] = Points(*summary, value);
      const Json& points = series["points"];
      const bool any =
          std::any_of(points.begin(), points.end(), [](const Json& point) { return !point[1].is_null(); });
      if (any) chart.spec["series"].push_back(series);
    }
  }

  Chart RateChart(const std::string& engine) const {
    Chart chart = OverTime(engine + "-rate", "Rate", "Operations (1/s)");
    AddSeries(chart, engine, "operations", {},
              [](const EngineSecond& second) { return second.OperationsPerS(); });
    return chart;
  }

  Chart BandwidthChart(const std::string& engine) const {
    Chart chart = OverTime(engine + "-bandwidth", "Bandwidth", "Bandwidth (GB/s)");
    AddSeries(chart, engine, "bandwidth", {},
              [](const EngineSecond& second) { return second.GigabytesPerS(); });
    return chart;
  }

  // The unit that the engine's latencies are shown in, and how many of it a nanosecond is.
  std::pair<std::string, double> LatencyUnit(const std::string& engine) const {
    std::uint64_t middle = 0;
    for (const ReportedRun& run : runs_) {
      const EngineSummary* const summary = Find(run, engine);
      if (summary != nullptr) middle = std::max(middle, summary->work.p50Ns.value_or(0));
    }
    if (middle >= 1'000'000) return {"ms", 1e-6};
    if (middle >= 1'000) return {"\xc2\xb5s", 1e-3};
    return {"ns", 1};
  }

  Chart LatencyChart(const std::string& engine) const {
    const auto [unit, perNs] = LatencyUnit(engine);
    const double scale = perNs;
    Chart chart = OverTime(engine + "-latency", "Latency of an operation", "Latency (" + unit + ")");
    chart.spec["yLog"] = true;
    chart.broad = true;
    const auto add = [&](const char* what, const std::vector<int>& dash,
                         std::uint64_t EngineSecond::* figure) {
      AddSeries(chart, engine, what, dash, [=](const EngineSecond& second) -> std::optional<double> {
        if (second.*figure == 0) return std::nullopt;
        return static_cast<double>(second.*figure) * scale;
      });
    };
    add("p50", {}, &EngineSecond::p50Ns);
    add("p99", {6, 4}, &EngineSecond::p99Ns);
    add("max", {1, 4}, &EngineSecond::maxNs);
    return chart;
  }

  Chart HistogramChart(const std::string& engine) const {
    const auto [unit, perNs] = LatencyUnit(engine);
    const double scale = perNs;
    double lowest = std::numeric_limits<double>::infinity();
    double highest = 0;
    Chart chart{engine + "-histogram", "Latency histogram", {}};
    chart.spec = Json{{"id", chart.id},  {"xTitle", "Latency (" + unit + ", logarithmic)"},
                      {"xLog", true},    {"yTitle", "Share of operations (%)"},
                      {"stepped", true}, {"series", Json::array()}};
    for (std::size_t i = 0; i != runs_.size(); ++i) {
      std::map<int, double> bins;
      double whole = 0;
      for (const HistogramRow& row : runs_[i].run.histogram) {
        if (row.engine != engine) continue;
        const double middle = (static_cast<double>(row.lowNs) + static_cast<double>(row.highNs)) / 2;
        bins[static_cast<int>(std::floor(std::log2(std::max(1.0, middle)) * kBinsPerOctave))] +=
            static_cast<double>(row.count);
        whole += static_cast<double>(row.count);
      }
      if (whole == 0) continue;
      Json series = Series(SeriesName(i, "share"), Colour(i, engine), {}, kMarkers[i]);
      series["fill"] = true;
      const int last = bins.rbegin()->first;
      const auto low = [&](int bin) { return std::exp2(static_cast<double>(bin) / kBinsPerOctave) * scale; };
      // From nothing to nothing, so that the first and the last bar are seen whole.
      lowest = std::min(lowest, low(bins.begin()->first - 1));
      highest = std::max(highest, low(last + 2));
      for (int bin = bins.begin()->first - 1; bin <= last + 1; ++bin) {
        const auto at = bins.find(bin);
        series["points"].push_back(Point(low(bin), at == bins.end() ? 0 : at->second / whole * 100));
      }
      chart.spec["series"].push_back(series);
    }
    // Wide enough for a number or two on the axis.
    const double widen = std::max(1.0, std::sqrt(kLeastRange * lowest / highest));
    chart.spec["xMin"] = lowest / widen;
    chart.spec["xMax"] = highest * widen;
    return chart;
  }

  Chart PrintedChart(const std::string& engine, bool measured) const {
    Chart chart =
        OverTime(engine + "-printed", measured ? "Printed rate beside the exact one" : "Printed rate",
                 "Rate of a busy thread (fps)");
    for (std::size_t i = 0; i != runs_.size(); ++i) {
      const PrintedRates* const printed = runs_[i].summary.PrintedOf(engine);
      if (printed != nullptr) {
        Json series = Series(SeriesName(i, "printed"), Colour(i, engine), {}, kMarkers[i]);
        for (const Rate& rate : printed->rates) series["points"].push_back(Point(rate.timeS, rate.fps));
        chart.spec["series"].push_back(series);
      }
      const EngineSummary* const summary = Find(runs_[i], engine);
      if (printed == nullptr || summary == nullptr || summary->work.busyRate <= 0) continue;
      Json series = Series(SeriesName(i, "exact, whole run"), Colour(i, engine), {6, 4}, "line");
      series["points"] =
          Json::array({Point(0, summary->work.busyRate), Point(durationS_, summary->work.busyRate)});
      chart.spec["series"].push_back(series);
    }
    return chart;
  }

  const Runs& runs_;
  std::vector<std::string> engines_;
  double durationS_ = 0;
};

}  // namespace

// Every engine that a run has figures of, in their order.
std::vector<std::string> Engines(const Runs& runs) {
  std::vector<std::string> names;
  const auto add = [&names](const std::string& name) {
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  };
  for (const char* known : {"cpu", "vpc", "venc", "aic"}) {
    for (const ReportedRun& run : runs) {
      const auto& engines = run.summary.engines;
      const bool worked = std::any_of(engines.begin(), engines.end(),
                                      [&](const EngineSummary& engine) { return engine.engine == known; });
      if (worked || run.summary.PrintedOf(known) != nullptr) add(known);
    }
  }
  for (const ReportedRun& run : runs) {
    for (const EngineSummary& engine : run.summary.engines) {
      if (IsLoad(engine.engine)) add(engine.engine);
    }
  }
  return names;
}

const EngineSummary* Find(const ReportedRun& run, const std::string& engine) {
  for (const EngineSummary& summary : run.summary.engines) {
    if (summary.engine == engine) return &summary;
  }
  return nullptr;
}

std::vector<Chart> TotalCharts(const Runs& runs) {
  return ChartMaker(runs).Totals();
}

std::vector<Chart> EngineCharts(const Runs& runs, const std::string& engine) {
  return ChartMaker(runs).Of(engine);
}

std::vector<Chart> CounterCharts(const Runs& runs) {
  return ChartMaker(runs).Counters();
}

}  // namespace scope
