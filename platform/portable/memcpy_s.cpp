// SPDX-License-Identifier: Apache-2.0
#include "ormis/memcpy_s.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "stream_copy.h"

int memcpy_s(void* destination, std::size_t destinationMax, const void* source, std::size_t count) {
  if (destination == nullptr) return EINVAL;
  if (destinationMax > kMemcpySMax) return ERANGE;

  int error = 0;
  const auto to = reinterpret_cast<std::uintptr_t>(destination);
  const auto from = reinterpret_cast<std::uintptr_t>(source);
  if (source == nullptr) {
    error = EINVAL;
  } else if (count > destinationMax) {  // covers a count above kMemcpySMax, too
    error = ERANGE;
  } else if (std::max(to, from) - std::min(to, from) < count) {
    error = EOVERFLOW;
  }
  if (error != 0) {
    std::memset(destination, 0, destinationMax);
    return error;
  }
  // Large copies are there to load memory: see stream_copy.h.
  Ormis::portable::CopyToMemory(destination, source, count);
  return 0;
}
