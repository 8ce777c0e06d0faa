#include "embedded.h"

// The paths come from the build. The assembler takes a file as it is, where a literal has a greatest length.
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
