// SPDX-License-Identifier: Apache-2.0
#include "live_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "figures.h"
#include "number_text.h"
#include "text_format.h"
#include "text_style.h"

namespace scope {
namespace {

constexpr std::size_t kSparkWidth = 30;

// Calls `visit` with each figure that a second has.
template <typename Visit>
void ForEachOfASecond(const Visit& visit) {
  for (const FigureKind& kind : FigureKinds()) {
    if (*kind.chart != '\0') visit(kind);
  }
}

std::string FailuresText(const Work& work) {
  return work.failures == 0 ? "" : Format("  %llu failed", static_cast<unsigned long long>(work.failures));
}

class LiveView : public View {
 public:
  ~LiveView() override { LiveView::End(); }

  void Second(const Figures& figures, double timeS, double runTimeS) override {
    if (ended_) return;
    std::vector<std::string> lines;
    lines.push_back(Format("%5.0f s of %.0f s  ", timeS, runTimeS) + ProgressBar(timeS, runTimeS, kBarWidth));
    std::string head = Format("%-6s %7s", "engine", "threads");
    ForEachOfASecond([&head](const FigureKind& kind) { head += Format(" %9s", kind.title); });
    lines.push_back(head + "  ops/s over time");
    for (const auto& [engine, second] : figures.Last()) {
      std::string line = Format("%-6s %7d", engine.c_str(), second.threads);
      ForEachOfASecond([&line, &work = second](const FigureKind& kind) {
        line += Format(" %9s", FigureText(kind, work).c_str());
      });
      lines.push_back(line + "  " + Sparkline(figures.History(engine), kSparkWidth) + FailuresText(second));
    }
    if (figures.Latency()) lines.push_back(Describe(*figures.Latency()));
    table_ = std::move(lines);
    Draw();
  }

  void End() override {
    if (ended_) return;
    ended_ = true;
    if (cursorHidden_) Put("\033[?25h");
  }

 private:
  void Erase() {
    if (drawn_ != 0) Put(Format("\033[%zuA\033[J", drawn_));
    drawn_ = 0;
  }

  void Draw() {
    if (!cursorHidden_) Put("\033[?25l");
    cursorHidden_ = true;
    Erase();
    // A wrapped line would take two rows, and the table would move up with each redraw.
    const std::size_t width = OutputWidth();
    std::string text;
    for (const std::string& line : table_) text += Cut(line, width) + "\033[K\n";
    Put(text);
    drawn_ = table_.size();
  }

  // The first `width` characters of UTF-8.
  static std::string Cut(const std::string& line, std::size_t width) {
    std::size_t characters = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
      const bool begins = (static_cast<unsigned char>(line[i]) & 0xC0U) != 0x80U;
      if (begins && characters++ == width) return line.substr(0, i);
    }
    return line;
  }

  static void Put(const std::string& text) {
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fflush(stdout);
  }

  std::vector<std::string> table_;
  std::size_t drawn_ = 0;
  bool cursorHidden_ = false;
  bool ended_ = false;
};

class PlainView : public View {
 public:
  void Second(const Figures& figures, double timeS, double /*runTimeS*/) override {
    for (const auto& [engine, second] : figures.Last()) {
      (void)std::printf("%.0f s %s\n", timeS, Describe(engine, second).c_str());
    }
    if (figures.Latency()) (void)std::printf("%.0f s %s\n", timeS, Describe(*figures.Latency()).c_str());
    (void)std::fflush(stdout);
  }
};

}  // namespace

std::unique_ptr<View> MakeLiveView() {
  return std::make_unique<LiveView>();
}

std::unique_ptr<View> MakePlainView() {
  return std::make_unique<PlainView>();
}

bool OutputIsTerminal() {
  const char* const terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

std::size_t OutputWidth() {
  winsize size{};
  // One column less: some terminals wrap a line that fills the last column.
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) return size.ws_col - 1U;
  return kTextWidth;
}

std::string Describe(const std::string& engine, const EngineSample& second) {
  std::string line =
      Format("%-4s %2d %s", engine.c_str(), second.threads, second.threads == 1 ? "thread " : "threads");
  ForEachOfASecond([&](const FigureKind& kind) {
    line += Format("  %s %s", kind.title, FigureText(kind, second).c_str());
  });
  return line + FailuresText(second);
}

std::string Describe(const LatencySecond& second) {
  const std::string interrupted =
      second.interrupted == 0 ? "" : "  " + Counted(second.interrupted, "burst") + " interrupted";
  if (second.accesses == 0) return "memory latency  -" + interrupted;
  return "memory latency  p50 " + Latency(second.p50Ns) + "  p99 " + Latency(second.p99Ns) + "  p99.9 " +
         Latency(second.p999Ns) + "  max " + Latency(second.maxNs) + interrupted;
}

std::string Sparkline(const std::vector<double>& values, std::size_t width) {
  static const char* const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  const std::size_t count = std::min(width, values.size());
  const auto first = values.end() - static_cast<std::ptrdiff_t>(count);
  double top = 0;
  for (auto at = first; at != values.end(); ++at) top = std::max(top, *at);
  std::string line;
  for (auto at = first; at != values.end(); ++at) {
    const double share = top > 0 ? std::clamp(*at / top, 0.0, 1.0) : 0;
    line += kBlocks[static_cast<std::size_t>(std::lround(share * 7))];
  }
  return line;
}

std::string ProgressBar(double done, double whole, std::size_t width) {
  const double share = whole > 0 ? std::clamp(done / whole, 0.0, 1.0) : 0;
  const auto filled = static_cast<std::size_t>(std::lround(share * static_cast<double>(width)));
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]" +
         Format(" %3.0f %%", share * 100);
}

}  // namespace scope
