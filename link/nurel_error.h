// link/nurel_error.h: what goes wrong between this program and the browser.
#pragma once

#include <string>

#include "link/text_error.h"

namespace nurel {

/// An error of the browser link. `message` carries the browser's own error text; `lost`
/// means the socket could not be reached, written or read, so the caller must connect again
/// before its next call. Both are shown to people by their `text()`, every byte of it.
class NurelError : public TextError {
 public:
  static NurelError message(std::string text) { return {false, std::move(text)}; }
  static NurelError lost(std::string text) { return {true, std::move(text)}; }

  bool isLost() const { return lostConnection; }

 private:
  NurelError(bool lost, std::string text) : TextError(std::move(text)), lostConnection(lost) {}
  bool lostConnection;
};

}  // namespace nurel
