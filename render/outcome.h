// render/outcome.h: one request performed, and what came of it.
//
// Both front ends send a request the same way and take its reply in the same way: a text
// answer printed or saved, a PDF or a screenshot decoded and written, or an image handed back
// as it came. Each then presents the outcome in its own way: the command line prints a line,
// the MCP server makes a tool result.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "link/json.h"
#include "link/nurel.h"

namespace nurel {

/// What a request came to.
struct Outcome {
  /// The reply as text, or the line that says where it went: "saved 3 lines to /a/b.txt",
  /// "saved to /a/t1.pdf", or a screenshot's refs, a line feed and "saved to /a/t1.png".
  std::string text;
  /// The PDF or screenshot written, as an absolute path; empty when none was.
  std::string path;
  /// A PDF's "title" as text, or "the page" when the reply has none.
  std::optional<std::string> title;
  /// A screenshot kept inline: its PNG as the browser's base64 text, empty when the reply had
  /// none.
  std::optional<std::string> image;
  /// The labelled elements of a screenshot kept inline; empty when there are none.
  std::string refs;
};

/// A reply without what the request was for, or a request without where to put it:
/// "no PDF", "no screenshot", "file is missing: where to save the PDF".
class OutcomeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Sends `method` with `params` through `nurel` and takes the reply in. `file` is where the
/// answer goes:
/// - "pdf": only "tab" is sent (the empty string when there is none); the reply's base64
///   "pdf" is written to `file`, which must be given.
/// - "screenshot": `params` are sent as they are; with a file, the reply's base64 "png" is
///   written there, else it is handed back as `image`, with `refs`.
/// - any other method: with a file, "file" is taken out of `params` and "limit" set to 0, so
///   that the whole text is saved, not a shortened one; without, `params` go as they are.
/// Throws what `Nurel::call` throws, OutcomeError, and FileError when a file cannot be
/// written.
Outcome perform(Nurel& nurel, const std::string& method, Json params,
                const std::optional<std::string>& file);

}  // namespace nurel
