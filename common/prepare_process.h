// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace stress {

/// Makes this process independent of how it was started. The first call of main, before anything is opened:
/// - Descriptors 0 to 2 are open. One that was closed now refuses reads and writes. Otherwise the next file
///   that is opened would get its number, and messages would be written into that file.
/// - SIGCHLD is not ignored, so that this process can wait for its children.
/// - SIGXFSZ is ignored: a write beyond the limit of a file's size fails with EFBIG and does not kill the
///   process. Started programs inherit this unless the child calls RestoreSignals.
void PrepareProcess();

/// Between fork and exec: undoes what PrepareProcess did to SIGXFSZ. Safe in a signal handler.
void RestoreSignals();

}  // namespace stress
