// render/base64.cpp: a strict, table-driven base64 decoder.
#include "render/base64.h"

#include <array>
#include <cstdint>

#include "link/large_memory.h"

namespace nurel {

namespace {

constexpr std::array<int8_t, 256> makeTable() {
  std::array<int8_t, 256> table{};
  for (auto& entry : table) entry = -1;
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < alphabet.size(); ++i)
    table[static_cast<unsigned char>(alphabet[i])] = int8_t(i);
  return table;
}

constexpr auto table = makeTable();

int value(char c) { return table[static_cast<unsigned char>(c)]; }

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  std::string out;
  size_t size = text.size() / 4 * 3 - padding;
  out.reserve(size);
  adviseLarge(out.data(), size, true);
  out.resize(size);
  size_t whole = text.empty() ? 0 : text.size() / 4 - (padding ? 1 : 0);
  const char* in = text.data();
  char* to = out.data();
  for (size_t group = 0; group < whole; ++group, in += 4) {
    int a = value(in[0]), b = value(in[1]), c = value(in[2]), d = value(in[3]);
    if ((a | b | c | d) < 0) return std::nullopt;
    uint32_t bits = uint32_t(a) << 18 | uint32_t(b) << 12 | uint32_t(c) << 6 | uint32_t(d);
    *to++ = char(bits >> 16);
    *to++ = char(bits >> 8);
    *to++ = char(bits);
  }
  if (padding) {
    int a = value(in[0]), b = value(in[1]);
    int c = padding == 1 ? value(in[2]) : 0;
    if ((a | b | c) < 0) return std::nullopt;
    uint32_t bits = uint32_t(a) << 18 | uint32_t(b) << 12 | uint32_t(c) << 6;
    *to++ = char(bits >> 16);
    if (padding == 1) *to++ = char(bits >> 8);
  }
  return out;
}

}  // namespace nurel
