// render/base64.h: strict base64, as the browser sends images and PDFs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "link/json.h"

namespace nurel {

/// Decodes standard base64 ("A-Z a-z 0-9 + /", padded with "=" to a multiple of four
/// characters). Anything else, white space and line breaks included, gives nothing.
/// The empty text decodes to no bytes.
std::optional<std::string> decodeBase64(std::string_view text);

/// Decodes `text` into its own buffer, which then holds the decoded bytes, so that a large
/// image needs no second buffer. Returns false, leaving `text` garbled, where `decodeBase64`
/// would give nothing.
bool decodeBase64InPlace(std::string& text);

/// `decodeBase64InPlace` without the AVX2 loop, for measuring what that loop saves
/// (bench/json_speed.cpp).
bool decodeBase64InPlaceScalar(std::string& text);

/// Takes the base64 text of the member `key` out of `reply` and decodes it in place: the bytes
/// of an image or a PDF, or nothing when `reply` is not an object, or the member is missing,
/// not a string or not base64.
std::optional<std::string> takeDecoded(Json& reply, const char* key);

}  // namespace nurel
