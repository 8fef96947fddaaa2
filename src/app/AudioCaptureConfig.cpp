#include "app/AudioCaptureConfig.h"

#include "app/AudioCaptureType.h"
#include "app/DecodingError.h"

#include <nlohmann/json.hpp>

#include <string>

namespace orvel {

namespace {

using Json = nlohmann::json;

[[noreturn]] void fail(std::string text) { throw DecodingError(std::move(text)); }

// The member `name` of the object, which must be there and not null.
const Json& member(const Json& object, std::string_view name, std::string_view type) {
    const auto found = object.find(name);
    if (found == object.end()) fail("No value associated with key \"" + std::string(name) + "\".");
    if (found->is_null())
        fail("Expected " + std::string(type) + " value for key \"" + std::string(name) + "\" but found null instead.");
    return *found;
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
    // A page's message is small (the WebSocket layer bounds it), so a plain parse serves; invalid
    // UTF-8 fails it like any other malformed text.
    const Json object = Json::parse(json, nullptr, false);
    if (object.is_discarded()) fail("The given data was not valid JSON.");
    if (!object.is_object())
        fail(std::string("Expected to decode Dictionary<String, Any> but found ") + object.type_name() + " instead.");

    const Json& type = member(object, stringValue(CodingKeys::type), "String");
    if (!type.is_string()) fail("Expected to decode String for key \"type\" but found another type.");
    const AudioCaptureType kind = decodeAudioCaptureType(type.get_ref<const std::string&>());

    // Only a plain integer in 0...2^64-1 is a rate: the parser gives a minus sign (even "-0"), a
    // fraction, an exponent and anything past 64 bits another number type.
    const Json& rate = member(object, stringValue(CodingKeys::sampleRate), "UInt64");
    if (rate.is_number() && !rate.is_number_unsigned())
        fail("Number " + rate.dump().substr(0, 64) + " is not representable in UInt64.");
    if (!rate.is_number_unsigned()) fail("Expected to decode UInt64 for key \"sample_rate\" but found another type.");

    switch (kind) {
    case AudioCaptureType::loopback: return loopback(rate.get<std::uint64_t>());
    }
    fail("Unknown capture type.");
}

}  // namespace orvel
