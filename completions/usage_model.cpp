// completions/usage_model.cpp: reading synopses and descriptions out of the usage text.
#include "completions/usage_model.h"

#include <algorithm>
#include <cctype>

namespace nurel {

namespace {

std::string trim(std::string_view text) {
  size_t begin = text.find_first_not_of(' ');
  if (begin == std::string_view::npos) return "";
  size_t end = text.find_last_not_of(' ');
  return std::string(text.substr(begin, end - begin + 1));
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t end = text.find(separator, start);
    out.emplace_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) return out;
    start = end + 1;
  }
}

// One piece of a synopsis: a bracketed group, a placeholder or a bare word.
struct Item {
  enum class Kind { group, placeholder, word } kind;
  std::string text;
  std::vector<Item> children;  // of a group
  size_t begin = 0, end = 0;   // where it stands in the line
};

class SynopsisReader {
 public:
  explicit SynopsisReader(std::string_view text) : text(text) {}

  // The items of the synopsis at the start of the text, stopping before the first word that
  // cannot belong to one; `end` is then where the description begins.
  std::vector<Item> read(size_t& end) {
    std::vector<Item> items;
    items.push_back(word());  // the command's name
    bool needName = false;
    for (;;) {
      size_t before = pos;
      skipSpaces();
      if (pos == text.size() || !(needName || startsItem())) {
        if (needName) throw UsageFormatError("a command is missing after '|'");
        pos = before;
        break;
      }
      items.push_back(needName ? word() : item());
      needName = items.back().kind == Item::Kind::word && items.back().text == "|";
    }
    end = pos;
    return items;
  }

 private:
  std::string_view text;
  size_t pos = 0;

  void skipSpaces() {
    while (pos < text.size() && text[pos] == ' ') ++pos;
  }

  bool endsWord(char c) const { return c == ' ' || c == '[' || c == ']'; }

  // Whether the next word can be part of a synopsis (the description's words cannot).
  bool startsItem() const {
    char c = text[pos];
    if (c == '[' || c == '<') return true;
    size_t end = pos;
    while (end < text.size() && !endsWord(text[end])) ++end;
    std::string_view next = text.substr(pos, end - pos);
    return next.starts_with("--") || next.find('|') != std::string_view::npos;
  }

  Item word() {
    Item out{Item::Kind::word, "", {}, pos, pos};
    while (pos < text.size() && !endsWord(text[pos])) ++pos;
    out.text = std::string(text.substr(out.begin, pos - out.begin));
    out.end = pos;
    if (out.text.empty()) throw UsageFormatError("a synopsis word is missing");
    return out;
  }

  Item item() {
    if (text[pos] == '[') return group();
    if (text[pos] != '<') return word();
    Item out{Item::Kind::placeholder, "", {}, pos, pos};
    size_t close = text.find('>', pos);
    if (close == std::string_view::npos) throw UsageFormatError("'<' without '>'");
    pos = close + 1;
    // "<w>x<h>" and "<file>..." are one placeholder each
    while (pos < text.size() && !endsWord(text[pos])) ++pos;
    out.text = std::string(text.substr(out.begin, pos - out.begin));
    out.end = pos;
    return out;
  }

  Item group() {
    Item out{Item::Kind::group, "", {}, pos, pos};
    ++pos;
    for (;;) {
      skipSpaces();
      if (pos == text.size()) throw UsageFormatError("'[' without ']'");
      if (text[pos] == ']') break;
      out.children.push_back(item());
    }
    ++pos;
    out.text = std::string(text.substr(out.begin, pos - out.begin));
    out.end = pos;
    return out;
  }
};

void addOption(UsageCommand& command, UsageOption option) {
  auto same = [&](const UsageOption& o) { return o.name == option.name; };
  if (std::none_of(command.options.begin(), command.options.end(), same))
    command.options.push_back(std::move(option));
}

// Words and options of a command, from its items (those of groups being optional).
void collect(const std::vector<Item>& items, bool optional, UsageCommand& command) {
  for (size_t i = 0; i < items.size(); ++i) {
    const Item& item = items[i];
    if (item.kind == Item::Kind::group) {
      collect(item.children, true, command);
    } else if (item.kind == Item::Kind::placeholder) {
      UsageWord word{item.text, {}, optional, item.text.ends_with("...")};
      if (word.repeats) word.placeholder.resize(word.placeholder.size() - 3);
      command.words.push_back(std::move(word));
    } else if (item.text.starts_with("--")) {
      std::vector<std::string> names = split(item.text, '|');
      bool valued =
          names.size() == 1 && i + 1 < items.size() && items[i + 1].kind == Item::Kind::placeholder;
      for (const std::string& name : names) {
        if (name.size() < 3 || !name.starts_with("--"))
          throw UsageFormatError("'" + item.text + "' mixes options and words");
        addOption(command, {name.substr(2), valued ? items[i + 1].text : ""});
      }
      if (valued) ++i;
    } else if (item.text.find('|') != std::string::npos) {
      command.words.push_back({item.text, split(item.text, '|'), optional, false});
    } else {
      throw UsageFormatError("unexpected word '" + item.text + "' in a synopsis");
    }
  }
}

UsageEntry readEntry(std::string_view line) {
  SynopsisReader reader(line);
  size_t end = 0;
  std::vector<Item> items = reader.read(end);
  UsageEntry entry;
  entry.synopsis = trim(line.substr(0, end));
  if (std::string rest = trim(line.substr(end)); !rest.empty()) entry.description.push_back(rest);
  // "back <tab> | forward <tab>": each command gets the items up to the next "|"
  size_t first = 0;
  for (size_t i = 0; i <= items.size(); ++i) {
    if (i < items.size() && !(items[i].kind == Item::Kind::word && items[i].text == "|")) continue;
    UsageCommand command;
    command.name = items[first].text;
    command.synopsis =
        std::string(line.substr(items[first].begin, items[i - 1].end - items[first].begin));
    collect({items.begin() + first + 1, items.begin() + i}, false, command);
    entry.commands.push_back(std::move(command));
    first = i + 1;
  }
  return entry;
}

// "(actions take --intent <why>, shown over the page)": every "--name <value>" of the line.
std::vector<UsageOption> headerOptions(std::string_view header) {
  std::vector<UsageOption> out;
  for (size_t at = header.find(" --"); at != std::string_view::npos;
       at = header.find(" --", at + 1)) {
    size_t begin = at + 3, end = begin;
    while (end < header.size() && (std::isalnum(static_cast<unsigned char>(header[end])) ||
                                   header[end] == '-' || header[end] == '_'))
      ++end;
    if (end == begin) continue;
    UsageOption option{std::string(header.substr(begin, end - begin)), ""};
    if (header.substr(end).starts_with(" <")) {
      size_t close = header.find('>', end);
      if (close != std::string_view::npos) option.value = header.substr(end + 1, close - end);
    }
    out.push_back(std::move(option));
  }
  return out;
}

}  // namespace

UsageModel readUsage(std::string_view usage) {
  std::vector<std::string_view> all = lines(usage);
  if (all.empty() || !all.front().starts_with("Usage: "))
    throw UsageFormatError("the usage text does not start with 'Usage: '");
  UsageModel model;
  model.actionOptions = headerOptions(all.front());
  for (size_t i = 1; i < all.size(); ++i) {
    std::string_view line = all[i];
    if (trim(line).empty()) continue;
    if (!line.starts_with("  ")) throw UsageFormatError("unindented line: " + std::string(line));
    if (line[2] != ' ') {
      model.entries.push_back(readEntry(line.substr(2)));
    } else if (model.entries.empty()) {
      throw UsageFormatError("a description before any command");
    } else {
      model.entries.back().description.push_back(trim(line));
    }
  }
  return model;
}

bool namesFile(std::string_view placeholder) {
  return placeholder == "<file>" || placeholder == "<path>";
}

std::vector<const UsageCommand*> commandsOf(const UsageModel& model) {
  std::vector<const UsageCommand*> out;
  for (const UsageEntry& entry : model.entries)
    for (const UsageCommand& command : entry.commands) {
      auto same = [&](const UsageCommand* c) { return c->name == command.name; };
      if (std::none_of(out.begin(), out.end(), same)) out.push_back(&command);
    }
  return out;
}

std::vector<UsageOption> optionsOf(const UsageModel& model, const UsageCommand& command,
                                   const IsBrowserCommand& isBrowserCommand) {
  UsageCommand copy = command;
  if (isBrowserCommand(command.name))
    for (const UsageOption& option : model.actionOptions) addOption(copy, option);
  return copy.options;
}

}  // namespace nurel
