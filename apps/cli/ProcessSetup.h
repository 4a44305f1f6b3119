#pragma once

namespace vorrel::cli {

/// Makes the process one in which nothing surprising can happen to descriptors and writes. First
/// thing in `main`: descriptors 0 to 2 that the parent has closed are opened on /dev/null, so that
/// no file or pipe of ours takes their place and reads our own messages; a write past a limit of
/// file size, or to a reader that has gone, fails instead of ending the process; as many
/// descriptors as the process may have.
/// @return Whether stdout was closed.
bool PrepareProcess();

}  // namespace vorrel::cli
