// render/base64.cpp: a strict, table-driven base64 decoder, 32 characters at a time where the
// processor has AVX2.
#include "render/base64.h"

#include <array>
#include <cstdint>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define NUREL_BASE64_AVX2 1
#endif

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

#ifdef NUREL_BASE64_AVX2

// Decodes 32 characters at a time with AVX2, for as long as they are all in the alphabet and
// at least 12 more characters follow (each step stores 32 bytes, of which 24 are its own), and
// returns how many groups of four it decoded. Whatever remains, a bad character included, is
// left to the group-at-a-time loop, which decides.
//
// A character is classified by its two nibbles: `lowBits[low] & highBits[high]` is zero only
// for the 64 characters of the alphabet, and `shifts[high]` (with '/' moved to its own slot)
// is what turns the character into its six bits.
__attribute__((target("avx2"))) size_t decodeWide(const char* in, size_t groups, char* to) {
  const __m256i lowBits = _mm256_setr_epi8(  //
      0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B,
      0x1A, 0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B,
      0x1B, 0x1A);
  const __m256i highBits = _mm256_setr_epi8(  //
      0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
      0x10, 0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
      0x10, 0x10);
  const __m256i shifts = _mm256_setr_epi8(                       //
      0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0,  //
      0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m256i nibble = _mm256_set1_epi8(0x0F), slash = _mm256_set1_epi8('/');
  // Four six-bit values a b c d become the three bytes of (a << 18 | b << 12 | c << 6 | d).
  const __m256i pairs = _mm256_set1_epi32(0x01400140), quads = _mm256_set1_epi32(0x00011000);
  const __m256i order = _mm256_setr_epi8(                      //
      2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1,  //
      2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m256i together = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
  size_t done = 0;
  for (; done + 11 <= groups; done += 8, in += 32, to += 24) {
    __m256i text = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
    __m256i high = _mm256_and_si256(_mm256_srli_epi32(text, 4), nibble);
    __m256i low = _mm256_and_si256(text, nibble);
    __m256i bad =
        _mm256_and_si256(_mm256_shuffle_epi8(lowBits, low), _mm256_shuffle_epi8(highBits, high));
    if (!_mm256_testz_si256(bad, bad)) break;
    __m256i shift =
        _mm256_shuffle_epi8(shifts, _mm256_add_epi8(_mm256_cmpeq_epi8(text, slash), high));
    __m256i values = _mm256_add_epi8(text, shift);
    __m256i merged = _mm256_madd_epi16(_mm256_maddubs_epi16(values, pairs), quads);
    __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(merged, order), together);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), bytes);
  }
  return done;
}

bool hasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

#endif

// Decodes `text` to `to`, which has room for its decoded `size`. `to` may be `text.data()`
// itself: every group is read before its three bytes are stored, and they land no later
// than where it began.
bool decode(std::string_view text, size_t size, char* to, bool wide = true) {
  size_t padding = text.size() / 4 * 3 - size;
  size_t whole = text.empty() ? 0 : text.size() / 4 - (padding ? 1 : 0);
  const char* in = text.data();
  size_t done = 0;
#ifdef NUREL_BASE64_AVX2
  if (wide && hasAvx2()) {
    done = decodeWide(in, whole, to);
    in += 4 * done;
    to += 3 * done;
  }
#else
  (void)wide;
#endif
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

namespace {

bool decodeInPlace(std::string& text, bool wide) {
  std::optional<size_t> size = decodedSize(text);
  if (!size || !decode(text, *size, text.data(), wide)) return false;
  text.resize(*size);
  return true;
}

}  // namespace

bool decodeBase64InPlace(std::string& text) { return decodeInPlace(text, true); }

bool decodeBase64InPlaceScalar(std::string& text) { return decodeInPlace(text, false); }

std::optional<std::string> takeDecoded(Json& reply, const char* key) {
  if (!reply.is_object()) return std::nullopt;
  auto member = reply.find(key);
  if (member == reply.end() || !member->is_string()) return std::nullopt;
  std::string text = std::move(member->get_ref<std::string&>());
  if (!decodeBase64InPlace(text)) return std::nullopt;
  return text;
}

}  // namespace nurel
