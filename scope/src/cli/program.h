#pragma once

namespace scope {

/// The program: does what the arguments of main say, and returns the exit status.
int Main(int argc, char** argv);

}  // namespace scope
