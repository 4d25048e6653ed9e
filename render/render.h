// render/render.h: a browser reply as text, and text saved to a file.
#pragma once

#include <string>
#include <string_view>

#include "link/json.h"

namespace nurel {

/// A reply as people read it. A string is returned as it is; an array or object as JSON
/// indented by two spaces with every object's keys sorted bytewise, "/" unescaped, non-ASCII
/// as UTF-8 and invalid UTF-8 replaced by U+FFFD; anything else in its JSON spelling ("null",
/// "true", "12.5", a largeInteger() in its own characters). Never fails.
std::string printed(const Json& value);

/// Writes `text` and one line feed to `path` ("~" expanded, relative to the current folder)
/// atomically, and returns "saved <n> lines to <absolute path>", n counting the non-empty lines
/// of `text`. Throws FileError when the file cannot be written; no partial file is left.
std::string save(const std::string& text, const std::string& path);

/// Writes `bytes` to `path` ("~" expanded, relative to the current folder), replacing the file
/// as a whole: a regular file is written beside the target and renamed over it, so a failure
/// leaves the old content; a device or pipe is written directly. Returns the absolute path.
/// Throws FileError ("couldn't write <path>: <reason>"; "invalid argument" for a path holding a
/// NUL byte, which names no file).
std::string writeFile(const std::string& path, std::string_view bytes);

/// Writes all of `bytes` to descriptor `fd`, retrying short and interrupted writes and waiting
/// while a non-blocking descriptor is full; false on an error.
bool writeAll(int fd, std::string_view bytes);

/// Waits until `fd` is ready for `events` (POLLIN, POLLOUT), or has failed or been closed.
void waitFor(int fd, short events);

/// A file that could not be written; `text()` is one lower-case line, with the path whole.
class FileError : public TextError {
 public:
  using TextError::TextError;
};

}  // namespace nurel
