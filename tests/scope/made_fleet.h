// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "cell_file.h"
#include "compare_figures.h"
#include "fleet.h"
#include "normal_values.h"
#include "plan_file.h"
#include "text_format.h"
#include "text_hash.h"

/// How a made-up fleet scatters, as standard deviations of logarithms.
struct MadeScatter {
  double runs = 0.025;   ///< from run to run, as measured (benchmarks/RESULTS.md, Repeat)
  double boards = 0.01;  ///< from board to board, of each engine
  double nights = 0.01;  ///< from night to night, of all boards alike
};

/// What is wrong with the first boards.
struct MadeFault {
  double engine = 1;      ///< factor of the first engine's rate
  double all = 1;         ///< factor of all engines' rates
  bool onlyLast = false;  ///< in the last night alone
  int boards = 1;         ///< how many have the fault
  double missing = 0;     ///< share of all boards' runs of the last night that are missing, in memory
};

struct MadeSize {
  int boards = 100;
  int nights = 8;
  int repeats = 4;
};

/// The figures of a made-up fleet, always the same for a seed.
class MadeFleet {
 public:
  MadeFleet(std::uint64_t seed, MadeSize size, MadeFault fault = {}, MadeScatter scatter = {})
      : size_(size), fault_(fault), scatter_(scatter), random_(seed) {
    for (int i = 0; i < size.boards * kEngines; ++i) boards_.push_back(scatter.boards * random_.Normal());
  }

  /// The runs of a night: for each board and repeat the factor of each engine's rate. To be called night by
  /// night.
  std::vector<double> Night(bool isLast) {
    double shared[kEngines];
    for (double& each : shared) each = scatter_.nights * random_.Normal();
    const bool isFaulty = isLast || !fault_.onlyLast;
    std::vector<double> factors;
    for (int board = 0; board < size_.boards; ++board) {
      for (int repeat = 0; repeat < size_.repeats; ++repeat) {
        for (int engine = 0; engine < kEngines; ++engine) {
          const double ofBoard = boards_[static_cast<std::size_t>(board * kEngines + engine)];
          double factor = std::exp(shared[engine] + ofBoard + scatter_.runs * random_.Normal());
          if (board < fault_.boards && isFaulty) factor *= fault_.all * (engine == 0 ? fault_.engine : 1);
          factors.push_back(factor);
        }
      }
    }
    return factors;
  }

  static std::string Board(int board) { return "b" + std::to_string(board); }

  /// All nights as the reader of folders would give them, of the judged figures.
  scope::Fleet InMemory() {
    scope::Fleet fleet;
    fleet.folder = "made";
    for (int board = 0; board < size_.boards; ++board) fleet.boards.push_back(Board(board));
    for (int engine = 0; engine <= kEngines; ++engine) {
      const bool isTotal = engine == kEngines;
      fleet.measures.push_back({{},
                                {},
                                isTotal ? scope::kAllEngines : kRows[engine].name,
                                isTotal ? scope::Figure::kBandwidth : scope::Figure::kOperations,
                                0});
    }
    for (int night = 0; night < size_.nights; ++night) {
      scope::FleetNight one;
      one.name = "night" + std::to_string(night);
      one.setup = "setup";
      one.cells.resize(fleet.boards.size());
      for (scope::CellCounts& cells : one.cells)
        cells[static_cast<std::size_t>(scope::CellState::kDone)] = static_cast<std::uint32_t>(size_.repeats);
      fleet.nights.push_back(one);
      AddNight(Night(night + 1 == size_.nights), static_cast<std::uint16_t>(night), fleet);
    }
    std::sort(fleet.values.begin(), fleet.values.end(), [](const auto& a, const auto& b) {
      return std::tuple(a.measure, a.board, a.night) < std::tuple(b.measure, b.board, b.night);
    });
    return fleet;
  }

  /// Writes a night as `cell` does: plan.json and the folder of each cell. Of the cell's other files, all
  /// have the same few bytes.
  void Write(const std::string& folder, bool isLast) {
    namespace fs = std::filesystem;
    fs::create_directories(folder);
    const scope::Plan plan = PlanOf();
    const std::string text = scope::PlanFileText(plan);
    std::ofstream(folder + "/plan.json", std::ios::binary) << text;
    const std::vector<double> factors = Night(isLast);
    scope::CellRecord record;
    record.plan = scope::HashOf(text);
    record.started = record.ended = "2026-11-22T01:00:00Z";
    record.state = scope::CellState::kDone;
    for (std::size_t i = 0; i < plan.cells.size(); ++i) {
      const std::string cell = folder + "/" + scope::CellFolder(i + 1);
      fs::create_directory(cell);
      record.number = i + 1;
      record.cell = plan.cells[i];
      record.board = plan.cells[i].board;
      record.machine = scope::HashOf(record.board);
      record.figures = FiguresOf(&factors[i * kEngines]);
      record.files.clear();
      for (const char* const name : kFiles) {
        const std::string path = cell + "/" + name;
        if (record.files.empty())
          std::ofstream(path, std::ios::binary) << "{}\n";
        else if (link((cell + "/" + kFiles[0]).c_str(), path.c_str()) != 0)
          throw std::runtime_error("cannot write " + path);
        record.files.emplace_back(name, 3);
      }
      std::ofstream(cell + "/" + scope::kCellName, std::ios::binary) << scope::CellText(record);
    }
  }

  scope::Plan PlanOf() const {
    scope::Plan plan;
    plan.made = "2026-11-22T00:00:00Z";
    plan.configPath = "all.yaml";
    plan.configText = "CPU:\n  Level: 1\nVPC:\n  Level: 1\nVENC:\n  Level: 1\nAIC:\n  Level: 1\n";
    plan.settings.repeats = size_.repeats;
    for (int board = 0; board < size_.boards; ++board) {
      for (int repeat = 1; repeat <= size_.repeats; ++repeat)
        plan.cells.push_back(
            {scope::CellFolder(plan.cells.size() + 1), Board(board), {{"CPU", 1}}, {}, repeat});
    }
    return plan;
  }

 private:
  static constexpr int kEngines = 4;
  struct Row {
    const char* name;
    double operationsPerS;
    double gigabytes;  // of an operation
  };
  static constexpr Row kRows[kEngines] = {
      {"cpu", 739, 0.0166}, {"vpc", 655, 0.0065}, {"venc", 224, 0.0031}, {"aic", 28.6, 0.047}};
  // The first one is what collect asks for.
  static constexpr const char* kFiles[] = {"run.json", "config.yaml", "counters.csv", "histogram.csv",
                                           "log.txt",  "rates.txt",   "samples.csv",  "seconds.csv"};

  static std::vector<scope::CellFigure> FiguresOf(const double* factors) {
    std::vector<scope::CellFigure> figures;
    for (int engine = 0; engine < kEngines; ++engine) {
      const Row& row = kRows[engine];
      const double rate = row.operationsPerS * factors[engine];
      figures.push_back({row.name, "ops", rate});
      figures.push_back({row.name, "bandwidth", rate * row.gigabytes});
      figures.push_back({row.name, "p50", 1e6 / rate});
      figures.push_back({row.name, "p99", 1.2e6 / rate});
      figures.push_back({row.name, "printed", rate});
    }
    figures.push_back({scope::kAllEngines, "bandwidth", Judged(factors, kEngines)});
    return figures;
  }

  // The rate of an engine; after the last one, the bandwidth of all.
  static double Judged(const double* factors, int engine) {
    if (engine < kEngines) return kRows[engine].operationsPerS * factors[engine];
    double total = 0;
    for (int i = 0; i < kEngines; ++i) total += kRows[i].operationsPerS * kRows[i].gigabytes * factors[i];
    return total;
  }

  void AddNight(const std::vector<double>& factors, std::uint16_t night, scope::Fleet& fleet) {
    const double missing = night + 1 == size_.nights ? fault_.missing : 0;
    for (int board = 0; board < size_.boards; ++board) {
      std::vector<int> repeats;
      for (int repeat = 0; repeat < size_.repeats; ++repeat) {
        if (missing == 0 || random_.Uniform() >= missing) repeats.push_back(repeat);
      }
      if (repeats.empty()) continue;
      std::vector<double> rates(repeats.size());
      for (int engine = 0; engine <= kEngines; ++engine) {
        scope::FleetValue value;
        value.measure = static_cast<std::uint32_t>(engine);
        value.board = static_cast<std::uint32_t>(board);
        value.night = night;
        value.runs = static_cast<std::uint16_t>(rates.size());
        double mean = 0;
        for (std::size_t i = 0; i < rates.size(); ++i) {
          const int run = board * size_.repeats + repeats[i];
          rates[i] = Judged(&factors[static_cast<std::size_t>(run * kEngines)], engine);
          mean += rates[i] / static_cast<double>(rates.size());
        }
        value.middle = std::log(mean);
        double squares = 0;
        for (const double each : rates) squares += (each / mean - 1) * (each / mean - 1);
        value.squares = static_cast<float>(squares);
        fleet.values.push_back(value);
      }
    }
  }

  MadeSize size_;
  MadeFault fault_;
  MadeScatter scatter_;
  NormalValues random_;
  std::vector<double> boards_;
};
