#pragma once

#include "app/RunOptions.h"

namespace orvane {

// Runs the application with a plain window that shows the main camera's picture and the
// latest sentence, until the window closes (a stand-in until the real window exists);
// returns the process's exit code. Needs a QGuiApplication on a display.
int runStandInWindow(const RunOptions& options);

} // namespace orvane
