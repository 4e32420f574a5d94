#pragma once

#include "storage/profile.h"

namespace qev::app {

// Runs the menu-bar application: the status item, one window with the frontend in a web view,
// and the native bridge answering the page. Returns only if the application could not start;
// a normal quit ends the process after the bridge's shutdown.
int runMacos(const storage::Environment& environment);

}  // namespace qev::app
