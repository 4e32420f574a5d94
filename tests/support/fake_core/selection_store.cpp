#include "selection_store.h"

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace fake_core {

SelectionStore::SelectionStore(std::filesystem::path file) : file_(std::move(file)) {
  std::ifstream in(file_, std::ios::binary);
  if (!in) return;
  std::ostringstream content;
  content << in.rdbuf();
  const auto stored = nlohmann::json::parse(content.str(), nullptr, false);
  if (!stored.is_object() || !stored.contains("selected") || !stored["selected"].is_object())
    return;
  for (const auto& [group, member] : stored["selected"].items()) {
    if (member.is_string()) selected_[group] = member.get<std::string>();
  }
}

void SelectionStore::remember(const std::string& group, const std::string& member) {
  selected_[group] = member;
  const nlohmann::json stored = {{"selected", selected_}};
  const std::filesystem::path temporary = file_.string() + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) return;
    out << stored.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
  }
  std::error_code ec;
  std::filesystem::rename(temporary, file_, ec);
}

}  // namespace fake_core
