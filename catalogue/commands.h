// catalogue/commands.h: the commands nurel knows, in one table.
//
// Each row is one command: its words and options, the browser method it calls (the command's
// own name), the MCP tool that calls the same method, whether that tool only reads, and the
// lines that describe it. The usage text, the scanner's lookups, the shell completions, the
// manual page and the tool-to-method map are all made from this table.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nurel {

/// One piece of a synopsis: a positional word or an option, in the order the usage shows them.
struct Part {
  enum class Kind { word, option };
  Kind kind = Kind::word;
  /// A word: what it fills ("tab"); empty when a command's rule reads it. An option: its name.
  std::string_view name;
  /// A word: its placeholder ("<tab>", "<json>"). An option: the placeholder of its value
  /// ("<path>"), empty for a switch.
  std::string_view shown;
  /// An option: the switches of which one is given, shown together ("--dark|--light|--system");
  /// `name` is then empty. A word: the literal words it may be ("accept|dismiss"), in place of
  /// a placeholder.
  std::vector<std::string_view> alternatives;
  /// A word: 0 when required; 1 inside brackets, 2 inside brackets inside those.
  int depth = 0;
  /// A word that stands for any number of words ("<file>...").
  bool repeats = false;

  /// A word as the synopsis shows it: its placeholder, or its literal words joined by "|".
  std::string wordShown() const;
  /// The option names of an option part: `name`, or its alternatives.
  std::vector<std::string_view> optionNames() const;
};

/// One command of the table.
struct Command {
  enum class Kind {
    browser,  ///< one request to the browser, under the command's name
    local,    ///< answered by nurel itself (guide, mcp)
    hidden,   ///< a browser command the usage text does not list (hello)
  };
  std::string_view name;
  Kind kind = Kind::browser;
  std::vector<Part> parts;
  /// The MCP tool that calls the same method; empty when there is none.
  std::string_view tool;
  /// Whether that tool only reads (its "readOnlyHint"). Only the tool list reads this: a call
  /// never consults it. "screenshot" and "save_pdf" count as read-only although they may write
  /// the file the agent names, and "storage" does not, since it can clear a site's data.
  bool readOnly = false;
  /// Three positional words make a point: tab, x, y instead of the command's own words.
  bool orPoint = false;
  /// The last word may be given as --text instead (find).
  bool textOption = false;
  /// Shown after " | " on the line of the command before it, sharing its description.
  bool besidePrevious = false;
  /// The lines that describe it in the usage text.
  std::vector<std::string_view> description;

  /// The parameter names that the positional words fill, in order.
  std::vector<std::string_view> fills() const;
  /// The synopsis as the usage shows it: "snapshot <tab> [--interactive] [--file <path>]".
  std::string synopsis() const;
  bool talksToBrowser() const { return kind != Kind::local; }
};

/// Every command, in the order of the usage text (`hello`, hidden, last).
std::span<const Command> commands();

/// The option every browser command takes: --intent <why>.
const Part& actionOption();

/// The browser command called `name` (matched exactly, case-sensitively), or null. `guide` and
/// `mcp` are not browser commands.
const Command* findCommand(std::string_view name);

/// The command whose method the MCP tool `tool` calls, or null.
const Command* findTool(std::string_view tool);

/// Whether the option `--name` takes the next word as its value, for any command.
bool isValued(std::string_view name);

}  // namespace nurel
