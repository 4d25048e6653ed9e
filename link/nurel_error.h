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
  enum class Kind { message, lost };

  static NurelError message(std::string text) { return {Kind::message, std::move(text)}; }
  static NurelError lost(std::string text) { return {Kind::lost, std::move(text)}; }

  Kind kind() const { return which; }
  bool isLost() const { return which == Kind::lost; }
  std::string text() const { return what(); }

 private:
  NurelError(Kind kind, std::string text) : std::runtime_error(std::move(text)), which(kind) {}
  Kind which;
};

}  // namespace nurel
