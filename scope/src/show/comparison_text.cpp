// SPDX-License-Identifier: Apache-2.0
#include "comparison_text.h"

#include <algorithm>

#include "number_text.h"
#include "printable.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

// Larger numbers are not practical, and an exact value would suggest a certainty that is not there.
constexpr int kManyRepeats = 9999;

std::string RepeatsText(int repeats) {
  if (repeats > kManyRepeats) return "more than " + std::to_string(kManyRepeats);
  return std::to_string(repeats);
}

// None: too many to count.
std::string AdviceText(const std::optional<int>& repeats) {
  const bool isMany = !repeats || *repeats > kManyRepeats;
  return (isMany ? "More than " + std::to_string(kManyRepeats) : "About " + std::to_string(*repeats)) +
         " of each would show it.";
}

std::string Percent(double value) {
  return Format("%+.2f %%", value);
}

// "cpu ops -5.10 % (-6.02 to -4.17)".
std::string FigureText(const ComparedFigure& figure) {
  std::string text = figure.key.engine + " " + KindOf(figure.key.figure).name;
  if (figure.interval) {
    text += Format(" %+.2f %% (%+.2f to %+.2f)", figure.interval->value, figure.interval->low,
                   figure.interval->high);
  } else if (!figure.note.empty()) {
    text += ": " + figure.note;
  }
  return text;
}

std::string FiguresText(const Comparison& comparison, Verdict verdict) {
  std::vector<std::string> texts;
  for (const ComparedFigure& figure : comparison.figures) {
    if (figure.verdict == verdict) texts.push_back(FigureText(figure));
  }
  return Joined(texts, ", ");
}

// The judged figures whose runs give no interval. More runs beside these do not always give one.
std::string WithoutIntervalText(const Comparison& comparison) {
  std::vector<std::string> texts;
  for (const ComparedFigure& figure : comparison.figures) {
    if (figure.verdict == Verdict::kCannotTell && !figure.interval) texts.push_back(FigureText(figure));
  }
  return Joined(texts, ", ");
}

std::string WorseText(const Comparison& comparison) {
  std::vector<std::string> texts;
  const std::string figures = FiguresText(comparison, Verdict::kWorse);
  if (!figures.empty()) texts.push_back(figures);
  for (const Finding& finding : comparison.findings) {
    if (finding.worse) texts.push_back(Printable(finding.text));
  }
  return Joined(texts, "; ");
}

std::string CannotTellText(const Side& a, const Side& b, const Comparison& comparison,
                           const std::string& tolerance, const char* repeat) {
  const std::size_t least = std::min(a.runs.size(), b.runs.size());
  if (least < 2) {
    return std::string("Cannot tell: one ") + repeat + " a side does not show how much " + repeat +
           "s differ. Record four or more of each.";
  }
  const bool hasFigure =
      std::any_of(comparison.figures.begin(), comparison.figures.end(),
                  [](const ComparedFigure& figure) { return figure.interval.has_value(); });
  if (!hasFigure) return "Cannot tell: there is no figure with a value above 0 in all runs.";
  const std::string withoutInterval = WithoutIntervalText(comparison);
  if (!withoutInterval.empty()) return "Cannot tell: " + withoutInterval + ".";
  const bool isJudged =
      std::any_of(comparison.figures.begin(), comparison.figures.end(),
                  [](const ComparedFigure& figure) { return figure.verdict != Verdict::kNotJudged; });
  if (!isJudged) return "Cannot tell: none of the figures can be judged.";
  if (!comparison.repeats && tolerance == "0 %") {
    return "Cannot tell: no number of repeats shows that there is no difference at all. Choose a tolerance "
           "above 0.";
  }
  return Format("Cannot tell: with %s of A and %zu of B a difference of %s could not be seen. ",
                Counted(a.runs.size(), repeat).c_str(), b.runs.size(), tolerance.c_str()) +
         AdviceText(comparison.repeats);
}

std::string Painted(const std::string& text, Verdict verdict, const TextStyle& style) {
  if (verdict == Verdict::kBetter) return Painted(text, Colour::kGood, style);
  if (verdict == Verdict::kWorse) return Painted(text, Colour::kBad, style);
  return verdict == Verdict::kCannotTell ? Painted(text, Colour::kUnclear, style) : text;
}

std::string Painted(const std::string& text, Answer answer, const TextStyle& style) {
  if (answer == Answer::kWorse) return Painted(text, Colour::kBad, style);
  return Painted(text, answer == Answer::kCannotTell ? Colour::kUnclear : Colour::kGood, style);
}

std::string RowVerdict(const ComparedFigure& figure, const TextStyle& style) {
  std::string text = Painted(VerdictText(figure.verdict), figure.verdict, style);
  if (figure.verdict == Verdict::kCannotTell && figure.repeats) {
    text += ": " + RepeatsText(*figure.repeats) + " repeats";
  }
  return text + (figure.note.empty() ? "" : ": " + figure.note);
}

std::string TableOf(const Comparison& comparison, const char* place, const TextStyle& style) {
  TextTable table("lllrrrrrl");
  table.Add({place, "figure", "unit", "A", "B", "B - A", "from", "to", "verdict"});
  for (const ComparedFigure& figure : comparison.figures) {
    const FigureKind& kind = KindOf(figure.key.figure);
    table.Add({figure.key.engine, kind.name, kind.unit, figure.a ? ShortNumber(*figure.a) : "-",
               figure.b ? ShortNumber(*figure.b) : "-",
               figure.differencePercent ? Percent(*figure.differencePercent) : "-",
               figure.interval ? Percent(figure.interval->low) : "-",
               figure.interval ? Percent(figure.interval->high) : "-", RowVerdict(figure, style)});
  }
  return table.Text(style.width, 2);
}

}  // namespace

std::string VerdictText(Verdict verdict) {
  switch (verdict) {
    case Verdict::kBetter:
      return "better";
    case Verdict::kWorse:
      return "worse";
    case Verdict::kNoDifference:
      return "no difference";
    case Verdict::kCannotTell:
      return "cannot tell";
    case Verdict::kNotJudged:
      return "not judged";
  }
  return {};
}

std::string AnswerText(Answer answer) {
  switch (answer) {
    case Answer::kWorse:
      return "worse";
    case Answer::kCannotTell:
      return "cannot tell";
    case Answer::kNotWorse:
      return "not worse";
    case Answer::kNoDifference:
      return "no difference";
    case Answer::kBetter:
      return "better";
  }
  return {};
}

int ExitStatusOf(Answer answer) {
  if (answer == Answer::kWorse) return 1;
  return answer == Answer::kCannotTell ? 4 : 0;
}

std::string AnswerSentence(const Side& a, const Side& b, const Comparison& comparison,
                           const CompareOptions& options) {
  const std::string tolerance = Format("%g %%", options.tolerancePercent);
  switch (comparison.answer) {
    case Answer::kWorse:
      return "B is worse than A: " + WorseText(comparison) + ".";
    case Answer::kCannotTell:
      return CannotTellText(a, b, comparison, tolerance, options.repeat);
    case Answer::kNotWorse:
      return "B is not worse than A by more than " + tolerance + ". Whether it is better is not clear.";
    case Answer::kNoDifference:
      return "B and A do not differ by more than " + tolerance + ".";
    case Answer::kBetter:
      return "B is better than A: " + FiguresText(comparison, Verdict::kBetter) +
             (comparison.judged > 1 ? "; no judged figure is worse by more than " + tolerance + "." : ".");
  }
  return {};
}

std::string ComparisonText(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences, const CompareOptions& options,
                           const TextStyle& style) {
  std::string text = "A: " + Printable(a.name) + " (" + Counted(a.runs.size(), options.repeat) +
                     ")\nB: " + Printable(b.name) + " (" + Counted(b.runs.size(), options.repeat) + ")\n";
  for (const std::string& errors : comparison.errors) text += "Errors: " + Printable(errors) + ".\n";
  text += Format("After the first %g s of each run. ", options.skipS);
  if (std::min(a.runs.size(), b.runs.size()) < 2) {
    text +=
        std::string("No intervals and no verdicts: they need two ") + options.repeat + "s a side or more.\n";
  } else {
    text += Format("Intervals of %.3g %%", comparison.figureConfidence * 100);
    if (comparison.judged > 1) {
      text += Format("; those of the %zu judged figures together: %g %%", comparison.judged,
                     options.confidence * 100);
    }
    text += ".\n";
  }
  for (const ConditionDifference& difference : differences) {
    text += "Different condition: " + difference.name + ": " + difference.a + " in A, " + difference.b +
            " in B\n";
  }
  text += '\n' + TableOf(comparison, options.place, style);
  for (const Finding& finding : comparison.findings) {
    text += std::string("\n") + (finding.worse ? "worse: " : "note: ") + Printable(finding.text);
  }
  for (const std::string& note : comparison.notes) text += "\nnote: " + Printable(note);
  if (!comparison.findings.empty() || !comparison.notes.empty()) text += '\n';
  return text + '\n' + Painted(AnswerSentence(a, b, comparison, options), comparison.answer, style) + '\n';
}

}  // namespace scope
