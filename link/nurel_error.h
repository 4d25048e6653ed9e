// link/nurel_error.h: what goes wrong between this program and the browser.
#pragma once

#include <stdexcept>
#include <string>

namespace nurel {

/// An error of the browser link. `message` carries the browser's own error text; `lost`
/// means the socket could not be reached, written or read, so the caller must connect again
/// before its next call. Both are shown to people by their `text()`.
class NurelError : public std::runtime_error {
 public:
  static NurelError message(std::string text) { return {false, std::move(text)}; }
  static NurelError lost(std::string text) { return {true, std::move(text)}; }

  bool isLost() const { return lostConnection; }
  std::string text() const { return what(); }

 private:
  NurelError(bool lost, std::string text)
      : std::runtime_error(std::move(text)), lostConnection(lost) {}
  bool lostConnection;
};

}  // namespace nurel
