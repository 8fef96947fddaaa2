#include "platform/XdgAutostart.h"

#include "e2e/Process.h"

#include <gio/gdesktopappinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace orvel::platform {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Status = XdgAutostart::Status;

void writeFile(const fs::path& path, const std::string& contents, fs::perms perms = fs::perms::owner_read | fs::perms::owner_write) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << contents;
    fs::permissions(path, perms);
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
}

// desktop-file-validate's complaints about an entry: empty when it is valid and without warnings.
std::string validatorComplaints(const fs::path& entry) {
    std::string validator = test::findProgram("desktop-file-validate");
    if (validator.empty()) return "desktop-file-validate is missing (scripts/setup installs desktop-file-utils)";
    auto result = test::runProgram({validator, entry.string()});
    return result.exitCode == 0 ? result.output : "exit " + std::to_string(result.exitCode) + ": " + result.output;
}

// The failure's text, or "registered".
std::string registerFailure(const XdgAutostart& item) {
    try {
        item.registerEntry();
        return "registered";
    } catch (const XdgAutostart::Error& error) {
        return error.description();
    }
}

class LoginItem : public ::testing::Test {
protected:
    test::TemporaryFolder folder;
    fs::path configHome = folder.path() / "config";

    XdgAutostart autostartFor(const fs::path& executable) const {
        return XdgAutostart({"com.tamrix.orvel", "Tamrix Orvel", executable, configHome});
    }
    fs::path userEntry() const { return configHome / "autostart" / "com.tamrix.orvel.desktop"; }

    // Starts the entry the way GLib-based sessions do; the program records the path it saw as $0.
    std::string launchedPath(const fs::path& entry) const {
        fs::path marker = folder.path() / "launched";
        fs::remove(marker);
        g_autoptr(GDesktopAppInfo) info = g_desktop_app_info_new_from_filename(entry.c_str());
        if (!info) return "<GLib could not load the entry>";
        g_autoptr(GAppLaunchContext) context = g_app_launch_context_new();
        g_app_launch_context_setenv(context, "ORVEL_TEST_MARKER", marker.c_str());
        GPid pid = 0;
        g_autoptr(GError) error = nullptr;
        auto recordPid = [](GDesktopAppInfo*, GPid child, gpointer data) { *static_cast<GPid*>(data) = child; };
        if (!g_desktop_app_info_launch_uris_as_manager(info, nullptr, context, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr,
                                                       recordPid, &pid, &error))
            return std::string("<launch failed: ") + (error ? error->message : "unknown error") + ">";
        ::waitpid(pid, nullptr, 0);
        g_spawn_close_pid(pid);
        std::stringstream text;
        text << std::ifstream(marker, std::ios::binary).rdbuf();
        return text.str();
    }
};

TEST_F(LoginItem, RegistersAValidEntryInAPrivateFolderAndReplacesAnOldOne) {
    auto item = autostartFor("/usr/bin/orvel");
    EXPECT_EQ(item.status(), Status::notRegistered);
    writeFile(userEntry(), "[Desktop Entry]\nType=Application\nName=Old\nExec=/old/orvel\n");
    EXPECT_EQ(item.status(), Status::notRegistered);
    item.registerEntry();
    item.registerEntry();
    EXPECT_EQ(item.status(), Status::enabled);
    EXPECT_EQ(item.entryPath(), userEntry());
    EXPECT_EQ(validatorComplaints(userEntry()), "");
    EXPECT_THAT(namesIn(userEntry().parent_path()), ElementsAre("com.tamrix.orvel.desktop")) << "no temporary file left";

    fs::remove_all(configHome);
    item.registerEntry();
    struct stat info {};
    ASSERT_EQ(::stat(configHome.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u) << "a config folder we create is private";
}

TEST_F(LoginItem, ExecQuotingStartsExactlyThisProgramWhateverItsPathHolds) {
    for (const std::string name : {"plain", "with space", "dollar$HOME", "back`tick`", "back\\slash", "double\"quote",
                                   "single'quote", "semi;colon&amp", "été", "new\nline"}) {
        SCOPED_TRACE(name);
        fs::path program = folder.path() / "bin dir" / name;
        writeFile(program, "#!/bin/sh\nprintf '%s' \"$0\" > \"$ORVEL_TEST_MARKER\"\n", fs::perms::owner_all);
        auto item = autostartFor(program);
        item.registerEntry();
        EXPECT_EQ(item.status(), Status::enabled);
        EXPECT_EQ(validatorComplaints(userEntry()), "");
        EXPECT_EQ(launchedPath(userEntry()), program.string());
    }
}

TEST_F(LoginItem, RefusesPathsAnEntryCannotNameFaithfully) {
    EXPECT_THAT(registerFailure(autostartFor("relative/orvel")), HasSubstr("not absolute"));
    EXPECT_THAT(registerFailure(autostartFor("/opt/bad\xff/orvel")), HasSubstr("not valid UTF-8"));
    EXPECT_THAT(registerFailure(autostartFor("/opt/100%/orvel")), HasSubstr("contains %"));
    EXPECT_FALSE(fs::exists(userEntry()));
}

// Enabled: an entry that starts this program, or one the user turned off (never turned back on).
TEST_F(LoginItem, ReadsAnEntryThatStartsThisProgramOrThatTheUserTurnedOffAsEnabled) {
    const std::string head = "[Desktop Entry]\nType=Application\nName=Tamrix Orvel\n";
    const std::string exec = "Exec=\"/opt/Orvel App/orvel\"\n";
    const std::vector<std::tuple<const char*, std::string, Status>> cases = {
        {"quoted path with arguments", head + "Exec=\"/opt/Orvel App/orvel\" --background %U\n", Status::enabled},
        {"non-normalised path", head + "Exec=\"/opt/./Orvel App//orvel\"\n", Status::enabled},
        {"other groups after the entry", head + exec + "[Desktop Action x]\nName=x\n", Status::enabled},
        {"hidden by the user", head + exec + "Hidden=true\n", Status::enabled},
        {"turned off in GNOME's settings", head + "Exec=/old/orvel\nX-GNOME-Autostart-enabled=false\n", Status::enabled},
        {"turned on in GNOME's settings", head + "Exec=/old/orvel\nX-GNOME-Autostart-enabled=true\n", Status::notRegistered},
        {"a link", "[Desktop Entry]\nType=Link\nName=x\nURL=http://x\n" + exec, Status::notRegistered},
        {"another program", head + "Exec=/usr/bin/other\n", Status::notRegistered},
        {"unquoted path cut at the space", head + "Exec=/opt/Orvel App/orvel\n", Status::notRegistered},
        {"relative program", head + "Exec=orvel\n", Status::notRegistered},
        {"unterminated quote", head + "Exec=\"/opt/Orvel App/orvel\n", Status::notRegistered},
        {"no Exec", head, Status::notRegistered},
        {"another group first", "[Other]\nA=b\n" + head + exec, Status::notRegistered},
        {"no group", exec, Status::notRegistered},
        {"garbage line", head + exec + "this is not a key\n", Status::notRegistered},
        {"far too large", head + exec + "X-Padding=" + std::string(70000, 'x') + "\n", Status::notRegistered},
    };
    for (const auto& [why, entry, expected] : cases) {
        SCOPED_TRACE(why);
        writeFile(userEntry(), entry);
        EXPECT_EQ(autostartFor("/opt/Orvel App/orvel").status(), expected);
    }
}

TEST_F(LoginItem, ReportsWhichFileCouldNotBeWrittenAndWhy) {
    auto item = autostartFor("/usr/bin/orvel");
    writeFile(configHome / "autostart", "a file where the folder should be");
    EXPECT_THAT(registerFailure(item), HasSubstr((configHome / "autostart").string() + " (Not a directory)"));

    fs::remove(configHome / "autostart");
    fs::create_directories(userEntry());  // a folder in the entry's place: the rename fails
    EXPECT_THAT(registerFailure(item), AllOf(HasSubstr(userEntry().string()), HasSubstr("Is a directory")));
    EXPECT_THAT(namesIn(userEntry().parent_path()), ElementsAre("com.tamrix.orvel.desktop")) << "the temporary file was removed";
}

TEST(MainLoginItem, UsesThisExecutableAndIgnoresARelativeConfigHome) {
    const char* saved = std::getenv("XDG_CONFIG_HOME");
    std::optional<std::string> restore = saved ? std::optional<std::string>(saved) : std::nullopt;
    ::setenv("XDG_CONFIG_HOME", "relative/config", 1);
    auto item = XdgAutostart::mainAppService();
    if (restore) ::setenv("XDG_CONFIG_HOME", restore->c_str(), 1); else ::unsetenv("XDG_CONFIG_HOME");

    EXPECT_EQ(item.configuration().identifier, "com.tamrix.orvel");
    EXPECT_EQ(item.configuration().executable, fs::read_symlink("/proc/self/exe"));
    EXPECT_EQ(item.configuration().configHome.filename(), ".config");
    EXPECT_TRUE(item.configuration().configHome.is_absolute());
}

}  // namespace
}  // namespace orvel::platform
