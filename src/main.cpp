#include <cstring>
#include <iostream>

#include "app/guard_mode.h"
#include "app/headless/headless_shell.h"
#include "guard/crash_guard.h"
#include "storage/profile.h"

#ifdef QEV_HAVE_GTK
#include "app/gtk/gtk_shell.h"
#endif

int main(int argc, char** argv) {
  const auto environment = qev::storage::Environment::fromProcess();
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], qev::guard::kGuardArgument) == 0) {
      return qev::app::runGuardMode(environment);
    }
    if (std::strcmp(argv[i], "--headless") == 0) {
      return qev::app::runHeadless(std::cin, std::cout, std::cerr, environment);
    }
  }
#ifdef QEV_HAVE_GTK
  return qev::app::runGtk(argc, argv, environment);
#else
  std::cerr << "qev: this build has no desktop shell; run it with --headless\n";
  return 2;
#endif
}
