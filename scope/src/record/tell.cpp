// SPDX-License-Identifier: Apache-2.0
#include "tell.h"

#include <iostream>

#include "printable.h"

namespace scope {

void Tell(const std::string& text) {
  std::cerr << "stress_scope: " << Printable(text) << std::endl;
}

}  // namespace scope
