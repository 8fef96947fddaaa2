#include "platform/TrayIcon.h"

#include "e2e/Process.h"

#include <gtest/gtest.h>

#include <fstream>

// The tray itself runs in the orvel executable under a private desktop: tests/app/OrvelEndToEndTests.cpp.
namespace orvel::platform {
namespace {

TEST(TrayIconFolder, FindsTheIconBesideTheInstallation) {
    test::TemporaryFolder folder;
    std::filesystem::create_directories(folder.path() / "bin");
    EXPECT_EQ(TrayIcon::iconDirectoryFor(folder.path() / "bin" / "orvel"), "");
    std::filesystem::create_directories(folder.path() / "share" / "orvel" / "icons");
    std::ofstream(folder.path() / "share" / "orvel" / "icons" / "MenuBarIcon.svg") << "<svg/>";
    EXPECT_EQ(TrayIcon::iconDirectoryFor(folder.path() / "bin" / "orvel"),
              (folder.path() / "share" / "orvel" / "icons").string());
}

}  // namespace
}  // namespace orvel::platform
