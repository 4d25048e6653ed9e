// render/base64.cpp: a strict, table-driven base64 decoder.
#include "render/base64.h"

#include <array>
#include <cstdint>

#include "link/large_memory.h"

namespace nurel {

namespace {

// One table per position in a group of four characters, holding the character's six bits
// already shifted into place, so a group decodes to (t0[a] | t1[b] | t2[c] | t3[d]). A
// character outside the alphabet sets bit 24, which no valid group has.
constexpr uint32_t invalid = 1u << 24;

constexpr std::array<uint32_t, 256> makeTable(int shift) {
  std::array<uint32_t, 256> table{};
  for (auto& entry : table) entry = invalid;
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < alphabet.size(); ++i)
    table[static_cast<unsigned char>(alphabet[i])] = uint32_t(i) << shift;
  return table;
}

constexpr auto t0 = makeTable(18), t1 = makeTable(12), t2 = makeTable(6), t3 = makeTable(0);

uint32_t group(const char* in) {
  auto at = [in](int i) { return static_cast<unsigned char>(in[i]); };
  return t0[at(0)] | t1[at(1)] | t2[at(2)] | t3[at(3)];
}

void put(char* to, uint32_t bits) {
  to[0] = char(bits >> 16);
  to[1] = char(bits >> 8);
  to[2] = char(bits);
}

// The decoded size of `text`, or nothing when its length or padding cannot be base64.
std::optional<size_t> decodedSize(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  return text.size() / 4 * 3 - padding;
}

// Decodes `text` to `to`, which has room for its decoded `size`. `to` may be `text.data()`
// itself: every group is read before its three bytes are stored, and they land no later
// than where it began.
bool decode(std::string_view text, size_t size, char* to) {
  size_t padding = text.size() / 4 * 3 - size;
  size_t whole = text.empty() ? 0 : text.size() / 4 - (padding ? 1 : 0);
  const char* in = text.data();
  size_t done = 0;
  // Two groups at a time: fewer branches, and the six bytes can be stored together.
  for (; done + 2 <= whole; done += 2, in += 8, to += 6) {
    uint32_t first = group(in), second = group(in + 4);
    if ((first | second) & invalid) return false;
    put(to, first);
    put(to + 3, second);
  }
  for (; done < whole; ++done, in += 4, to += 3) {
    uint32_t bits = group(in);
    if (bits & invalid) return false;
    put(to, bits);
  }
  if (padding) {
    uint32_t bits = t0[static_cast<unsigned char>(in[0])] | t1[static_cast<unsigned char>(in[1])] |
                    (padding == 1 ? t2[static_cast<unsigned char>(in[2])] : 0);
    if (bits & invalid) return false;
    *to++ = char(bits >> 16);
    if (padding == 1) *to++ = char(bits >> 8);
  }
  return true;
}

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
  std::optional<size_t> size = decodedSize(text);
  if (!size) return std::nullopt;
  std::string out;
  out.reserve(*size);
  adviseLarge(out.data(), *size, true);
  out.resize(*size);
  if (!decode(text, *size, out.data())) return std::nullopt;
  return out;
}

bool decodeBase64InPlace(std::string& text) {
  std::optional<size_t> size = decodedSize(text);
  if (!size || !decode(text, *size, text.data())) return false;
  text.resize(*size);
  return true;
}

std::optional<std::string> takeDecoded(Json& reply, const char* key) {
  if (!reply.is_object()) return std::nullopt;
  auto member = reply.find(key);
  if (member == reply.end() || !member->is_string()) return std::nullopt;
  std::string text = std::move(member->get_ref<std::string&>());
  if (!decodeBase64InPlace(text)) return std::nullopt;
  return text;
}

}  // namespace nurel
