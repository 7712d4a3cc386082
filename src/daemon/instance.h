// SPDX-License-Identifier: ISC
//
// The check that keeps a second daemon from starting. Called by main() alone.
#pragma once

namespace fwupdate
{

// Asks pidof for processes called `name` (the daemon's own argv[0]). 0 when there
// is none but this process; 1 when there is another, and also when pidof lists
// nothing, not even this process: then the check itself has failed.
int is_already_running(const char *name);

} // namespace fwupdate
