// SPDX-License-Identifier: Apache-2.0
#include "printable.h"

#include <cstddef>

#include "text_format.h"

namespace scope {

std::string PrintableJson(const std::string& json) {
  std::string escaped;
  for (std::size_t at = 0; at < json.size(); ++at) {
    const auto next = at + 1 < json.size() ? static_cast<unsigned char>(json[at + 1]) : 0;
    if (json[at] == '\x7f') {
      escaped += "\\u007f";
    } else if (json[at] == '\xc2' && next >= 0x80 && next < 0xa0) {
      escaped += Format("\\u%04x", next);
      ++at;
    } else {
      escaped += json[at];
    }
  }
  return escaped;
}

}  // namespace scope
