// browser/address.cpp: a remote browser's address as it may be shown, in the back end and in the
// WebSocket module alike.
#include "browser/remote.h"

namespace nurel::browser {

std::string shownAddress(const std::string& url) {
  size_t colon = url.find("://");
  if (colon == std::string::npos) {
    // Not an address: its scheme at most, which holds no secret.
    size_t end = url.find(':');
    return end == std::string::npos || end > 10 ? "an address without a scheme" : url.substr(0, end + 1) + "…";
  }
  std::string rest = url.substr(colon + 3);
  size_t slash = rest.find_first_of("/?#");
  std::string authority = rest.substr(0, slash);
  std::string path = slash == std::string::npos ? "" : rest.substr(slash);
  if (size_t at = authority.rfind('@'); at != std::string::npos) authority = "…@" + authority.substr(at + 1);
  size_t cut = path.find_first_of("?#");
  if (cut != std::string::npos) path = path.substr(0, cut) + (path[cut] == '?' ? "?…" : "");
  return url.substr(0, colon + 3) + authority + path;
}

}  // namespace nurel::browser
