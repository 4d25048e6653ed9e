// fuzz/checks.h: what must hold for any input on each surface that reads from outside.
//
// Each check takes raw bytes, runs them through the program's own code and returns an empty
// string when everything held, or a sentence saying what went wrong. The libFuzzer targets
// abort on a non-empty answer; the unit tests replay every file of fuzz/corpus/ through the
// same checks, so an input that once failed stays a test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nurel::fuzz {

/// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool validUtf8(std::string_view text);

/// `text` cut at each line feed, as a reader of lines cuts a stream: every piece without its
/// line feed, the one after the last line feed too (so an empty text is one empty line).
std::vector<std::string_view> splitAtLineFeeds(std::string_view text);

/// The start of `text`, for a message: at most 300 bytes, and "..." when there was more.
std::string shortened(std::string_view text);

/// The command line. The first byte picks the command from the table, the rest is the argument
/// vector, words separated by NUL bytes. Scanning and the command rules must end in parameters
/// (an object that serialises and reads back as itself) or in one UsageError. A JsonError from
/// serialising is allowed only when some argument is not valid UTF-8.
std::string checkCommandLine(const uint8_t* data, size_t size);

/// The MCP line handler. The input is split at line feeds as the server's loop splits it; each
/// line gets at most one answer: exactly when it is a JSON object with an "id", one line of
/// JSON-RPC 2.0 with that id and either a "result" or an "error". Tool calls go to a socket where
/// nothing listens, with a launch that starts nothing and never sleeps, so they fail quickly.
std::string checkMcpLines(const uint8_t* data, size_t size);

/// The browser reply reader. The input is the whole byte stream the browser sends before it
/// hangs up. Calls are made until one reports the lost connection; each must end with a
/// result, a NurelError or a JsonError. With AddressSanitizer the peak of live heap bytes
/// during the calls must stay within a fixed multiple of the input's size.
std::string checkReplyStream(const uint8_t* data, size_t size);

/// Rendering. The bytes are read as a JSON document when the first byte is '{' or '[', else
/// decoded into a value (strings may hold any bytes). `printed` of an array or object must be
/// valid UTF-8 that parses back to the same value (when all its strings are valid UTF-8), or to
/// some array or object (when they are not, since invalid bytes are replaced).
std::string checkPrinted(const uint8_t* data, size_t size);

// The back end's (fuzz/browser_checks.cpp, Linux only).

/// The back end's request lines. The input is split at line feeds as a connection's lines are;
/// each goes through respond() to a back end that cannot start Chromium. A line gets an answer
/// exactly when it is a JSON object with an "id": one line of valid UTF-8 that reads back as
/// {"id": the same id, "result" or a non-empty "error"}. No request may start Chromium.
std::string checkRequestLines(const uint8_t* data, size_t size);

/// What the back end makes of a page's snapshot text: the diff against the last one and the cut
/// at a limit. The first byte picks diff and the limit, the next two where the input splits
/// into the last snapshot and this one. The diff must count and show the least lines added and
/// removed; a cut one keeps the start at a line's end within the limit and says so; valid UTF-8
/// stays valid.
std::string checkSnapshotAnswer(const uint8_t* data, size_t size);

}  // namespace nurel::fuzz
