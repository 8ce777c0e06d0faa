// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// What every header of the platform needs: the mark of exported names, and the check of the standard
/// library.

#include <cstddef>
#include <map>
#include <string>

/// Marks what the platform library exports. All its other symbols are hidden.
#define ORMIS_API __attribute__((visibility("default")))

// The records of this interface have the layout of LLVM's libc++ (24-byte strings and maps). With another
// standard library every record would silently have another size.
static_assert(sizeof(std::string) == 24 && sizeof(std::map<std::string, int>) == 24 && sizeof(void*) == 8,
              "the platform's records need a 64-bit target and libc++: build with clang++ -stdlib=libc++");
