// SPDX-License-Identifier: Apache-2.0

// Only builds with a sanitizer link this into the program that tries models: a limit of its memory, in place
// of that of its address space.
#define SANITIZER_HOOK extern "C" __attribute__((visibility("default")))

constexpr char kOptions[] = "hard_rss_limit_mb=4096:allocator_may_return_null=1";

SANITIZER_HOOK const char* __asan_default_options() {
  return kOptions;
}

SANITIZER_HOOK const char* __tsan_default_options() {
  return kOptions;
}
