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

EMBED(scopeChartsLibrary, SCOPE_CHARTS_LIBRARY)
EMBED(scopeChartsLicence, SCOPE_CHARTS_LICENCE)
EMBED(scopePageStyle, SCOPE_PAGE_STYLE)
EMBED(scopePageScript, SCOPE_PAGE_SCRIPT)

namespace scope {
namespace {

std::string_view Between(const char* begin, const char* end) {
  return {begin, static_cast<std::size_t>(end - begin)};
}

}  // namespace

std::string_view ChartsLibrary() {
  return Between(scopeChartsLibraryBegin, scopeChartsLibraryEnd);
}

std::string_view ChartsLibraryLicence() {
  return Between(scopeChartsLicenceBegin, scopeChartsLicenceEnd);
}

std::string_view PageStyle() {
  return Between(scopePageStyleBegin, scopePageStyleEnd);
}

std::string_view PageScript() {
  return Between(scopePageScriptBegin, scopePageScriptEnd);
}

}  // namespace scope
