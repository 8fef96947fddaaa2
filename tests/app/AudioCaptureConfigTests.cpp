#include "app/AudioCaptureConfig.h"

#include "app/AudioCaptureError.h"
#include "app/DecodingError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace orvel {
namespace {

TEST(AudioCaptureConfigDecoding, ReadsTheTypeAndTheUnderscoredRateWhateverElseTheObjectHolds) {
    const std::pair<const char*, std::uint64_t> cases[] = {
        {R"({"type": "loopback", "sample_rate": 48000})", 48000},
        {R"({"sample_rate": 16000, "volume": [1, {"x": null}], "type": "loopback"})", 16000},
        // Members of nested objects are not the configuration's own.
        {R"({"extra": {"type": "Loopback", "sample_rate": "x"}, "type": "loopback", "sample_rate": 22050})", 22050},
        {R"({"type": "loopback", "sample_rate": 0})", 0},
        {R"({"type": "loopback", "sample_rate": 9223372036854775808})", std::uint64_t{1} << 63},
        {R"({"type": "loopback", "sample_rate": 18446744073709551615})", std::numeric_limits<std::uint64_t>::max()},
    };
    for (const auto& [json, rate] : cases) EXPECT_EQ(AudioCaptureConfig::decode(json), AudioCaptureConfig::loopback(rate)) << json;
    const std::string bytes = R"({"type":"loopback","sample_rate":8000})";
    EXPECT_EQ(AudioCaptureConfig::decode(std::vector<std::uint8_t>(bytes.begin(), bytes.end())).sampleRate(), 8000u);
}

TEST(AudioCaptureConfigDecoding, RefusesAnythingElse) {
    const std::string cases[] = {
        R"({"type": "Loopback", "sample_rate": 48000})",  // the type is case-sensitive
        R"({"type": "loopback ", "sample_rate": 48000})",
        R"({"type": 1, "sample_rate": 48000})",
        R"({"type": null, "sample_rate": 48000})",
        R"({"type": "loopback"})",
        R"({"sample_rate": 48000})",
        R"({"type": "loopback", "sampleRate": 48000})",
        R"({"extra": {"type": "loopback", "sample_rate": 1}})",
        R"([{"type": "loopback", "sample_rate": 48000}])",
        R"("loopback")",
        "48000",
        "type=loopback",
        "",
        R"({"type": "loopback", "sample_rate": 48000} {})",
        R"({"type": "loopback", "sample_rate": 48000)",
        "{\"type\": \"loop\xff\", \"sample_rate\": 48000}",
    };
    for (const auto& json : cases) EXPECT_THROW(AudioCaptureConfig::decode(json), DecodingError) << json;
    // Only a plain unsigned 64-bit integer is a rate.
    for (const char* rate : {"18446744073709551616", "-1", "-0", "44100.5", "48000.0", "4.8e4", "\"48000\"", "null",
                             "true", "[48000]", "{}"})
        EXPECT_THROW(AudioCaptureConfig::decode(std::string(R"({"type": "loopback", "sample_rate": )") + rate + "}"), DecodingError)
            << rate;
}

TEST(AudioCaptureConfigDecoding, KeepsTheErrorSmallWhateverThePageSent) {
    const std::string huge = R"({"type": ")" + std::string(1 << 20, 'x') + R"(", "sample_rate": 48000})";
    EXPECT_THAT([&] { AudioCaptureConfig::decode(huge); },
                ::testing::ThrowsMessage<DecodingError>(::testing::SizeIs(::testing::Lt(200u))));
}

TEST(AudioCaptureErrorValues, DescribeThemselvesAsCaseAndPayload) {
    EXPECT_EQ(AudioCaptureError::wrongSampleRate(48000, 44100.0).description(),
              "AudioCaptureError.wrongSampleRate(expected: 48000, actual: 44100.0)");
    EXPECT_EQ(AudioCaptureError::wrongSampleRate(16000, 48000.7).description(),
              "AudioCaptureError.wrongSampleRate(expected: 16000, actual: 48000.7)");
    EXPECT_EQ(AudioCaptureError::wrongChannelCount(2).description(), "AudioCaptureError.wrongChannelCount(actual: 2)");
    EXPECT_STREQ(AudioCaptureError::noBufferFormatDescription().what(), "AudioCaptureError.noBufferFormatDescription");
    EXPECT_NE(AudioCaptureError::wrongSampleRate(48000, 44100.0), AudioCaptureError::wrongSampleRate(48000, 44100.5));
    EXPECT_EQ(AudioCaptureError::wrongSampleRate(8000, 1e16).description(),
              "AudioCaptureError.wrongSampleRate(expected: 8000, actual: 1e+16)");
}

}  // namespace
}  // namespace orvel
