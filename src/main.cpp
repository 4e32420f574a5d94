#include <iostream>
#include <string_view>

#include "app/headless/headless_shell.h"
#include "qev/deployment.h"
#include "storage/profile.h"

#if defined(QEV_HAVE_GTK)
#include "app/gtk/gtk_shell.h"
#elif defined(QEV_HAVE_MACOS)
#include "app/macos/macos_shell.h"
#endif

namespace {

constexpr std::string_view kHelp = R"(Usage: qev [--headless | --version | --help]

A desktop client for a subscription proxy service: a tray icon and one small window.

Options:
  --headless  run without a window: one JSON message per line on standard input
              ({"id":"1","name":"getSettings","args":[]}), one answer or event per line
              on standard output
  --version   print the version and exit
  --help      print this help and exit

Environment:
  QEV_API_BASE       replaces the built-in panel API base (self-hosted panels)
  QEV_RESOURCES_DIR  the resources folder (default: ../share/qev beside the program)
  QEV_MIHOMO         the proxy core binary the launcher starts
  HOME, XDG_DATA_HOME, XDG_CONFIG_HOME
                     where the data folder and the autostart entry live
)";

}  // namespace

int main(int argc, char** argv) {
  bool headless = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "--headless") {
      headless = true;
    } else if (argument == "--version") {
      std::cout << "qev " << qev::deployment::kClientVersion << "\n";
      return 0;
    } else if (argument == "--help" || argument == "-h") {
      std::cout << kHelp;
      return 0;
    } else {
      std::cerr << "qev: unknown option " << argument << "; see qev --help\n";
      return 2;
    }
  }
  const auto environment = qev::storage::Environment::fromProcess();
  if (headless) return qev::app::runHeadless(std::cin, std::cout, std::cerr, environment);
#if defined(QEV_HAVE_GTK)
  return qev::app::runGtk(argc, argv, environment);
#elif defined(QEV_HAVE_MACOS)
  return qev::app::runMacos(environment);
#else
  std::cerr << "qev: this build has no desktop shell; run it with --headless\n";
  return 2;
#endif
}
