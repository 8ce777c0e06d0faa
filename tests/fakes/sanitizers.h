// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Which sanitizer the tests are built with. Some tests cannot see through one, or are too slow with it.
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
/// ThreadSanitizer adds a thread to the program. After its signal() an interrupted system call is not
/// restarted; after the system's signal() it is.
#ifdef STRESS_THREAD_SANITIZER
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif
/// A sanitizer needs much address space and memory itself, so limits on them would stop the sanitizer and not
/// the program. A program without it, such as a shell, cannot load a library that is built with it.
constexpr bool kSanitized = kAddressSanitized || kThreadSanitized;
