#pragma once

/// What a sanitizer keeps a test from seeing.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define STRESS_SCOPE_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define STRESS_SCOPE_THREAD_SANITIZER 1
#endif
#endif

/// It has a thread of its own. In the real benchmark it finds the unlocked average, which is required; what
/// tells it so goes by names, and the program that finds names cannot be started while the meter is
/// preloaded.
#ifdef STRESS_SCOPE_THREAD_SANITIZER
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif

/// Another program, such as a shell, cannot load a meter that is built with a sanitizer.
#ifdef STRESS_SCOPE_ADDRESS_SANITIZER
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = kThreadSanitized;
#endif
