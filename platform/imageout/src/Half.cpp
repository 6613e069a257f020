#include "Half.h"

#include <cpuid.h>
#include <immintrin.h>

#include <cstring>

namespace XoImageOut {

uint16_t floatToHalf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, 4);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const uint32_t magnitude = bits & 0x7fffffffu;
  if (magnitude >= 0x7f800000u)  // infinity, or NaN kept quiet
    return uint16_t(sign | 0x7c00u | (magnitude > 0x7f800000u ? 0x200u | (magnitude >> 13) : 0));
  if (magnitude >= 0x477ff000u) return uint16_t(sign | 0x7c00u);  // rounds past the largest half
  if (magnitude < 0x38800000u) {  // a subnormal half, or zero
    if (magnitude < 0x33000000u) return uint16_t(sign);
    const uint32_t exponent = magnitude >> 23;
    const uint32_t mantissa = (magnitude & 0x7fffffu) | 0x800000u;
    const uint32_t shift = 126 - exponent;  // 14 .. 24
    uint32_t half = mantissa >> shift;
    const uint32_t rest = mantissa & ((1u << shift) - 1), halfway = 1u << (shift - 1);
    if (rest > halfway || (rest == halfway && (half & 1u))) ++half;
    return uint16_t(sign | half);
  }
  uint32_t half = ((magnitude - 0x38000000u) >> 13);
  const uint32_t rest = magnitude & 0x1fffu;
  if (rest > 0x1000u || (rest == 0x1000u && (half & 1u))) ++half;
  return uint16_t(sign | half);
}

float halfToFloat(uint16_t half) {
  const uint32_t sign = uint32_t(half & 0x8000u) << 16;
  uint32_t exponent = (half >> 10) & 0x1fu, mantissa = half & 0x3ffu, bits;
  if (exponent == 0x1f) {
    bits = sign | 0x7f800000u | (mantissa << 13);
  } else if (exponent != 0) {
    bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
  } else if (mantissa == 0) {
    bits = sign;
  } else {
    exponent = 113;
    while (!(mantissa & 0x400u)) {
      mantissa <<= 1;
      --exponent;
    }
    bits = sign | (exponent << 23) | ((mantissa & 0x3ffu) << 13);
  }
  float value;
  std::memcpy(&value, &bits, 4);
  return value;
}

namespace {

__attribute__((target("f16c,avx"))) void floatsToHalvesF16c(const float* in, uint16_t* out,
                                                            size_t count) {
  size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m128i halves = _mm256_cvtps_ph(_mm256_loadu_ps(in + i), _MM_FROUND_TO_NEAREST_INT);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), halves);
  }
  for (; i < count; ++i) out[i] = floatToHalf(in[i]);
}

bool hasF16c() {
  static const bool has = [] {
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    const bool avx = (c & bit_AVX) && (c & bit_OSXSAVE) && (c & bit_F16C);
    // The system must save the vector registers too.
    if (!avx) return false;
    unsigned low, high;
    asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return (low & 6) == 6;
  }();
  return has;
}

}  // namespace

void floatsToHalves(const float* in, uint16_t* out, size_t count) {
  if (hasF16c()) return floatsToHalvesF16c(in, out, count);
  for (size_t i = 0; i < count; ++i) out[i] = floatToHalf(in[i]);
}

void halvesToFloats(const uint16_t* in, float* out, size_t count) {
  for (size_t i = 0; i < count; ++i) out[i] = halfToFloat(in[i]);
}

}  // namespace XoImageOut
