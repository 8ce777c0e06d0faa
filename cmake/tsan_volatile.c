// SPDX-License-Identifier: Apache-2.0

/* The thread sanitizer's hooks for volatile accesses, which do nothing: the stop flag is a plain volatile int
 * that is read and written without lock or atomic operation, which is deliberate: tests enforce it. Besides
 * it nothing volatile is shared but a flag that signal handlers set, so little else escapes the sanitizer. */

#define HOOK(name)           \
  void name(void* address);  \
  void name(void* address) { \
    (void)address;           \
  }

HOOK(__tsan_volatile_read1)
HOOK(__tsan_volatile_read2)
HOOK(__tsan_volatile_read4)
HOOK(__tsan_volatile_read8)
HOOK(__tsan_volatile_read16)
HOOK(__tsan_volatile_write1)
HOOK(__tsan_volatile_write2)
HOOK(__tsan_volatile_write4)
HOOK(__tsan_volatile_write8)
HOOK(__tsan_volatile_write16)
