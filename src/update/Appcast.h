#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::update {

// One release of the feed: an RSS 2.0 <item> whose single <enclosure> carries the archive's URL,
// its exact length and the Ed25519 signature of its bytes, and, in the feed's namespace, the
// release's version (its folder name) and the version shown to people.
struct AppcastItem {
    std::string versionString;
    std::string displayVersionString;
    std::string url;
    std::uint64_t length = 0;
    std::string edSignature;  // base64 of the 64-byte signature
    std::optional<std::string> releaseNotesURL;

    bool operator==(const AppcastItem&) const = default;
};

// The feed: its items in feed order. Made only by parse(), which refuses anything that is not
// such a feed; items that lack a part of a release, or whose version could not name a folder,
// are left out rather than failing the feed.
class Appcast {
public:
    // The namespace of the feed's own attributes.
    static constexpr const char* namespaceURI = "https://tamrix.com/xml-namespaces/orvel-update";
    static constexpr std::size_t maxFeedBytes = 1024 * 1024;

    // Throws UpdateError when the bytes are not an RSS 2.0 feed.
    static Appcast parse(std::string_view xml);

    const std::vector<AppcastItem>& items() const noexcept { return items_; }
    // The newest item strictly newer than `version`, if any.
    std::optional<AppcastItem> bestItemNewerThan(std::string_view version) const;
    // One line for the log: the item count and their versions.
    std::string debugDescription() const;

    // A version that can be a folder name: letters, digits, '.', '-', '_' and '+', not "." or "..".
    static bool isValidVersionString(std::string_view version);

private:
    std::vector<AppcastItem> items_;
};

}  // namespace orvel::update
