// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "matrix.h"
#include "matrix_table.h"

/// A matrix with known figures, without a folder.
namespace made_matrix {

/// Two victims, three mixes; the resizes have a CPU to themselves.
inline scope::Matrix Plan() {
  scope::Matrix matrix;
  matrix.started = "2026-11-21T04:00:00Z";
  matrix.axes = {{"CPU", {0, 2}}, {"VENC", {0, 1}}};
  matrix.victims = {{"VPC", 1}, {scope::kLatencyVictim, 0}};
  matrix.ownCpus = {3};
  matrix.settings.repeats = 2;
  matrix.settings.seed = 7;
  matrix.settings.warmupS = 1;
  return matrix;
}

inline scope::MatrixFigures Figures(double value, double p99Us) {
  return {{value * 0.999, value * 1.001}, {p99Us, p99Us}, {1.1, 1.1}};
}

/// Slowdowns of the rate or of the latency, as factors: by memory and by CPU.
inline scope::MatrixCell Cell(const scope::MatrixVictim& victim, const scope::SweepLevels& mix, double memory,
                              double cpu) {
  const bool isLatency = victim.section == scope::kLatencyVictim;
  const double alone = isLatency ? 100 : 1000;
  const auto slowed = [&](double factor) { return isLatency ? alone * factor : alone / factor; };
  scope::MatrixCell cell;
  cell.victim = victim;
  cell.mix = mix;
  cell.alone = Figures(alone, 2);
  cell.control = Figures(slowed(cpu), 2 * cpu);
  cell.with = Figures(slowed(cpu * memory), 2 * cpu * memory);
  cell.aggressorCpus = 1.2;
  const auto slowdown = [](double factor) {
    return scope::SlowdownPercent{(factor - 1) * 100, (factor * 0.95 - 1) * 100, (factor * 1.05 - 1) * 100};
  };
  cell.byMemory = slowdown(memory);
  cell.byCpu = slowdown(cpu);
  cell.total = slowdown(memory * cpu);
  return cell;
}

inline scope::MatrixTable Table() {
  const scope::Matrix matrix = Plan();
  const scope::SweepLevels copies = {{"CPU", 2}};
  const scope::SweepLevels frames = {{"VENC", 1}};
  const scope::SweepLevels both = {{"CPU", 2}, {"VENC", 1}};
  scope::MatrixTable table;
  table.cells = {Cell(matrix.victims[1], both, 2.5, 1.01), Cell(matrix.victims[1], copies, 1.8, 1.0),
                 Cell(matrix.victims[0], both, 1.6, 1.25), Cell(matrix.victims[0], copies, 1.3, 1.2),
                 Cell(matrix.victims[0], frames, 1.01, 1.02)};
  table.cells[2].memoryShare = scope::MemoryShare{68, 60, 76};
  // One whose control is not recorded: what is in its place is not known.
  table.cells[1].control = {};
  table.cells[1].byMemory.reset();
  table.cells[1].byCpu.reset();
  table.done = 20;
  table.withRuns = 10;
  table.latency = "256 MiB in pages of 2 MiB, CPU 3";
  table.growth = {{1 << 20, 9}, {1 << 28, 100}};
  table.notes = {"not done: 4 of 24 runs"};
  return table;
}

}  // namespace made_matrix
