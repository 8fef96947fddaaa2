#include "update/Appcast.h"
#include "update/UpdateError.h"
#include "update/Version.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvel::update {
namespace {

TEST(UpdateVersionOrder, ComparesNumericComponentsNotText) {
    const struct {
        const char *a, *b;
        int order;
    } cases[] = {{"1.0.1", "1.0.0", 1}, {"1.10", "1.9", 1}, {"1.0", "1.0.0", 0}, {"2", "10", -1},
                 {"1.0.0", "1.0.0", 0}, {"1.0.1-beta", "1.0.1", 0}, {"0010", "9", 1},
                 {"99999999999999999999.1", "99999999999999999999.0", 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(compareVersions(c.a, c.b), c.order) << c.a << " vs " << c.b;
        EXPECT_EQ(compareVersions(c.b, c.a), -c.order) << c.b << " vs " << c.a;
    }
}

std::string feed(const std::string& items, const std::string& prefix = "orvel") {
    return "<?xml version=\"1.0\"?><rss version=\"2.0\" xmlns:" + prefix + "=\"" + Appcast::namespaceURI +
           "\"><channel><title>t</title>" + items + "</channel></rss>";
}

std::string item(const std::string& version, const std::string& extra = "", const std::string& prefix = "orvel") {
    return "<item><enclosure url=\"https://example.com/o.tar.gz\" length=\"42\" " + prefix + ":version=\"" + version +
           "\" " + prefix + ":edSignature=\"c2ln\"" + extra + "/></item>";
}

TEST(UpdateAppcast, KeepsCompleteReleasesAndFindsTheNewest) {
    const struct {
        std::string name, xml;
        std::string versions;  // the kept items' versions, joined
        std::optional<std::string> newest;  // newer than 1.0.0
    } cases[] = {
        {"two releases", feed(item("1.0.1") + item("1.2")), "1.0.1,1.2", "1.2"},
        {"any prefix bound to the namespace", feed(item("1.0.1", "", "u"), "u"), "1.0.1", "1.0.1"},
        {"only older or equal", feed(item("0.9") + item("1.0")), "0.9,1.0", std::nullopt},
        {"a version that could leave its folder", feed(item("../1.1") + item("1/1") + item("..")), "", std::nullopt},
        {"no length, or one that is not a number",
         feed("<item><enclosure url=\"u\" orvel:version=\"2\" orvel:edSignature=\"s\"/></item>"
              "<item><enclosure url=\"u\" length=\"4x\" orvel:version=\"3\" orvel:edSignature=\"s\"/></item>"),
         "", std::nullopt},
        {"two enclosures", feed("<item><enclosure/><enclosure/></item>"), "", std::nullopt},
    };
    for (const auto& c : cases) {
        const Appcast appcast = Appcast::parse(c.xml);
        std::string versions;
        for (const auto& kept : appcast.items()) versions += (versions.empty() ? "" : ",") + kept.versionString;
        EXPECT_EQ(versions, c.versions) << c.name;
        const auto newest = appcast.bestItemNewerThan("1.0.0");
        EXPECT_EQ(newest ? std::optional(newest->versionString) : std::nullopt, c.newest) << c.name;
    }
}

TEST(UpdateAppcast, RefusesWhatIsNotAnRSSFeed) {
    const std::string texts[] = {"not xml at all", "<rss><channel>", "<html><body/></html>", "<rss/>",
                                 std::string(Appcast::maxFeedBytes + 1, ' ')};
    for (const auto& text : texts)
        EXPECT_THROW(Appcast::parse(text), UpdateError) << text.substr(0, 40);
}

}  // namespace
}  // namespace orvel::update
