// browser/secrets.h: what never leaves the back end whole: secret-looking query values, header
// values that sign in, and the addresses inside a line of text.
#pragma once

#include <string>

#include "link/json.h"

namespace nurel::browser {

/// True for a name that looks like it holds a secret: token, key, code, password, secret, sig,
/// auth, session, credential (any case, anywhere in the name).
bool secretName(const std::string& name);

/// `url` with the values of its secret-looking query parameters shown as •••.
std::string maskedAddress(const std::string& url);

/// Headers with the values of cookies, authorization and token headers shown as •••.
Json maskedHeaders(const Json& headers);

/// `text` with every http(s) address in it masked as maskedAddress does.
std::string maskedText(const std::string& text);

}  // namespace nurel::browser
