#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

namespace orvel {

// Captured float samples to the 16-bit little-endian samples pages receive:
// s = clamp(lround(x * 32768), -32768, 32767), and NaN gives 0. Writes 2 * samples.size()
// bytes to out, which must not overlap the input. Branch-free per sample so that g++ -O2
// vectorises it (bench/capture.cpp measures it against a plain lround loop).
void convertToInt16LE(std::span<const float> samples, std::uint8_t* out) noexcept;

}  // namespace orvel
