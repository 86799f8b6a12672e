#pragma once

#include "app/RunOptions.h"

namespace orvane {

// Runs the application in its window until the window closes, printing what happens one
// sentence a line as headless mode does; returns the process's exit code. Needs a
// QApplication.
int runWindow(const RunOptions& options);

} // namespace orvane
