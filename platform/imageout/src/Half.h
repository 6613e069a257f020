// Conversion of float pixels to 16-bit floats, rounded to nearest even.
#pragma once

#include <cstddef>
#include <cstdint>

namespace XoImageOut {

uint16_t floatToHalf(float value);
float halfToFloat(uint16_t half);
// `count` values; uses the processor's conversion instructions when it has them.
void floatsToHalves(const float* in, uint16_t* out, size_t count);
void halvesToFloats(const uint16_t* in, float* out, size_t count);

}  // namespace XoImageOut
