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
  enum class Kind { message, lost };

  static NurelError message(std::string text) { return {Kind::message, std::move(text)}; }
  static NurelError lost(std::string text) { return {Kind::lost, std::move(text)}; }

  Kind kind() const { return which; }
  bool isLost() const { return which == Kind::lost; }

 private:
  NurelError(Kind kind, std::string text) : TextError(std::move(text)), which(kind) {}
  Kind which;
};

}  // namespace nurel
