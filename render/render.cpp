// render/render.cpp: printed() and save().
#include "render/render.h"

#include "link/home.h"

namespace nurel {

std::string printed(const Json& value) {
  if (value.is_string()) return value.get_ref<const std::string&>();
  if (auto text = largeIntegerText(value)) return std::string(*text);
  try {
    if (value.is_object() || value.is_array()) return indented(value);
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
  } catch (const std::exception&) {
    return "null";
  }
}

std::string save(const std::string& text, const std::string& path) {
  std::string content = text;
  content += '\n';
  std::string written = writeFile(path, content);
  size_t lines = 0;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    if (end > at) ++lines;
    at = end + 1;
  }
  return "saved " + std::to_string(lines) + " lines to " + written;
}

}  // namespace nurel
