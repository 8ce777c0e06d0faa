// SPDX-License-Identifier: Apache-2.0
#include "fill_text.h"

#include "text_format.h"

namespace scope {

std::vector<std::string> FillTexts(const RunInfo& info) {
  constexpr double kMegabyte = 1e6;
  std::vector<std::string> texts;
  for (const EngineFill& fill : info.filling) {
    const std::string what = fill.buffers == 0
                                 ? "nothing"
                                 : Counted(fill.buffers, "buffer") +
                                       Format(", %.4g MB", static_cast<double>(fill.bytes) / kMegabyte);
    texts.push_back(fill.engine + ": " + what);
  }
  return texts;
}

std::vector<FillDoubt> FillDoubts(const RunInfo& info) {
  std::vector<FillDoubt> doubts;
  for (const EngineFill& fill : info.filling) {
    if (fill.buffers != 0 && fill.refused == 0) continue;
    std::string text = fill.engine + ": ";
    if (fill.buffers == 0) {
      text += "nothing was filled with " + info.conditions.fill + ": ";
    } else {
      text += Format("%llu of ", static_cast<unsigned long long>(fill.refused)) +
              Counted(fill.buffers + fill.refused, "buffer") + " not filled with " + info.conditions.fill +
              ": ";
    }
    text += fill.refused == 0 ? "no source was seen that can be filled"
                              : "not writable, or written by an operation before";
    doubts.push_back({fill.engine, text});
  }
  return doubts;
}

}  // namespace scope
