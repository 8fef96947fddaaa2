#include "update/Appcast.h"

#include "update/UpdateError.h"
#include "update/Version.h"

#include <pugixml.hpp>

#include <charconv>
#include <cstring>

namespace orvel::update {

namespace {

// The prefix the feed binds to our namespace on its root, with its colon ("orvel:"); pugixml
// keeps qualified names as written, so attributes are looked up by prefix.
std::optional<std::string> ourPrefix(const pugi::xml_node& root) {
    for (const auto& attribute : root.attributes()) {
        const std::string_view name = attribute.name();
        if (name.starts_with("xmlns:") && std::strcmp(attribute.value(), Appcast::namespaceURI) == 0)
            return std::string(name.substr(6)) + ":";
    }
    return std::nullopt;
}

std::optional<std::uint64_t> parseLength(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

std::optional<AppcastItem> parseItem(const pugi::xml_node& node, const std::string& prefix) {
    const auto enclosures = node.children("enclosure");
    const auto first = enclosures.begin();
    if (first == enclosures.end() || std::next(first) != enclosures.end()) return std::nullopt;
    const pugi::xml_node enclosure = *first;
    AppcastItem item;
    item.versionString = enclosure.attribute((prefix + "version").c_str()).value();
    item.displayVersionString = enclosure.attribute((prefix + "shortVersionString").c_str()).value();
    item.url = enclosure.attribute("url").value();
    item.edSignature = enclosure.attribute((prefix + "edSignature").c_str()).value();
    const auto length = parseLength(enclosure.attribute("length").value());
    if (!length || *length == 0 || item.url.empty() || item.edSignature.empty() ||
        !Appcast::isValidVersionString(item.versionString))
        return std::nullopt;
    item.length = *length;
    if (item.displayVersionString.empty()) item.displayVersionString = item.versionString;
    if (const auto notes = node.child((prefix + "releaseNotesLink").c_str())) item.releaseNotesURL = notes.text().get();
    return item;
}

}  // namespace

bool Appcast::isValidVersionString(std::string_view version) {
    if (version.empty() || version.size() > 64 || version == "." || version == "..") return false;
    for (char c : version)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || std::strchr(".-_+", c)))
            return false;
    return true;
}

Appcast Appcast::parse(std::string_view xml) {
    if (xml.size() > maxFeedBytes) throw UpdateError("The update feed is larger than 1 MiB.");
    pugi::xml_document document;
    // No entity expansion beyond XML's own five: pugixml never fetches or expands external ones.
    const auto result = document.load_buffer(xml.data(), xml.size(), pugi::parse_default);
    if (!result) throw UpdateError(std::string("The update feed is not XML: ") + result.description() + ".");
    const pugi::xml_node rss = document.child("rss");
    const pugi::xml_node channel = rss.child("channel");
    if (!rss || !channel) throw UpdateError("The update feed is not an RSS feed.");
    const std::string prefix = ourPrefix(rss).value_or("orvel:");

    Appcast appcast;
    for (const auto& node : channel.children("item"))
        if (auto item = parseItem(node, prefix)) appcast.items_.push_back(std::move(*item));
    return appcast;
}

std::optional<AppcastItem> Appcast::bestItemNewerThan(std::string_view version) const {
    const AppcastItem* best = nullptr;
    for (const auto& item : items_)
        if (compareVersions(item.versionString, best ? std::string_view(best->versionString) : version) > 0) best = &item;
    if (!best) return std::nullopt;
    return *best;
}

std::string Appcast::debugDescription() const {
    std::string text = "Appcast with " + std::to_string(items_.size()) + (items_.size() == 1 ? " item" : " items");
    for (std::size_t i = 0; i < items_.size(); ++i) text += (i == 0 ? ": " : ", ") + items_[i].versionString;
    return text;
}

}  // namespace orvel::update
