#include "app/Bundle.h"

#include <utility>

namespace orvel {

Bundle::Bundle(std::string bundleIdentifier, InfoDictionary infoDictionary)
    : bundleIdentifier_(std::move(bundleIdentifier)), infoDictionary_(std::move(infoDictionary)) {}

const Bundle& Bundle::mainBundle() {
    static const Bundle bundle(mainIdentifier, builtInInfoDictionary());
    return bundle;
}

Bundle::InfoDictionary Bundle::builtInInfoDictionary() {
    InfoDictionary info;
    std::string version = ORVEL_BUILD_VERSION;
    if (!version.empty()) info.emplace(versionKey, std::move(version));
#if ORVEL_AUTOMATIC_UPDATES
    info.emplace(automaticUpdatesKey, true);
#endif
#ifdef ORVEL_FEED_URL
    if (std::string url = ORVEL_FEED_URL; !url.empty()) info.emplace(feedURLKey, std::move(url));
#endif
#ifdef ORVEL_PUBLIC_ED_KEY
    if (std::string key = ORVEL_PUBLIC_ED_KEY; !key.empty()) info.emplace(publicEDKeyKey, std::move(key));
#endif
#ifdef ORVEL_TEST_FIRST_CHECK_DELAY
    info.emplace(testFirstCheckDelayKey, double{ORVEL_TEST_FIRST_CHECK_DELAY});
#endif
    return info;
}

const Bundle::InfoValue* Bundle::objectForInfoDictionaryKey(std::string_view key) const {
    auto found = infoDictionary_.find(key);
    return found == infoDictionary_.end() ? nullptr : &found->second;
}

std::optional<std::string> Bundle::stringForInfoDictionaryKey(std::string_view key) const {
    const InfoValue* value = objectForInfoDictionaryKey(key);
    if (const auto* text = value ? std::get_if<std::string>(value) : nullptr) return *text;
    return std::nullopt;
}

}  // namespace orvel
