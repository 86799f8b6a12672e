#pragma once

#include "app/RunOptions.h"

namespace orvane {

// Runs the whole application without a window until SIGINT or SIGTERM, printing what happens;
// returns the process's exit code. Needs a Q(Gui)Application.
int runApplication(const RunOptions& options);

} // namespace orvane
