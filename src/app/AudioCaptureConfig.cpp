#include "app/AudioCaptureConfig.h"

#include "app/AudioCaptureType.h"
#include "app/DecodingError.h"

#include <nlohmann/json.hpp>

#include <string>

namespace orvel {

namespace {

using Json = nlohmann::json;

// What one member of the top-level object held, as far as decoding cares.
struct Member {
    enum class Form { absent, null, string, unsignedInteger, negativeInteger, nonIntegerNumber, other };
    Form form = Form::absent;
    std::string text;              // the string, or the number as written when it is not an integer
    std::uint64_t unsignedValue = 0;
};

// Streams the text once and keeps only the two members decoding needs; nested values are
// walked over, never built. The last of duplicate members wins.
class ConfigReader final : public nlohmann::json_sax<Json> {
public:
    bool parsed = false;
    bool topLevelIsObject = false;
    const char* topLevelName = "";
    Member type;
    Member sampleRate;

    bool null() override { return scalar(Member::Form::null, "null"); }
    bool boolean(bool) override { return scalar(Member::Form::other, "a boolean"); }
    bool number_integer(number_integer_t value) override {
        // The reader reports non-negative integers as unsigned, so this one carries a minus sign.
        if (Member* member = target()) {
            member->form = Member::Form::negativeInteger;
            member->text = std::to_string(value);
        }
        return scalar(Member::Form::negativeInteger, "a number");
    }
    bool number_unsigned(number_unsigned_t value) override {
        if (Member* member = target()) {
            member->form = Member::Form::unsignedInteger;
            member->unsignedValue = value;
        }
        return scalar(Member::Form::unsignedInteger, "a number");
    }
    bool number_float(number_float_t, const string_t& written) override {
        // Fractions, exponents and integers beyond 64 bits all arrive here, with their text.
        if (Member* member = target()) {
            member->form = Member::Form::nonIntegerNumber;
            member->text = written;
        }
        return scalar(Member::Form::nonIntegerNumber, "a number");
    }
    bool string(string_t& value) override {
        if (Member* member = target()) {
            member->form = Member::Form::string;
            member->text = std::move(value);
        }
        return scalar(Member::Form::string, "a string");
    }
    bool binary(binary_t&) override { return scalar(Member::Form::other, "binary data"); }

    bool start_object(std::size_t) override {
        if (depth_ == 0) {
            topLevelIsObject = true;
            topLevelName = "a dictionary";
        }
        return open();
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override {
        if (depth_ == 0) topLevelName = "an array";
        return open();
    }
    bool end_array() override { return close(); }

    bool key(string_t& name) override {
        if (depth_ == 1) {
            pending_ = name == "type" ? &type : name == "sample_rate" ? &sampleRate : nullptr;
        }
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    // The member a value at the current position belongs to, if it is one we keep.
    Member* target() const noexcept { return depth_ == 1 && topLevelIsObject ? pending_ : nullptr; }

    // Every value ends in here; the typed callbacks have stored their details already.
    bool scalar(Member::Form form, const char* name) {
        if (Member* member = target()) member->form = form;
        if (depth_ == 0) topLevelName = name;
        pending_ = depth_ == 1 ? nullptr : pending_;
        return true;
    }
    bool open() {
        if (Member* member = target()) {
            member->form = Member::Form::other;
            member->text.clear();
        }
        if (depth_ == 1) pending_ = nullptr;
        ++depth_;
        return true;
    }
    bool close() {
        --depth_;
        return true;
    }

    std::size_t depth_ = 0;
    Member* pending_ = nullptr;
};

[[noreturn]] void fail(DecodingError::Kind kind, std::string text) { throw DecodingError(kind, std::move(text)); }

void requirePresent(const Member& member, std::string_view name, std::string_view type) {
    if (member.form == Member::Form::absent) {
        fail(DecodingError::Kind::keyNotFound, "No value associated with key \"" + std::string(name) + "\".");
    }
    if (member.form == Member::Form::null) {
        fail(DecodingError::Kind::valueNotFound,
             "Expected " + std::string(type) + " value for key \"" + std::string(name) + "\" but found null instead.");
    }
}

}  // namespace

std::string_view stringValue(AudioCaptureConfig::CodingKeys key) noexcept {
    switch (key) {
    case AudioCaptureConfig::CodingKeys::type: return "type";
    case AudioCaptureConfig::CodingKeys::sampleRate: return "sample_rate";
    }
    return {};
}

AudioCaptureConfig AudioCaptureConfig::decode(std::string_view json) {
    ConfigReader reader;
    if (!Json::sax_parse(json.begin(), json.end(), &reader)) {
        fail(DecodingError::Kind::dataCorrupted, "The given data was not valid JSON.");
    }
    if (!reader.topLevelIsObject) {
        fail(DecodingError::Kind::typeMismatch,
             std::string("Expected to decode Dictionary<String, Any> but found ") + reader.topLevelName + " instead.");
    }

    const std::string_view typeKey = stringValue(CodingKeys::type);
    requirePresent(reader.type, typeKey, "String");
    if (reader.type.form != Member::Form::string) {
        fail(DecodingError::Kind::typeMismatch, "Expected to decode String for key \"type\" but found another type.");
    }
    const AudioCaptureType type = decodeAudioCaptureType(reader.type.text);

    const std::string_view rateKey = stringValue(CodingKeys::sampleRate);
    requirePresent(reader.sampleRate, rateKey, "UInt64");
    switch (reader.sampleRate.form) {
    case Member::Form::unsignedInteger: break;
    case Member::Form::negativeInteger:
    case Member::Form::nonIntegerNumber:
        fail(DecodingError::Kind::dataCorrupted,
             "Number " + reader.sampleRate.text.substr(0, 64) + " is not representable in UInt64.");
    default:
        fail(DecodingError::Kind::typeMismatch,
             "Expected to decode UInt64 for key \"sample_rate\" but found another type.");
    }

    switch (type) {
    case AudioCaptureType::loopback: return loopback(reader.sampleRate.unsignedValue);
    }
    fail(DecodingError::Kind::dataCorrupted, "Unknown capture type.");
}

}  // namespace orvel
