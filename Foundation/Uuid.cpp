#include "Foundation/Uuid.h"

#include <bit>
#include <cstring>
#include <ostream>
#include <random>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace lumora {

namespace {

#if !defined(__SSE2__)

// The eight upper-case hex digits of four bytes at once, the first digit in
// the lowest byte: each nibble is spread to a byte of its own and lifted to
// '0'..'9' or 'A'..'F' with a carry that marks the nibbles of ten and above.
[[gnu::always_inline]] inline std::uint64_t hexDigitsOf4(const std::uint8_t* bytes) {
  const std::uint64_t spread = std::uint64_t{bytes[0]} | std::uint64_t{bytes[1]} << 16 |
                               std::uint64_t{bytes[2]} << 32 | std::uint64_t{bytes[3]} << 48;
  const std::uint64_t nibbles =
      (spread >> 4 & 0x000F000F000F000Full) | (spread & 0x000F000F000F000Full) << 8;
  const std::uint64_t letters = ((nibbles + 0x0606060606060606ull) >> 4) & 0x0101010101010101ull;
  return nibbles + 0x3030303030303030ull + letters * 7;  // 'A' - '0' - 10 == 7
}

// The first `n` digits of `digits` (lowest byte first) at `out`: one store
// on a little-endian machine.
template <std::size_t n>
void putDigits(char* out, std::uint64_t digits) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(out, &digits, n);
  } else {
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(digits >> (8 * i));
  }
}

#endif

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isHyphenPosition(std::size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

// FIPS 180-4 SHA-1, only as far as name-based UUIDs need it: the input is a
// namespace and a short name, so it is hashed in one call.
class Sha1 {
 public:
  void update(const std::uint8_t* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      block_[blockUsed_++] = data[i];
      if (blockUsed_ == 64) {
        compress();
        blockUsed_ = 0;
      }
    }
    length_ += size;
  }

  std::array<std::uint8_t, 20> finish() {
    const std::uint64_t bitLength = length_ * 8;
    const std::uint8_t pad = 0x80;
    update(&pad, 1);
    const std::uint8_t zero = 0;
    while (blockUsed_ != 56) update(&zero, 1);
    std::uint8_t lengthBytes[8];
    for (int i = 0; i < 8; ++i)
      lengthBytes[i] = static_cast<std::uint8_t>(bitLength >> (56 - 8 * i));
    update(lengthBytes, 8);
    std::array<std::uint8_t, 20> digest{};
    for (int i = 0; i < 5; ++i) {
      for (int j = 0; j < 4; ++j) {
        digest[i * 4 + j] = static_cast<std::uint8_t>(h_[i] >> (24 - 8 * j));
      }
    }
    return digest;
  }

 private:
  static std::uint32_t rotl(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

  void compress() {
    std::uint32_t w[80];
    for (int i = 0; i < 16; ++i) {
      w[i] = (std::uint32_t{block_[i * 4]} << 24) | (std::uint32_t{block_[i * 4 + 1]} << 16) |
             (std::uint32_t{block_[i * 4 + 2]} << 8) | std::uint32_t{block_[i * 4 + 3]};
    }
    for (int i = 16; i < 80; ++i) w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    std::uint32_t a = h_[0], b = h_[1], c = h_[2], d = h_[3], e = h_[4];
    for (int i = 0; i < 80; ++i) {
      std::uint32_t f;
      std::uint32_t k;
      if (i < 20) {
        f = (b & c) | (~b & d);
        k = 0x5A827999;
      } else if (i < 40) {
        f = b ^ c ^ d;
        k = 0x6ED9EBA1;
      } else if (i < 60) {
        f = (b & c) | (b & d) | (c & d);
        k = 0x8F1BBCDC;
      } else {
        f = b ^ c ^ d;
        k = 0xCA62C1D6;
      }
      const std::uint32_t t = rotl(a, 5) + f + e + k + w[i];
      e = d;
      d = c;
      c = rotl(b, 30);
      b = a;
      a = t;
    }
    h_[0] += a;
    h_[1] += b;
    h_[2] += c;
    h_[3] += d;
    h_[4] += e;
  }

  std::uint32_t h_[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::uint8_t block_[64] = {};
  std::size_t blockUsed_ = 0;
  std::uint64_t length_ = 0;
};

}  // namespace

std::optional<Uuid> Uuid::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Storage bytes{};
  std::size_t out = 0;
  int high = -1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (isHyphenPosition(i)) {
      if (c != '-') return std::nullopt;
      continue;
    }
    const int digit = hexDigit(c);
    if (digit < 0) return std::nullopt;
    if (high < 0) {
      high = digit;
    } else {
      bytes[out++] = static_cast<std::uint8_t>((high << 4) | digit);
      high = -1;
    }
  }
  return Uuid(bytes);
}

Uuid Uuid::random() {
  // One generator per thread, seeded from the system's entropy: no lock on a
  // path that every new peripheral and region may take.
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(),
                       device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  Storage bytes;
  for (std::size_t i = 0; i < bytes.size(); i += 8) {
    const std::uint64_t value = generator();
    for (std::size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<std::uint8_t>(value >> (8 * j));
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return Uuid(bytes);
}

Uuid Uuid::nameBased(const Uuid& ns, std::string_view name) {
  Sha1 sha;
  sha.update(ns.bytes_.data(), ns.bytes_.size());
  sha.update(reinterpret_cast<const std::uint8_t*>(name.data()), name.size());
  const auto digest = sha.finish();
  Storage bytes;
  std::memcpy(bytes.data(), digest.data(), bytes.size());
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x50);  // version 5
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return Uuid(bytes);
}

#if defined(__SSE2__)

void Uuid::writeString(char* out) const {
  // All 32 digits at once: the high and low nibbles of the 16 bytes,
  // interleaved into text order and lifted to '0'..'9' or 'A'..'F', then
  // stored around the hyphens of 8-4-4-4-12 straight from the registers.
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes_.data()));
  const __m128i nibble = _mm_set1_epi8(0x0F);
  const __m128i high = _mm_and_si128(_mm_srli_epi16(bytes, 4), nibble);
  const __m128i low = _mm_and_si128(bytes, nibble);
  const auto ascii = [](__m128i digits) {
    const __m128i letters = _mm_cmpgt_epi8(digits, _mm_set1_epi8(9));
    return _mm_add_epi8(_mm_add_epi8(digits, _mm_set1_epi8('0')),
                        _mm_and_si128(letters, _mm_set1_epi8('A' - '0' - 10)));
  };
  const __m128i first = ascii(_mm_unpacklo_epi8(high, low));   // digits 0 to 15
  const __m128i second = ascii(_mm_unpackhi_epi8(high, low));  // digits 16 to 31
  const auto put4 = [](char* at, __m128i digits) {
    const int four = _mm_cvtsi128_si32(digits);
    std::memcpy(at, &four, 4);
  };
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), first);
  out[8] = '-';
  put4(out + 9, _mm_srli_si128(first, 8));
  out[13] = '-';
  put4(out + 14, _mm_srli_si128(first, 12));
  out[18] = '-';
  put4(out + 19, second);
  out[23] = '-';
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 24), _mm_srli_si128(second, 4));
  put4(out + 32, _mm_srli_si128(second, 12));
}

#else

void Uuid::writeString(char* out) const {
  // 8-4-4-4-12, written straight into place.
  const std::uint64_t first = hexDigitsOf4(bytes_.data());
  const std::uint64_t second = hexDigitsOf4(bytes_.data() + 4);
  const std::uint64_t third = hexDigitsOf4(bytes_.data() + 8);
  const std::uint64_t fourth = hexDigitsOf4(bytes_.data() + 12);
  putDigits<8>(out, first);
  out[8] = '-';
  putDigits<4>(out + 9, second);
  out[13] = '-';
  putDigits<4>(out + 14, second >> 32);
  out[18] = '-';
  putDigits<4>(out + 19, third);
  out[23] = '-';
  putDigits<4>(out + 24, third >> 32);
  putDigits<8>(out + 28, fourth);
}

#endif

std::ostream& operator<<(std::ostream& out, const UuidText& text) {
  return out << text.view();
}

std::string Uuid::UUIDString() const {
  std::string text(36, '\0');
  writeString(text.data());
  return text;
}

}  // namespace lumora

std::size_t std::hash<lumora::Uuid>::operator()(const lumora::Uuid& u) const noexcept {
  // FNV-1a over the sixteen bytes: cheap and spreads every byte.
  std::uint64_t h = 0xCBF29CE484222325ull;
  for (std::uint8_t b : u.bytes()) {
    h ^= b;
    h *= 0x100000001B3ull;
  }
  return static_cast<std::size_t>(h);
}
