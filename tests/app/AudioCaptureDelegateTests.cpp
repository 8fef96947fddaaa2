#include "app/AudioCaptureDelegate.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/SampleConversion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace orvel {
namespace {

using platform::StreamOutputType;
using test::floatBuffer;
using ::testing::ElementsAre;

constexpr float infinity = std::numeric_limits<float>::infinity();

// A delegate at 48000 Hz wired to a fresh byte stream, as startAudioCapture leaves it.
class AudioCaptureDelegateTest : public ::testing::Test {
protected:
    AudioCaptureDelegateTest() { reconnect(); }

    void reconnect() {
        auto [stream, continuation] = AudioCaptureStream::make();
        stream_.emplace(std::move(stream));
        delegate_.setContinuation(continuation);
    }

    std::vector<std::int16_t> convertBuffer(const platform::SampleBuffer& buffer) {
        delegate_.didOutputSampleBuffer(buffer, StreamOutputType::audio);
        auto bytes = test::next(*stream_);
        EXPECT_TRUE(bytes.has_value());
        return bytes ? test::samplesOf(*bytes) : std::vector<std::int16_t>{};
    }
    std::vector<std::int16_t> convert(const std::vector<float>& samples) { return convertBuffer(floatBuffer(samples)); }

    std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
    AudioCaptureDelegate delegate_{48000, logger_};
    std::optional<AudioCaptureStream> stream_;
};

TEST(AudioCaptureDelegateConstruction, TakesRatesFrom8000To384000AndRefusesOthersAsAnImpossibleSourceFormat) {
    auto logger = std::make_shared<test::RecordingLogger>();
    EXPECT_NO_THROW(AudioCaptureDelegate(8000, logger));
    EXPECT_NO_THROW(AudioCaptureDelegate(384000, logger));
    for (std::int64_t rate : {std::int64_t{0}, std::int64_t{7999}, std::int64_t{384001}, std::int64_t{-48000},
                              std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()})
        EXPECT_THAT([&] { AudioCaptureDelegate(rate, logger); },
                    ::testing::ThrowsMessage<AudioCaptureError>(AudioCaptureError::cannotCreateSourceFormat().description()))
            << rate;
}

// The conversion rule itself (rounding, clamping, NaN, byte order) is SampleConversion's test;
// here that what arrives is converted: zero frames, samples not float-aligned, a fraction of a hertz.
TEST_F(AudioCaptureDelegateTest, YieldsTheConvertedSamplesOfEachFittingBuffer) {
    const std::vector<float> samples{-1.0f, 0.5f, 2.0f}, none, half{0.5f};
    std::vector<std::byte> shifted(samples.size() * sizeof(float) + 1);
    std::memcpy(shifted.data() + 1, samples.data(), samples.size() * sizeof(float));
    const std::pair<platform::SampleBuffer, std::vector<std::int16_t>> cases[] = {
        {floatBuffer(samples), {-32768, 16384, 32767}},
        {floatBuffer(none), {}},
        {{true, platform::AudioStreamDescription{48000.0, 1}, std::span<const std::byte>(shifted).subspan(1)}, {-32768, 16384, 32767}},
        {floatBuffer(half, 48000.7), {16384}},
    };
    for (const auto& [buffer, expected] : cases) EXPECT_EQ(convertBuffer(buffer), expected) << expected.size() << " samples";
}

TEST_F(AudioCaptureDelegateTest, EachUnfitBufferEndsTheCaptureWithItsError) {
    const std::vector<float> one{0.0f}, two{0.0f, 0.0f};
    const std::vector<std::byte> sevenBytes(7);
    const std::pair<platform::SampleBuffer, AudioCaptureError> cases[] = {
        {floatBuffer(two, 48000.0, 2), AudioCaptureError::wrongChannelCount(2)},
        {floatBuffer(one, 44100.0), AudioCaptureError::wrongSampleRate(48000, 44100.0)},
        {floatBuffer(one, 1e300), AudioCaptureError::wrongSampleRate(48000, 1e300)},
        {floatBuffer(one, -1e300), AudioCaptureError::wrongSampleRate(48000, -1e300)},
        {floatBuffer(one, 9223372036854775808.0), AudioCaptureError::wrongSampleRate(48000, 9223372036854775808.0)},
        {floatBuffer(one, infinity), AudioCaptureError::wrongSampleRate(48000, infinity)},
        {{true, std::nullopt, std::as_bytes(std::span(one))}, AudioCaptureError::noBufferFormatDescription()},
        {{true, platform::AudioStreamDescription{48000.0, 1}, sevenBytes}, AudioCaptureError::cannotCreateSourceBuffer()},
    };
    for (const auto& [buffer, error] : cases) {
        SCOPED_TRACE(error.description());
        reconnect();
        delegate_.didOutputSampleBuffer(buffer, StreamOutputType::audio);
        EXPECT_EQ(test::endingError(*stream_), error.description());
        EXPECT_EQ(test::next(*stream_), std::nullopt) << "the error ends the stream once";
    }
    reconnect();
    delegate_.didOutputSampleBuffer(floatBuffer(one, std::nan("")), StreamOutputType::audio);
    EXPECT_EQ(test::endingError(*stream_), AudioCaptureError::wrongSampleRate(48000, std::nan("")).description());
}

// Once the continuation has gone (the capture stopped), nothing is logged any more.
TEST_F(AudioCaptureDelegateTest, AnInvalidBufferIsLoggedAndSkippedWhateverItsTypeWhileAContinuationIsSet) {
    const std::vector<float> full{1.0f};
    platform::SampleBuffer invalid = floatBuffer(full);
    invalid.isValid = false;
    delegate_.didOutputSampleBuffer(invalid, StreamOutputType::screen);
    delegate_.didOutputSampleBuffer(invalid, StreamOutputType::audio);
    delegate_.didOutputSampleBuffer(floatBuffer({0.5f}), StreamOutputType::screen);  // valid screen: silent
    EXPECT_THAT(convert({0.5f}), ElementsAre(16384)) << "the capture goes on";
    const auto logged = ElementsAre("error: Received invalid sample buffer, ignoring.",
                                    "error: Received invalid sample buffer, ignoring.");
    EXPECT_THAT(logger_->lines(), logged);
    delegate_.setContinuation(std::nullopt);
    delegate_.didOutputSampleBuffer(invalid, StreamOutputType::audio);
    delegate_.didOutputSampleBuffer(floatBuffer({0.0f}, 44100.0, 2), StreamOutputType::audio);
    delegate_.didStopWithError(std::make_exception_ptr(AudioCaptureError::cannotCreateConverter()));
    EXPECT_THAT(logger_->lines(), logged) << "nothing more without a continuation";
}

TEST_F(AudioCaptureDelegateTest, StopWithErrorFinishesTheStreamAfterWhatWasYieldedAndLaterDoesNothing) {
    delegate_.didOutputSampleBuffer(floatBuffer({0.5f}), StreamOutputType::audio);
    delegate_.didStopWithError(std::make_exception_ptr(AudioCaptureError::cannotCreateTargetBuffer()));
    EXPECT_TRUE(test::next(*stream_).has_value()) << "bytes yielded before the error still arrive";
    EXPECT_EQ(test::endingError(*stream_), AudioCaptureError::cannotCreateTargetBuffer().description());

    reconnect();
    delegate_.continuation()->finish();
    delegate_.didStopWithError(std::make_exception_ptr(AudioCaptureError::cannotCreateTargetBuffer()));
    delegate_.didOutputSampleBuffer(floatBuffer({0.5f}), StreamOutputType::audio);
    EXPECT_EQ(test::next(*stream_), std::nullopt);
}

// The conversion against the plain rule (round half away from zero, clamp, NaN to zero), over
// lengths that exercise both the block loop and the tail, and values around every edge.
TEST(SampleConversion, MatchesTheRoundAndClampRuleForEveryLength) {
    std::vector<float> samples;
    for (int i = -70000; i <= 70000; ++i) samples.push_back(static_cast<float>(i) / 2.0f / 32768.0f);
    using limits = std::numeric_limits<float>;
    samples.insert(samples.end(), {std::nextafter(0.5f / 32768.0f, 0.0f), limits::denorm_min(), limits::max(),
                                   limits::quiet_NaN(), -limits::quiet_NaN()});
    for (std::size_t length : std::initializer_list<std::size_t>{0, 1, 31, 32, 33, 95, samples.size()}) {
        const auto input = std::span(samples).last(length);
        std::vector<std::uint8_t> out(2 * length + 2, 0xEE);
        convertToInt16LE(input, out.data());
        for (std::size_t i = 0; i < length; ++i) {
            const float x = input[i];
            const long expected =
                std::isnan(x) ? 0 : std::clamp(std::lround(std::clamp(double{x} * 32768.0, -4e4, 4e4)), -32768L, 32767L);
            const auto actual = static_cast<std::int16_t>(out[2 * i] | (out[2 * i + 1] << 8));
            ASSERT_EQ(actual, expected) << "sample " << x << " at " << i << " of " << length;
        }
        EXPECT_EQ(out[2 * length], 0xEE) << "wrote past the end";
    }
}

}  // namespace
}  // namespace orvel
