// link/text_error.h: the errors of this program, whose texts may hold any byte.
#pragma once

#include <stdexcept>
#include <string>

namespace nurel {

/// An error that keeps its text whole. what() is a C string, so it ends at the first NUL byte,
/// while the browser's own error text or a path an agent gave may hold one: text() has every
/// byte, and is what people and agents are shown.
class TextError : public std::runtime_error {
 public:
  explicit TextError(std::string text) : std::runtime_error(text), whole(std::move(text)) {}
  const std::string& text() const { return whole; }

 private:
  std::string whole;
};

}  // namespace nurel
