// completions/manual.cpp: roff for the commands of the usage text.
#include "completions/manual.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "catalogue/catalogue.h"

namespace nurel {

namespace {

// The code point of the UTF-8 sequence at `at`, advancing past it; U+FFFD for a bad one.
char32_t decode(std::string_view text, size_t& at) {
  unsigned char lead = static_cast<unsigned char>(text[at++]);
  int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : -1;
  if (extra < 0) return 0xFFFD;
  char32_t code = lead & (0x3F >> extra);
  for (int i = 0; i < extra; ++i) {
    if (at >= text.size() || (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80) return 0xFFFD;
    code = (code << 6) | (static_cast<unsigned char>(text[at++]) & 0x3F);
  }
  return code;
}

std::string escaped(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    char c = text[at];
    if (static_cast<unsigned char>(c) >= 0x80) {
      char code[16];
      std::snprintf(code, sizeof code, "\\[u%04X]", static_cast<unsigned>(decode(text, at)));
      out += code;
      continue;
    }
    ++at;
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";  // a minus sign: options stay typable when copied from the page
    } else if (c == '\'') {
      out += "\\(aq";  // a straight apostrophe, not a typographic quote
    } else {
      out += c;
    }
  }
  return out;
}

bool isNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
}

}  // namespace

std::string breakable(std::string_view line) {
  std::string out;
  size_t start = 0;
  while (start <= line.size()) {
    size_t end = std::min(line.find(' ', start), line.size());
    std::string_view word = line.substr(start, end - start);
    for (char c : word) {
      out += c;
      if (c == ',' && word.size() > longWord) out += "\\:";
    }
    if (end == line.size()) break;
    out += ' ';
    start = end + 1;
  }
  return out;
}

std::string roffText(std::string_view text) {
  std::string out = escaped(text);
  if (!out.empty() && (out.front() == '.' || out.front() == '\'')) out.insert(0, "\\&");
  return out;
}

std::string roffSynopsis(std::string_view synopsis) {
  std::string out;
  for (size_t at = 0; at < synopsis.size();) {
    char c = synopsis[at];
    bool wordStart =
        at == 0 || synopsis[at - 1] == ' ' || synopsis[at - 1] == '[' || synopsis[at - 1] == '|';
    size_t end = at;
    if (c == '<' && (end = synopsis.find('>', at)) != std::string_view::npos) {
      out += "\\fI" + escaped(synopsis.substr(at, end + 1 - at)) + "\\fR";
      at = end + 1;
    } else if (wordStart && isNameChar(c)) {
      while (end < synopsis.size() && isNameChar(synopsis[end])) ++end;
      out += "\\fB" + escaped(synopsis.substr(at, end - at)) + "\\fR";
      at = end;
    } else {
      out += escaped(synopsis.substr(at, 1));
      ++at;
    }
  }
  return out;  // it starts with \fB, never with a control character
}

std::string manualCommands(const std::vector<UsageEntry>& entries) {
  std::string out;
  for (const UsageEntry& entry : entries) {
    out += ".TP\n" + roffSynopsis(entry.synopsis) + "\n";
    for (std::string_view line : entry.description) out += breakable(roffText(line)) + "\n";
  }
  return out;
}

std::string manualBatch() {
  std::string out;
  for (const std::string& line : batchVocabulary()) {
    size_t colon = line.find(':');
    std::string name = line.substr(0, colon == std::string::npos ? line.find(' ') : colon);
    std::string fields = colon == std::string::npos ? "(no fields)" : line.substr(colon + 2);
    out += ".TP\n\\fB" + roffText(name) + "\\fR\n" + roffText(fields) + "\n";
  }
  return out;
}

std::string manualPage(std::string_view page, const std::vector<UsageEntry>& entries) {
  std::string out;
  bool filled = false;
  size_t start = 0;
  while (start < page.size()) {
    size_t end = page.find('\n', start);
    std::string_view line = page.substr(start, end == std::string_view::npos ? end : end - start);
    if (line == "@COMMANDS@") {
      out += manualCommands(entries);
      filled = true;
    } else if (line == "@BATCH@") {
      out += manualBatch();
    } else {
      out += std::string(line) + "\n";
    }
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  if (!filled) throw ManualError("the manual page has no @COMMANDS@ line");
  return out;
}

}  // namespace nurel
