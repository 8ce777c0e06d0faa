// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "errors.h"

/// What the UserError says that `call` throws; "no error" if it throws none.
template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
  } catch (const scope::UserError& error) {
    return error.what();
  }
  return "no error";
}
