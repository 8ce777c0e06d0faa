// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "curve_plan.h"
#include "curve_text.h"
#include "margin_map.h"
#include "page_data.h"
#include "pages.h"

namespace scope {
namespace {

// The estimate and its interval as three keys: NAME, NAME_low, NAME_high. Null where it is not known.
void Put(Json& json, const std::string& name, const std::optional<Estimate>& estimate) {
  json[name] = estimate ? Json(estimate->value) : Json(nullptr);
  json[name + "_low"] = estimate ? OrNull(estimate->low) : Json(nullptr);
  json[name + "_high"] = estimate ? OrNull(estimate->high) : Json(nullptr);
}

void PutFigures(Json& json, const CurveTablePoint& point) {
  Put(json, "gb_per_s", EstimateAt(point, &CurveValue::gigabytesPerS));
  Put(json, "latency_p50_ns", EstimateAt(point, &CurveValue::p50Ns));
  Put(json, "latency_p99_ns", EstimateAt(point, &CurveValue::p99Ns));
  Put(json, "latency_p999_ns", EstimateAt(point, &CurveValue::p999Ns));
  Put(json, "latency_mean_ns", EstimateAt(point, &CurveValue::meanNs));
  json["latency_max_ns"] = OrNull(LongestAt(point));
  json["interrupted_percent"] = OrNull(InterruptedPercentAt(point));
}

Json PointJson(const CurveTablePoint& point) {
  Json values = Json::array();
  for (std::size_t repeat = 0; repeat < point.values.size(); ++repeat) {
    const std::optional<CurveValue>& value = point.values[repeat];
    if (!value) continue;
    values.push_back(Json{{"repeat", repeat + 1},
                          {"gb_per_s", value->gigabytesPerS},
                          {"latency_p50_ns", value->p50Ns},
                          {"latency_p99_ns", value->p99Ns},
                          {"latency_p999_ns", value->p999Ns},
                          {"latency_mean_ns", value->meanNs},
                          {"latency_max_ns", value->maxNs},
                          {"bursts", value->bursts},
                          {"interrupted", value->interrupted}});
  }
  Json json{{"name", point.name},
            {"load", point.load},
            {"levels", LevelsJson(point.levels)},
            {"duty_percent", point.dutyPercent},
            {"runs", values.size()}};
  PutFigures(json, point);
  json["values"] = values;
  return json;
}

Json KneeJson(const CurveFigures& figures) {
  if (!figures.knee) return nullptr;
  Json json;
  Put(json, "gb_per_s", figures.knee);
  json["latency_factor"] = kKneeFactor;
  json["values"] = figures.knee->values;
  json["repeats_without"] = figures.withoutKnee;
  return json;
}

Json CurveSaturationJson(const CurveTable& table, const CurveFigures& figures) {
  const CurveSaturation& saturation = figures.saturation;
  Json json{{"reached", saturation.reached}, {"point", table.points[saturation.lowest].name}};
  Put(json, "gb_per_s", saturation.gigabytesPerS);
  Put(json, "latency_p50_ns", saturation.p50Ns);
  Put(json, "latency_p99_ns", saturation.p99Ns);
  Put(json, "latency_p999_ns", saturation.p999Ns);
  json["latency_max_ns"] = OrNull(LongestAt(table.points[saturation.lowest]));
  json["best_point"] = table.points[saturation.best].name;
  Put(json, "most_gb_per_s", figures.mostGigabytesPerS);
  return json;
}

}  // namespace

Json CurveData(const CurveTable& table) {
  const Sweep& sweep = table.curve.sweep;
  const std::optional<CurveFigures> figures = FiguresOf(table);
  Json points = Json::array();
  for (const CurveTablePoint& point : table.points) points.push_back(PointJson(point));
  Json growth = Json::array();
  for (const LatencyGrowth& part : table.growth)
    growth.push_back(Json{{"bytes", part.bytes}, {"p50_ns", part.p50Ns}});
  Json idle = nullptr;
  if (figures) {
    Put(idle, "latency_p50_ns", figures->idleNs);
    Put(idle, "latency_mean_ns", figures->idleMeanNs);
  }
  Json json{{"format", 1},
            {"kind", "curve"},
            {"tool", kToolVersion},
            {"folder", table.name},
            {"started", sweep.started},
            {"complete", IsComplete(sweep)},
            {"mix", MixText(table.curve.mix)},
            {"most", table.curve.most},
            {"repeats", sweep.settings.repeats},
            {"whole_repeats", figures ? figures->repeats.size() : 0},
            {"seed", sweep.settings.seed},
            {"warmup_s", sweep.settings.warmupS},
            {"latency", table.infos.empty() ? "" : table.infos.front().info.conditions.latency},
            {"growth", growth},
            {"points", points},
            {"idle", idle},
            {"knee", figures ? KneeJson(*figures) : Json(nullptr)},
            {"saturation", figures ? CurveSaturationJson(table, *figures) : Json(nullptr)},
            {"sentences", CurveSentences(table, figures)},
            {"notes", table.notes}};
  return json;
}

std::string CurveJson(const std::vector<CurveTable>& tables) {
  if (tables.size() == 1) return JsonText(CurveData(tables.front()));
  Json curves = Json::array();
  for (const CurveTable& table : tables) curves.push_back(CurveData(table));
  return JsonText(Json{{"format", 1}, {"kind", "curves"}, {"tool", kToolVersion}, {"curves", curves}});
}

std::string CurvePage(const std::vector<CurveTable>& tables, const std::string& comparison) {
  Json curves = Json::array();
  for (const CurveTable& table : tables) curves.push_back(CurveData(table));
  return PageOf(Json{{"format", 1},
                     {"kind", "curves"},
                     {"tool", kToolVersion},
                     {"curves", curves},
                     {"comparison", comparison.empty() ? Json(nullptr) : Json::parse(comparison)}});
}

}  // namespace scope
