#pragma once

#include "storage/profile.h"

namespace qev::app {

// `qev --guard`: the crash guard, started by qev itself with its end of a socket on stdin.
int runGuardMode(const storage::Environment& environment);

}  // namespace qev::app
