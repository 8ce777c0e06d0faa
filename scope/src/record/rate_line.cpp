// SPDX-License-Identifier: Apache-2.0
#include "rate_line.h"

#include <cstddef>

#include "errors.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr const char* kSeparator = " : ";
constexpr const char* kUnit = " fps.";
constexpr const char* kLastEntry = "ispStress";

class Line {
 public:
  explicit Line(const std::string& text) : text_(text) {}

  bool AtEnd() const { return at_ == text_.size(); }

  std::string Name() {
    const std::size_t from = at_;
    while (at_ < text_.size() &&
           (std::isalnum(static_cast<unsigned char>(text_[at_])) != 0 || text_[at_] == '_')) {
      ++at_;
    }
    if (at_ == from) Fail("the name of a stress");
    return text_.substr(from, at_ - from);
  }

  double Number() {
    const std::size_t from = at_;
    at_ = std::min(text_.find_first_not_of("0123456789.", from), text_.size());
    const std::optional<double> value = ParseNumber(text_.substr(from, at_ - from));
    if (value) return *value;
    at_ = from;
    Fail("a rate such as 30.0");
  }

  void Words(const char* words) {
    const std::string expected(words);
    if (text_.compare(at_, expected.size(), expected) != 0) Fail('"' + expected + '"');
    at_ += expected.size();
  }

  [[noreturn]] void Fail(const std::string& expected) const {
    throw UserError("character " + std::to_string(at_ + 1) + ": expected " + expected +
                    (AtEnd() ? ", found the end of the line" : ", found \"" + text_.substr(at_, 20) + '"'));
  }

 private:
  const std::string& text_;
  std::size_t at_ = 0;
};

}  // namespace

std::vector<Rate> ParseRateLine(const std::string& line, double timeS) {
  Line rest(line);
  std::vector<Rate> rates;
  for (;;) {
    Rate rate;
    rate.timeS = timeS;
    rate.stress = rest.Name();
    rest.Words(kSeparator);
    rate.fps = rest.Number();
    rest.Words(kUnit);
    if (rate.stress == kLastEntry) {
      if (!rest.AtEnd()) rest.Fail("the end of the line after ispStress");
      return rates;
    }
    rates.push_back(rate);
    rest.Words(" ");
  }
}

}  // namespace scope
