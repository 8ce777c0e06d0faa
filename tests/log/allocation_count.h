#pragma once

namespace log_test {

/// False under a sanitizer, which has the allocator to itself.
bool CountsAllocations();

/// Calls of malloc and its kin on this thread so far; operator new ends there, too.
long AllocationsOfThisThread();

}  // namespace log_test
