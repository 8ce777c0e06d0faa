// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace log_test {

/// False under a sanitizer, whose allocator cannot be replaced.
bool CountsAllocations();

/// How often malloc, calloc, realloc and aligned_alloc have been called on this thread, operator new
/// included.
long AllocationsOfThisThread();
/// The next malloc of this thread returns null, if allocations are counted.
void FailNextAllocation();

}  // namespace log_test
