// SPDX-License-Identifier: Apache-2.0
#include <cstdio>

#include "ormis/ormis.h"

int main() {
  Ormis::QetContext process;
  if (Ormis::QetInitialize(process, {}) != Ormis::kQetOk) return 1;
  ara::log::CreateLogger("USER", "consumer", ara::log::LogLevel::kInfo).LogInfo({__FILE__, "main", __LINE__})
      << "started";
  if (Ormis::QetRelease(process) != Ormis::kQetOk) return 1;
  return std::puts("interface of ormis works") < 0 ? 1 : 0;
}
