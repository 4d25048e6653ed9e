// cli/usage.cpp: the usage text, the program's only help, written from the command table. It
// has no final line feed: the routines that print it add one.
#include "cli/usage.h"

#include "catalogue/commands.h"

namespace nurel {

namespace {

// Descriptions start in this column; a longer synopsis has its description on the next lines.
constexpr size_t descriptionColumn = 31;
const std::string indent = "  ";

void addEntry(std::string& out, const std::string& synopsis,
              const std::vector<std::string_view>& description) {
  const std::string margin(descriptionColumn, ' ');
  out += "\n" + indent + synopsis;
  size_t first = 0;
  if (indent.size() + synopsis.size() < descriptionColumn && !description.empty()) {
    out.append(descriptionColumn - indent.size() - synopsis.size(), ' ');
    out += description[first++];
  }
  for (size_t i = first; i < description.size(); ++i)
    out += "\n" + margin + std::string(description[i]);
}

std::string written() {
  const Part& intent = actionOption();
  std::string out = "Usage: nurel <command>   (actions take --" + std::string(intent.name) +
                    " " + std::string(intent.shown) + ", shown over the page)";
  for (const UsageEntry& entry : usageEntries()) addEntry(out, entry.synopsis, entry.description);
  return out;
}

}  // namespace

std::vector<UsageEntry> usageEntries() {
  std::vector<UsageEntry> entries;
  for (const Command& command : commands()) {
    if (command.kind == Command::Kind::hidden) continue;
    if (command.besidePrevious && !entries.empty()) {
      entries.back().synopsis += " | " + command.synopsis();
      entries.back().commands.push_back(&command);
      continue;
    }
    entries.push_back({command.synopsis(), command.description, {&command}});
  }
  return entries;
}

const std::string& usage() {
  static const std::string text = written();
  return text;
}

}  // namespace nurel
