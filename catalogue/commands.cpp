// catalogue/commands.cpp: the command table, and what is read out of it.
#include "catalogue/commands.h"

#include <algorithm>

namespace nurel {

namespace {

// Builders of the table's parts, so that each row reads as its synopsis does.

Part make(Part::Kind kind, std::string_view name, std::string_view shown) {
  Part part;
  part.kind = kind;
  part.name = name;
  part.shown = shown;
  return part;
}

// A required word, "<tab>", filling the parameter named inside the brackets, or `fills`.
Part word(std::string_view shown, std::string_view fills = {}) {
  return make(Part::Kind::word, fills.empty() ? shown.substr(1, shown.size() - 2) : fills, shown);
}

// A word inside brackets; a command's rule reads it.
Part optional(std::string_view shown, int depth = 1) {
  Part part = make(Part::Kind::word, {}, shown);
  part.depth = depth;
  return part;
}

// A word that stands for one word or more; a command's rule reads them.
Part repeated(std::string_view shown) {
  Part part = make(Part::Kind::word, {}, shown);
  part.repeats = true;
  return part;
}

// A required word that is one of `words`, filling `fills`.
Part oneOf(std::vector<std::string_view> words, std::string_view fills) {
  Part part = make(Part::Kind::word, fills, {});
  part.alternatives = std::move(words);
  return part;
}

Part flag(std::string_view name) { return make(Part::Kind::option, name, {}); }

Part flags(std::vector<std::string_view> names) {
  Part part = make(Part::Kind::option, {}, {});
  part.alternatives = std::move(names);
  return part;
}

Part valued(std::string_view name, std::string_view shown) {
  return make(Part::Kind::option, name, shown);
}

using enum Command::Kind;

}  // namespace

std::span<const Command> commands() {
  // name, kind, parts, tool, read-only, or-point, text-option, beside-previous, description
  static const std::vector<Command> table = [] {
    const Part tab = word("<tab>");
    const Part ref = word("<ref>");
    // clang-format off
    return std::vector<Command>{
      {"guide", local, {}, "", false, false, false, false,
       {"how agents drive Nurel, then these commands"}},
      {"mcp", local, {}, "", false, false, false, false,
       {"MCP server on stdin/stdout (claude mcp add nurel -- <path to nurel> mcp)"}},
      {"tabs", browser, {}, "list_tabs", true, false, false, false,
       {"the agent's tabs"}},
      {"open", browser, {word("<url>")}, "open_tab", false, false, false, false,
       {"a new tab in the Agent Space; prints its id",
        "(a local HTML file, file:///path, asks the person every time)"}},
      {"navigate", browser, {tab, word("<url>")}, "navigate", false, false, false, false,
       {"go to a page in an agent tab (file:/// as with open)"}},
      {"snapshot", browser,
       {tab, flag("interactive"), flag("viewport"), flag("diff"), valued("file", "<path>")},
       "snapshot", true, false, false, false,
       {"the page as roles and names, with refs to act on"}},
      {"click", browser, {tab, ref, flag("double"), flag("right")}, "click", false, true, false,
       false,
       {"click an element from the snapshot (or <x> <y>, CSS pixels)"}},
      {"hover", browser, {tab, ref}, "hover", false, true, false, false,
       {"the pointer over an element (or <x> <y>), for hover menus"}},
      {"drag", browser, {tab, word("<from>"), word("<to>")}, "drag", false, false, false, false,
       {"press on one and let go over the other: refs, or x,y points"}},
      {"find", browser, {tab, word("<text>")}, "find", true, false, true, false,
       {"what on the page says <text>, with refs, best first"}},
      {"inspect", browser, {tab, ref, valued("styles", "<a,b>")}, "inspect", true, false, false,
       false,
       {"an element's box, attributes and computed style"}},
      {"type", browser, {tab, valued("ref", "<ref>"), flag("replace"), word("<text>")}, "type",
       false, false, false, false,
       {"type into a field, or into what has focus"}},
      {"choose", browser, {tab, ref, word("<option>")}, "select_option", false, false, false,
       false,
       {"pick an option in a dropdown"}},
      {"key", browser, {tab, word("<key>")}, "press_key", false, false, false, false,
       {"enter, tab, space, escape, backspace, delete, arrows, home, end,",
        "pageup, pagedown, f1–f12 or a character, with modifiers:",
        "shift+tab, cmd+a, ctrl+enter"}},
      {"back", browser, {tab}, "go_back", false, false, false, false,
       {"through the tab's history"}},
      {"forward", browser, {tab}, "go_forward", false, false, false, true, {}},
      {"reload", browser, {tab, flag("hard")}, "reload", false, false, false, false,
       {"the page again (--hard: nothing from the cache)"}},
      {"scroll", browser, {tab, optional("<dy>"), optional("<dx>", 2), valued("ref", "<ref>")},
       "scroll", false, false, false, false,
       {"the wheel over the page: dy px down (negative up), a screen",
        "by default; over that element, else the middle of the screen"}},
      {"text", browser, {tab, flag("all"), valued("file", "<path>")}, "get_text", true, false,
       false, false,
       {"the page's article (Readability), or --all of its text"}},
      {"describe", browser, {tab}, "describe_page", true, false, false, false,
       {"the page in brief: headings, regions, what's on it, focus"}},
      {"wait", browser,
       {tab, valued("text", "<t>"), valued("gone", "<t>"), valued("url", "<part>"), flag("idle"),
        valued("seconds", "<n>"), valued("timeout", "<n>")},
       "wait_for", true, false, false, false,
       {"until text shows, goes, the address has <part>, the network",
        "is quiet, or n seconds"}},
      {"screenshot", browser,
       {tab, valued("file", "<path>"), flag("plain"), valued("ref", "<ref>"), flag("full")},
       "screenshot", true, false, false, false,
       {"what's on the screen as a PNG, refs labelled unless --plain;",
        "one element, or the whole page"}},
      {"pdf", browser, {tab, valued("file", "<path>")}, "save_pdf", true, false, false, false,
       {"the page as a PDF"}},
      {"console", browser,
       {tab, flag("errors"), flag("warnings"), flag("clear"), valued("limit", "<n>")},
       "console", true, false, false, false,
       {"what the page logged, and its uncaught errors"}},
      {"eval", browser, {tab, word("<script>")}, "evaluate", false, false, false, false,
       {"JavaScript in the page (a function body: return …)"}},
      {"emulate", browser,
       {tab, flags({"dark", "light", "system"}), flags({"print", "screen"}),
        valued("size", "<w>x<h>")},
       "emulate", false, false, false, false,
       {"prefers-color-scheme, CSS media, the screen's size"}},
      {"dialog", browser, {tab, oneOf({"accept", "dismiss"}, "answer"), optional("<text>")},
       "handle_dialog", false, false, false, false,
       {"answer the page's alert, confirm or prompt"}},
      {"batch", browser, {tab, word("<json>", "actions")}, "batch", false, false, false, false,
       {"several actions in order, stopping at the first that fails:",
        R"('[{"do":"type","ref":"e3","text":"hi"},{"do":"press_key","key":"enter"}]')"}},
      {"upload", browser, {tab, ref, repeated("<file>")}, "upload_file", false, false, false,
       false,
       {"give the page files (only from the folder Nurel allows)"}},
      {"signin", browser, {tab}, "sign_in", false, false, false, false,
       {"sign in with the person's saved login, after their yes and Touch ID"}},
      {"network", browser,
       {tab, valued("filter", "<part>"), flag("failed"), flag("clear"), valued("request", "<n>")},
       "network", true, false, false, false,
       {"the page's requests: method, status, type, size, time, address;",
        "one request's headers"}},
      {"downloads", browser, {tab, flag("wait")}, "downloads", true, false, false, false,
       {"what the tab downloaded, and where"}},
      {"storage", browser, {tab, flag("clear")}, "storage", false, false, false, false,
       {"the site's cookies (values hidden) and storage, or clear them"}},
      {"ask", browser, {tab, word("<message>"), valued("timeout", "<minutes>")}, "ask_person",
       false, false, false, false,
       {"ask the person to do something in the tab; wait for them"}},
      {"scenarios", browser, {}, "list_scenarios", true, false, false, false,
       {"the scenarios the person recorded (Record Steps for Agents)"}},
      {"run", browser, {tab, word("<scenario>"), valued("values", "<json>")}, "run_scenario",
       false, false, false, false,
       {"do a recorded scenario in the tab"}},
      {"media", browser, {tab, optional("<action>"), optional("<value>", 2)}, "media", false,
       false, false, false,
       {"what plays, or: play, pause, toggle, seek <s>, skip <±s>,",
        "volume <0–1>, mute, unmute, rate <×>, next, previous,",
        "fullscreen, exit_fullscreen, pip, exit_pip"}},
      {"close", browser, {tab}, "close_tab", false, false, false, false,
       {"close an agent tab"}},
      {"hello", hidden, {}, "", false, false, false, false, {}},
    };
    // clang-format on
  }();
  return table;
}

const Part& actionOption() {
  static const Part intent = valued("intent", "<why>");
  return intent;
}

std::string Part::wordShown() const {
  std::string out(shown);
  for (std::string_view word : alternatives) out += (out.empty() ? "" : "|") + std::string(word);
  return out;
}

std::vector<std::string_view> Part::optionNames() const {
  if (alternatives.empty()) return {name};
  return alternatives;
}

std::vector<std::string_view> Command::fills() const {
  std::vector<std::string_view> out;
  for (const Part& part : parts)
    if (part.kind == Part::Kind::word && !part.name.empty()) out.push_back(part.name);
  return out;
}

std::string Command::synopsis() const {
  std::string out(name);
  int open = 0;  // brackets opened by optional words and not yet closed
  for (const Part& part : parts) {
    if (part.kind == Part::Kind::option) {
      out.append(size_t(open), ']');
      open = 0;
      out += " [";
      for (std::string_view option : part.optionNames())
        out += (out.back() == '[' ? "--" : "|--") + std::string(option);
      if (!part.shown.empty()) out += " " + std::string(part.shown);
      out += ']';
      continue;
    }
    out.append(size_t(std::max(open - part.depth, 0)), ']');
    out += ' ';
    // A deeper word opens its brackets inside those of the word before it.
    for (; open < part.depth; ++open) out += '[';
    open = part.depth;
    out += part.wordShown();
    if (part.repeats) out += "...";
  }
  out.append(size_t(open), ']');
  return out;
}

const Command* findCommand(std::string_view name) {
  for (const Command& command : commands())
    if (command.name == name && command.talksToBrowser()) return &command;
  return nullptr;
}

const Command* findTool(std::string_view tool) {
  for (const Command& command : commands())
    if (!command.tool.empty() && command.tool == tool) return &command;
  return nullptr;
}

bool isValued(std::string_view name) {
  if (name == actionOption().name) return true;
  for (const Command& command : commands())
    for (const Part& part : command.parts)
      if (part.kind == Part::Kind::option && !part.shown.empty() && part.name == name) return true;
  return false;
}

}  // namespace nurel
