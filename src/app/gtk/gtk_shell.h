#pragma once

#include "storage/profile.h"

namespace qev::app {

// Runs the desktop application: one window with the frontend in a web view, a tray item, and
// the native bridge answering the page. A second start shows the running instance's window.
// Returns the process exit code once the application has shut down.
int runGtk(int argc, char** argv, const storage::Environment& environment);

}  // namespace qev::app
