#include "rules/crc32.h"

#include <array>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define TESSMARK_CRC32_FOLD 1
#include <immintrin.h>
#endif

namespace tessmark::crc32 {

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320u;

// tables[0] is the byte table; tables[k][i] is the register after byte i and k zero bytes
// more, so eight bytes are taken at once by eight independent look-ups.
using SliceTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr SliceTables MakeSliceTables() {
  SliceTables tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ kPolynomial : c >> 1;
    tables[0][i] = c;
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (size_t i = 0; i < 256; ++i) {
      uint32_t previous = tables[k - 1][i];
      tables[k][i] = (previous >> 8) ^ tables[0][previous & 0xFFu];
    }
  }
  return tables;
}

// Made by the compiler: no first use to race on.
constexpr SliceTables kSliceTables = MakeSliceTables();

// The bytes in file order whatever the host's byte order; compilers make one load of it.
inline uint32_t LoadLittleEndian32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Slicing-by-8, always right for any length.
uint32_t Slicing8(uint32_t reg, const unsigned char* p, size_t size) {
  const SliceTables& t = kSliceTables;
  for (; size >= 8; p += 8, size -= 8) {
    uint32_t low = LoadLittleEndian32(p) ^ reg;
    uint32_t high = LoadLittleEndian32(p + 4);
    reg = t[7][low & 0xFFu] ^ t[6][(low >> 8) & 0xFFu] ^ t[5][(low >> 16) & 0xFFu] ^
          t[4][low >> 24] ^ t[3][high & 0xFFu] ^ t[2][(high >> 8) & 0xFFu] ^
          t[1][(high >> 16) & 0xFFu] ^ t[0][high >> 24];
  }
  for (; size > 0; ++p, --size) reg = (reg >> 8) ^ t[0][(reg ^ *p) & 0xFFu];
  return reg;
}

#ifdef TESSMARK_CRC32_FOLD

// The carry-less fold. A 16-byte block loaded little-endian holds the message's polynomial
// reflected: bit n of the 128-bit value is the coefficient of x^(127-n), so the first byte's
// lowest bit is the highest power, as the CRC takes the bits. The fold keeps several such
// blocks (lanes) that together are congruent modulo P to everything read so far; each round
// multiplies every lane by x^(lanes * 128) modulo P and adds the next block of its lane. The
// lanes then fold into one block, and the CRC of that block from a zero register is the
// register the message leaves, which the last few bytes continue.

// x^n modulo P, reflected into 32 bits: bit 31 is x^0, bit 0 is x^31. Multiplying by x is a
// right shift, and x^32 turns into the polynomial's lower terms.
constexpr uint32_t XPowerModP(unsigned n) {
  uint32_t v = 0x80000000u;
  for (; n > 0; --n) v = (v & 1u) ? (v >> 1) ^ kPolynomial : v >> 1;
  return v;
}

// The two multipliers that move a block D bits on. A 64x64 carry-less product of reflected
// halves comes out as x * a(x) * k(x) in the 128-bit reflection, and a 32-bit constant c in
// the low half of 64 bits stands for x^32 * c(x). The block's low half holds its upper 64
// powers (a(x) * x^64), so it needs k = x^(D+63), i.e. c = x^(D+31); the high half needs
// k = x^(D-1), i.e. c = x^(D-33).
struct FoldConstants {
  uint64_t upper;  // for the block's low half
  uint64_t lower;  // for the block's high half
};

constexpr FoldConstants MakeFoldConstants(unsigned distanceBits) {
  return {XPowerModP(distanceBits + 31), XPowerModP(distanceBits - 33)};
}

constexpr FoldConstants kFold128 = MakeFoldConstants(128);
constexpr FoldConstants kFold256 = MakeFoldConstants(256);
constexpr FoldConstants kFold512 = MakeFoldConstants(512);
constexpr FoldConstants kFold768 = MakeFoldConstants(768);
constexpr FoldConstants kFold1024 = MakeFoldConstants(1024);

// Below these the fold's set-up and final reduction cost more than it gains.
constexpr size_t kFoldMinimum = 64;
constexpr size_t kWideFoldMinimum = 256;

#define TESSMARK_FOLD_TARGET __attribute__((target("pclmul,sse4.1")))
#define TESSMARK_WIDE_FOLD_TARGET __attribute__((target("pclmul,sse4.1,avx2,vpclmulqdq")))

TESSMARK_FOLD_TARGET inline __m128i Constants(const FoldConstants& k) {
  return _mm_set_epi64x(static_cast<long long>(k.lower), static_cast<long long>(k.upper));
}

TESSMARK_FOLD_TARGET inline __m128i Load(const unsigned char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// block * x^D + next, modulo P, as a 128-bit value congruent to it.
TESSMARK_FOLD_TARGET inline __m128i FoldInto(__m128i block, __m128i constants, __m128i next) {
  __m128i upper = _mm_clmulepi64_si128(block, constants, 0x00);
  __m128i lower = _mm_clmulepi64_si128(block, constants, 0x11);
  return _mm_xor_si128(_mm_xor_si128(upper, lower), next);
}

// x is congruent to the message so far; the whole blocks left fold in, the rest continues
// the register.
TESSMARK_FOLD_TARGET uint32_t FinishFold(__m128i x, const unsigned char* p, size_t size) {
  const __m128i k128 = Constants(kFold128);
  for (; size >= 16; p += 16, size -= 16) x = FoldInto(x, k128, Load(p));
  alignas(16) unsigned char folded[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(folded), x);
  return Slicing8(Slicing8(0, folded, sizeof folded), p, size);
}

// size >= kFoldMinimum.
TESSMARK_FOLD_TARGET uint32_t Fold(uint32_t reg, const unsigned char* p, size_t size) {
  // The register stands for the first 32 bits of what follows.
  __m128i x0 = _mm_xor_si128(Load(p), _mm_cvtsi32_si128(static_cast<int>(reg)));
  __m128i x1 = Load(p + 16);
  __m128i x2 = Load(p + 32);
  __m128i x3 = Load(p + 48);
  p += 64;
  size -= 64;

  const __m128i k512 = Constants(kFold512);
  for (; size >= 64; p += 64, size -= 64) {
    x0 = FoldInto(x0, k512, Load(p));
    x1 = FoldInto(x1, k512, Load(p + 16));
    x2 = FoldInto(x2, k512, Load(p + 32));
    x3 = FoldInto(x3, k512, Load(p + 48));
  }

  const __m128i k128 = Constants(kFold128);
  __m128i x = FoldInto(x0, k128, x1);
  x = FoldInto(x, k128, x2);
  x = FoldInto(x, k128, x3);
  return FinishFold(x, p, size);
}

// The same with two blocks in each 256-bit lane, both under the same pair of constants.
TESSMARK_WIDE_FOLD_TARGET inline __m256i WideConstants(const FoldConstants& k) {
  auto upper = static_cast<long long>(k.upper);
  auto lower = static_cast<long long>(k.lower);
  return _mm256_set_epi64x(lower, upper, lower, upper);
}

TESSMARK_WIDE_FOLD_TARGET inline __m256i WideLoad(const unsigned char* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

TESSMARK_WIDE_FOLD_TARGET inline __m256i WideFoldInto(__m256i blocks, __m256i constants,
                                                      __m256i next) {
  __m256i upper = _mm256_clmulepi64_epi128(blocks, constants, 0x00);
  __m256i lower = _mm256_clmulepi64_epi128(blocks, constants, 0x11);
  return _mm256_xor_si256(_mm256_xor_si256(upper, lower), next);
}

// size >= kWideFoldMinimum.
TESSMARK_WIDE_FOLD_TARGET uint32_t WideFold(uint32_t reg, const unsigned char* p, size_t size) {
  __m256i y0 = _mm256_xor_si256(WideLoad(p),
                                _mm256_zextsi128_si256(_mm_cvtsi32_si128(static_cast<int>(reg))));
  __m256i y1 = WideLoad(p + 32);
  __m256i y2 = WideLoad(p + 64);
  __m256i y3 = WideLoad(p + 96);
  p += 128;
  size -= 128;

  const __m256i k1024 = WideConstants(kFold1024);
  for (; size >= 128; p += 128, size -= 128) {
    y0 = WideFoldInto(y0, k1024, WideLoad(p));
    y1 = WideFoldInto(y1, k1024, WideLoad(p + 32));
    y2 = WideFoldInto(y2, k1024, WideLoad(p + 64));
    y3 = WideFoldInto(y3, k1024, WideLoad(p + 96));
  }

  // Each lane moves on by its distance to the last one, all at once; the two blocks of the
  // sum then fold into one.
  __m256i y = WideFoldInto(y2, WideConstants(kFold256), y3);
  y = WideFoldInto(y1, WideConstants(kFold512), y);
  y = WideFoldInto(y0, WideConstants(kFold768), y);
  __m128i x =
      FoldInto(_mm256_castsi256_si128(y), Constants(kFold128), _mm256_extracti128_si256(y, 1));
  return FinishFold(x, p, size);
}

#undef TESSMARK_FOLD_TARGET
#undef TESSMARK_WIDE_FOLD_TARGET

struct Features {
  bool fold = false;
  bool wideFold = false;
};

// Asked once; the answer cannot change while the program runs.
const Features& ProcessorFeatures() {
  static const Features features = [] {
    __builtin_cpu_init();
    Features f;
    f.fold = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    // The processor's avx2 flag is only set where the system saves the 256-bit registers.
    f.wideFold = f.fold && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("vpclmulqdq");
    return f;
  }();
  return features;
}

#endif  // TESSMARK_CRC32_FOLD

}  // namespace

uint32_t UpdateByteTable(uint32_t reg, const void* data, size_t size, const uint32_t* table) {
  const auto* p = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < size; ++i) reg = (reg >> 8) ^ table[(reg ^ p[i]) & 0xFFu];
  return reg;
}

bool Supports(Method method) {
  switch (method) {
    case Method::Slicing8:
      return true;
#ifdef TESSMARK_CRC32_FOLD
    case Method::CarrylessFold:
      return ProcessorFeatures().fold;
    case Method::WideCarrylessFold:
      return ProcessorFeatures().wideFold;
#endif
    default:
      return false;
  }
}

Method FastestMethod() {
  static const Method fastest = Supports(Method::WideCarrylessFold) ? Method::WideCarrylessFold
                                : Supports(Method::CarrylessFold)   ? Method::CarrylessFold
                                                                    : Method::Slicing8;
  return fastest;
}

uint32_t UpdateBy(Method method, uint32_t reg, const void* data, size_t size) {
  const auto* p = static_cast<const unsigned char*>(data);
#ifdef TESSMARK_CRC32_FOLD
  if (method == Method::WideCarrylessFold && size >= kWideFoldMinimum &&
      Supports(Method::WideCarrylessFold))
    return WideFold(reg, p, size);
  if (method != Method::Slicing8 && size >= kFoldMinimum && Supports(Method::CarrylessFold))
    return Fold(reg, p, size);
#endif
  return Slicing8(reg, p, size);
}

uint32_t Update(uint32_t reg, const void* data, size_t size) {
  return UpdateBy(FastestMethod(), reg, data, size);
}

namespace {

// a * b modulo the polynomial, both in the reflected form the register has (bit 31 is x^0).
uint32_t MultiplyModulo(uint32_t a, uint32_t b) {
  constexpr uint32_t kReflectedPolynomial = 0xEDB88320u;
  uint32_t product = 0;
  for (uint32_t bit = 1u << 31; bit != 0 && a != 0; bit >>= 1) {
    if (a & bit) {
      product ^= b;
      a ^= bit;
    }
    b = (b & 1) != 0 ? (b >> 1) ^ kReflectedPolynomial : b >> 1;
  }
  return product;
}

}  // namespace

uint32_t UpdateZeros(uint32_t reg, uint64_t count) {
  // A zero byte shifts the register by eight places: reg * x^8. Square-and-multiply over the
  // bits of the count.
  uint32_t power = 1u << (31 - 8);  // x^8
  for (; count != 0; count >>= 1) {
    if ((count & 1) != 0) reg = MultiplyModulo(power, reg);
    power = MultiplyModulo(power, power);
  }
  return reg;
}

}  // namespace tessmark::crc32
