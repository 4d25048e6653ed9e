// browser/scripts.h: JavaScript the back end runs in pages, read into the program at build time
// from browser/scripts/ and the pinned npm packages of browser/package-lock.json.
#pragma once

#include <string_view>

namespace nurel::browser::scripts {

extern const std::string_view readability;  // Readability.js: defines the class Readability
extern const std::string_view text;         // (all) => the page's text
extern const std::string_view describe;     // an expression: the page in brief
extern const std::string_view page;         // defines __nurel: snapshots, refs, actions' helpers
extern const std::string_view banner;       // (kind, message, seconds): shown to the person
extern const std::string_view media;        // (action, value) => the page's media, after it

}  // namespace nurel::browser::scripts
