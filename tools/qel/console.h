// `qel node`: one node driven by console lines, on the library's event loop.
#pragma once

#include "options.h"

namespace qelcli {

// Checks the settings, starts the node, reads commands from stdin (none
// with --no-console) until `quit`, end of input, SIGINT or SIGTERM, shuts
// the node down and returns the exit code.
int RunNode(const NodeOptions& options);

}  // namespace qelcli
