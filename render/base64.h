// render/base64.h: strict base64, as the browser sends images and PDFs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nurel {

/// Decodes standard base64 ("A-Z a-z 0-9 + /", padded with "=" to a multiple of four
/// characters). Anything else, white space and line breaks included, gives nothing.
/// The empty text decodes to no bytes.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace nurel
