// SPDX-License-Identifier: Apache-2.0
#include "embedded.h"

// The build sets the paths. The assembler embeds files of any size; the length of a literal is limited.
#define EMBED(symbol, path)                                                \
  __asm__(".pushsection .rodata\n" #symbol                                 \
          "Begin:\n"                                                       \
          ".incbin \"" path "\"\n" #symbol                                 \
          "End:\n"                                                         \
          ".byte 0\n"                                                      \
          ".popsection\n");                                                \
  extern "C" {                                                             \
  __attribute__((visibility("hidden"))) extern const char symbol##Begin[]; \
  __attribute__((visibility("hidden"))) extern const char symbol##End[];   \
  }

EMBED(scopePageTemplate, SCOPE_PAGE_TEMPLATE)

namespace scope {

std::string_view PageTemplate() {
  return {scopePageTemplateBegin, static_cast<std::size_t>(scopePageTemplateEnd - scopePageTemplateBegin)};
}

}  // namespace scope
