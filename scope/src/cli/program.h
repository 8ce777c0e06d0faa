// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace scope {

/// Runs `stress_scope` with the arguments of main(). Returns the exit status.
int Main(int argc, char** argv);

}  // namespace scope
