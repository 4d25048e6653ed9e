// browser/secrets.cpp: masking secrets in addresses, headers and lines.
#include "browser/secrets.h"

#include <algorithm>

namespace nurel::browser {

namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), ::tolower);
  return text;
}

}  // namespace

bool secretName(const std::string& name) {
  std::string lower = lowered(name);
  for (const char* word : {"token", "key", "code", "password", "passwd", "secret", "sig", "auth",
                           "session", "credential"})
    if (lower.find(word) != std::string::npos) return true;
  return false;
}

std::string maskedAddress(const std::string& url) {
  size_t query = url.find('?');
  if (query == std::string::npos) return url;
  size_t end = url.find('#', query);
  std::string out = url.substr(0, query + 1);
  std::string rest = url.substr(query + 1, end == std::string::npos ? std::string::npos : end - query - 1);
  size_t start = 0;
  while (start <= rest.size()) {
    size_t amp = rest.find('&', start);
    std::string pair = rest.substr(start, amp == std::string::npos ? std::string::npos : amp - start);
    size_t equals = pair.find('=');
    std::string key = pair.substr(0, equals);
    out += secretName(key) && equals != std::string::npos ? key + "=•••" : pair;
    if (amp == std::string::npos) break;
    out += '&';
    start = amp + 1;
  }
  if (end != std::string::npos) out += url.substr(end);
  return out;
}

Json maskedHeaders(const Json& headers) {
  Json out = Json::object();
  if (!headers.is_object()) return out;
  for (auto& [name, value] : headers.items()) {
    std::string lower = lowered(name);
    bool secret = lower == "cookie" || lower == "set-cookie" || lower == "authorization" ||
                  lower == "proxy-authorization" || lower.find("token") != std::string::npos ||
                  lower.find("api-key") != std::string::npos;
    out[name] = secret ? Json("•••") : value;
  }
  return out;
}

std::string maskedText(const std::string& text) {
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    size_t http = text.find("http", at);
    if (http == std::string::npos) break;
    bool address = text.compare(http, 7, "http://") == 0 || text.compare(http, 8, "https://") == 0;
    if (!address) {
      out += text.substr(at, http + 4 - at);
      at = http + 4;
      continue;
    }
    size_t end = text.find_first_of(" \t\r\n\"'<>", http);
    if (end == std::string::npos) end = text.size();
    out += text.substr(at, http - at) + maskedAddress(text.substr(http, end - http));
    at = end;
  }
  return out + text.substr(std::min(at, text.size()));
}

}  // namespace nurel::browser
