// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "protocol.h"

/// Gives the threads of one engine CPUs of their own, if the environment asks for it (kPinVariable).
namespace scope {

/// Reads the environment. Called once, before main.
void PreparePin();

/// The calling thread begins to work on `engine`: it gets the CPUs of its engine, or loses them if they are
/// another engine's. Does nothing unless the environment asked for it.
void PinThread(Engine engine);

}  // namespace scope
