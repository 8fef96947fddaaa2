#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace orvel {

// The application's identity and Info dictionary, as the platform's bundle object gives them.
// The main bundle's dictionary is built in at compile time from the build's version and update
// setting; tests construct any dictionary. Immutable once made, so any thread may read it.
class Bundle {
public:
    using InfoValue = std::variant<bool, std::int64_t, double, std::string>;
    using InfoDictionary = std::map<std::string, InfoValue, std::less<>>;

    static constexpr const char* mainIdentifier = "com.tamrix.orvel";
    static constexpr const char* versionKey = "CFBundleVersion";
    static constexpr const char* automaticUpdatesKey = "SUAutomaticallyUpdate";
    static constexpr const char* feedURLKey = "SUFeedURL";
    static constexpr const char* publicEDKeyKey = "SUPublicEDKey";
    // Seconds from start to the updater's first check. It exists for the updater's end-to-end
    // tests, whose builds set it so as not to wait the default; no release build has it.
    static constexpr const char* testFirstCheckDelayKey = "OrvelTestFirstCheckDelay";

    Bundle(std::string bundleIdentifier, InfoDictionary infoDictionary);

    // The application's own bundle, made on first use and never changed afterwards.
    static const Bundle& mainBundle();

    // What this build put in the main bundle: "CFBundleVersion" with the build's version (left
    // out when the build gave none), "SUAutomaticallyUpdate" = true when updates are configured,
    // and the update feed and key ("SUFeedURL", "SUPublicEDKey") when the build gave them.
    static InfoDictionary builtInInfoDictionary();

    const std::string& bundleIdentifier() const noexcept { return bundleIdentifier_; }
    const InfoDictionary& infoDictionary() const noexcept { return infoDictionary_; }

    // The value under key, or nullptr when the key is absent.
    const InfoValue* objectForInfoDictionaryKey(std::string_view key) const;

    // The value under key when it is text; nullopt when absent or of another kind.
    std::optional<std::string> stringForInfoDictionaryKey(std::string_view key) const;

private:
    std::string bundleIdentifier_;
    InfoDictionary infoDictionary_;
};

}  // namespace orvel
