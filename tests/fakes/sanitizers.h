#pragma once

/// What a sanitizer keeps a test from seeing, or makes too slow for it.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define STRESS_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define STRESS_THREAD_SANITIZER 1
#endif
#endif

#ifdef STRESS_ADDRESS_SANITIZER
constexpr bool kAddressSanitized = true;
#else
constexpr bool kAddressSanitized = false;
#endif
/// It has a thread of its own, and its signal() does not restart system calls; the system's does.
#ifdef STRESS_THREAD_SANITIZER
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif
/// A sanitizer takes address space and memory of its own: limits on them would hit it and not the program.
/// Another program, such as a shell, cannot load a library that is built with one.
constexpr bool kSanitized = kAddressSanitized || kThreadSanitized;
