#include "app/SampleConversion.h"

#include <bit>
#include <cmath>
#include <cstring>

namespace orvel {

namespace {

static_assert(std::endian::native == std::endian::little, "samples are stored in native order");

inline std::int16_t toInt16(float x) noexcept {
    float y = x * 32768.0f;  // exact: a power of two
    // Round half away from zero. Adding the float just below 0.5 and truncating is exact for
    // every float (checked over all 2^32 inputs), where adding 0.5 would round 0.49999997 up.
    y += std::copysign(0.49999997f, y);
    // Clamp last, with selects, and keep only a conversion after them: g++ threads the clamp's
    // constants into branches, and with -ftrapping-math (the default) it will not turn branches
    // around float arithmetic back into selects, so the loop would stay scalar. NaN fails both
    // tests and lands on -32768 here; the mask below makes it 0.
    y = y > -32768.0f ? y : -32768.0f;
    y = y < 32767.0f ? y : 32767.0f;
    auto s = static_cast<std::int32_t>(y);
    s &= -static_cast<std::int32_t>(x == x);
    return static_cast<std::int16_t>(s);
}

// No overlap is part of the contract; restrict on the parameters spares the vectoriser a
// run-time alias check, which -O2's cost model would refuse.
void convertBlocks(const float* __restrict in, std::size_t count, std::uint8_t* __restrict out) noexcept {
    // -O2's cost model only vectorises loops whose trip count needs no scalar epilogue, so the
    // bulk goes in blocks of a fixed size and the few samples left take the scalar loop.
    constexpr std::size_t block = 32;
    std::size_t i = 0;
    for (; i + block <= count; i += block) {
        for (std::size_t j = 0; j < block; ++j) {
            const std::int16_t s = toInt16(in[i + j]);
            std::memcpy(out + 2 * (i + j), &s, sizeof s);
        }
    }
    for (; i < count; ++i) {
        const std::int16_t s = toInt16(in[i]);
        std::memcpy(out + 2 * i, &s, sizeof s);
    }
}

}  // namespace

void convertToInt16LE(std::span<const float> samples, std::uint8_t* out) noexcept {
    convertBlocks(samples.data(), samples.size(), out);
}

}  // namespace orvel
