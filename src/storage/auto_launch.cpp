#include "storage/auto_launch.h"

#include "base/fs.h"
#include "base/strings.h"

namespace qev::storage {

std::string escapePlistString(std::string_view text) {
  // The ampersand goes first so that the entities added after it are not escaped again.
  std::string out = base::replaceAll(text, "&", "&amp;");
  out = base::replaceAll(out, "<", "&lt;");
  out = base::replaceAll(out, ">", "&gt;");
  return base::replaceAll(out, "\"", "&quot;");
}

std::string escapeDesktopExec(std::string_view path) {
  // Three layers, innermost first: the argument quoting of the Exec key, the doubled percent
  // of field codes, and the escapes of every desktop-entry string value.
  constexpr std::string_view kReserved = " \t\n\"'\\><~|&;$*?#()`";
  constexpr std::string_view kEscapedInQuotes = "\"`$\\";
  std::string argument;
  if (path.find_first_of(kReserved) == std::string_view::npos) {
    argument = path;
  } else {
    argument = "\"";
    for (const char c : path) {
      if (kEscapedInQuotes.find(c) != std::string_view::npos) argument += '\\';
      argument += c;
    }
    argument += '"';
  }
  std::string value;
  for (const char c : argument) {
    switch (c) {
      case '%':
        value += "%%";
        break;
      case '\\':
        value += "\\\\";
        break;
      case '\n':
        value += "\\n";
        break;
      case '\t':
        value += "\\t";
        break;
      case '\r':
        value += "\\r";
        break;
      default:
        value += c;
    }
  }
  return value;
}

std::string launchAgentPlist(std::string_view bundlePath) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n"
      "<dict>\n"
      "  <key>Label</key>\n"
      "  <string>com.qevjs.native</string>\n"
      "  <key>ProgramArguments</key>\n"
      "  <array>\n"
      "    <string>/usr/bin/open</string>\n"
      "    <string>";
  text += escapePlistString(bundlePath);
  text +=
      "</string>\n"
      "  </array>\n"
      "  <key>RunAtLoad</key>\n"
      "  <true/>\n"
      "</dict>\n"
      "</plist>";
  return text;
}

std::string autostartDesktopEntry(std::string_view executablePath) {
  std::string text =
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=QEV\n"
      "Exec=";
  text += escapeDesktopExec(executablePath);
  text +=
      "\n"
      "X-GNOME-Autostart-enabled=true\n";
  return text;
}

AutoLaunch::AutoLaunch(Platform platform, const Paths& paths, const SettingsStore& settings,
                       const base::Logger& log)
    : platform_(platform), paths_(paths), settings_(settings), log_(log) {}

std::string AutoLaunch::fileText() const {
  const std::string target = paths_.appBundle.string();
  return platform_ == Platform::MacOS ? launchAgentPlist(target) : autostartDesktopEntry(target);
}

std::optional<std::string> AutoLaunch::apply(bool enabled) const {
  std::error_code ec;
  const fs::path& file = paths_.launchAgent;
  if (enabled) {
    fs::create_directories(file.parent_path(), ec);
    if (ec) return base::describe(ec, file.parent_path());
    // Rewritten on every enable, so a moved application gets a fresh path.
    if ((ec = base::writeFileAtomic(file, fileText()))) return base::describe(ec, file);
  } else if (base::itemExists(file)) {
    fs::remove_all(file, ec);
    if (ec) return base::describe(ec, file);
  }
  if ((ec = settings_.update([enabled](Json& s) { s["autoLaunch"] = enabled; }))) {
    return base::describe(ec, paths_.settings);
  }
  return std::nullopt;
}

Result<Json> AutoLaunch::setAutoLaunch(bool enabled) const {
  if (const auto failure = apply(enabled)) {
    log_.message("native.autoLaunch.error: " + *failure);
    return BridgeError::system(*failure);
  }
  log_.message(std::string("native.autoLaunch.set: ") + base::boolText(enabled));
  return settings_.readSettings();
}

}  // namespace qev::storage
