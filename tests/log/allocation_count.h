// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace log_test {

/// False under a sanitizer, whose allocator cannot be replaced.
bool CountsAllocations();

/// How often malloc, calloc, realloc and aligned_alloc have been called on this thread, operator new
/// included.
long AllocationsOfThisThread();

}  // namespace log_test
