#include "platform/XdgAutostart.h"

#include <glib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <optional>
#include <pwd.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orvel::platform {
namespace fs = std::filesystem;

namespace {

constexpr const char* entryGroup = "Desktop Entry";
// A login entry is a few hundred bytes; anything far larger is not one we wrote.
constexpr std::streamsize maxEntryBytes = 64 * 1024;

std::string systemReason(int errnoValue) { return std::strerror(errnoValue); }

XdgAutostart::Error failure(std::string_view what, const fs::path& path, int errnoValue) {
    return XdgAutostart::Error(std::string(what) + " " + path.string() + " (" + systemReason(errnoValue) + ")");
}

class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int fd = -1) noexcept : fd_(fd) {}
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    ~OwnedDescriptor() { closeNow(); }
    int get() const noexcept { return fd_; }
    // Returns close's errno (0 on success): on some file systems a write error surfaces only here.
    int closeNow() noexcept {
        if (fd_ < 0) return 0;
        int result = ::close(std::exchange(fd_, -1));  // no retry on EINTR: on Linux the fd is already gone
        return result == 0 ? 0 : errno;
    }

private:
    int fd_;
};

// Removes the temporary file unless it was renamed into place.
class TemporaryFile {
public:
    explicit TemporaryFile(fs::path path) : path_(std::move(path)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    const fs::path& path() const noexcept { return path_; }
    void committed() noexcept { path_.clear(); }

private:
    fs::path path_;
};

// Key-file layer (Desktop Entry format, "Possible value types"): these escapes are undone by
// every reader before Exec is split into arguments.
std::string escapeValue(std::string_view value) {
    std::string out;
    out.reserve(value.size() + 8);
    for (char c : value) {
        switch (c) {
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\r': out += "\\r"; break;
            default: out += c;
        }
    }
    return out;
}

// Exec layer: one argument in double quotes, with " ` $ \ escaped by a backslash, and % doubled
// because a lone % starts a field code.
std::string quoteExecArgument(std::string_view argument) {
    std::string out = "\"";
    for (char c : argument) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') out += '\\';
        if (c == '%') out += '%';
        out += c;
    }
    out += '"';
    return out;
}

// The program of an Exec value whose key-file escapes are already undone; nullopt when the
// value is empty or its quoting is broken.
std::optional<std::string> execProgram(std::string_view exec) {
    std::size_t i = exec.find_first_not_of(" \t");
    if (i == std::string_view::npos) return std::nullopt;
    std::string program;
    if (exec[i] == '"') {
        for (++i;; ++i) {
            if (i >= exec.size()) return std::nullopt;
            char c = exec[i];
            if (c == '"') break;
            if (c == '\\' && i + 1 < exec.size()) {
                char next = exec[i + 1];
                if (next == '"' || next == '`' || next == '$' || next == '\\') {
                    c = next;
                    ++i;
                }
            }
            program += c;
        }
    } else {
        std::size_t end = exec.find_first_of(" \t", i);
        program = exec.substr(i, end == std::string_view::npos ? std::string_view::npos : end - i);
    }
    std::string unescaped;
    for (std::size_t k = 0; k < program.size(); ++k) {
        if (program[k] == '%') {
            if (k + 1 < program.size() && program[k + 1] == '%') {
                unescaped += '%';
                ++k;
                continue;
            }
            return std::nullopt;  // a field code cannot stand in the program's name
        }
        unescaped += program[k];
    }
    return unescaped;
}

std::optional<std::string> readSmallFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string data(static_cast<std::size_t>(maxEntryBytes) + 1, '\0');
    in.read(data.data(), maxEntryBytes + 1);
    std::streamsize got = in.gcount();
    if (got > maxEntryBytes || in.bad()) return std::nullopt;
    data.resize(static_cast<std::size_t>(got));
    return data;
}

std::optional<std::string> stringValue(GKeyFile* file, const char* key) {
    gchar* value = g_key_file_get_string(file, entryGroup, key, nullptr);
    if (!value) return std::nullopt;
    std::string result(value);
    g_free(value);
    return result;
}

bool sameFile(const fs::path& a, const fs::path& b) {
    if (a.lexically_normal() == b.lexically_normal()) return true;
    std::error_code error;
    return fs::equivalent(a, b, error);
}

void makeFolders(const fs::path& folder) {
    std::vector<fs::path> missing;
    for (fs::path p = folder; !p.empty(); p = p.parent_path()) {
        struct stat info {};
        if (::stat(p.c_str(), &info) == 0) {
            if (!S_ISDIR(info.st_mode)) throw failure("Could not create folder", folder, ENOTDIR);
            break;
        }
        if (errno != ENOENT) throw failure("Could not create folder", folder, errno);
        missing.push_back(p);
        if (p == p.parent_path()) break;
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (::mkdir(it->c_str(), 0700) != 0 && errno != EEXIST) throw failure("Could not create folder", *it, errno);
    }
}

fs::path homeFolder() {
    if (const char* home = std::getenv("HOME"); home && home[0] == '/') return home;
    struct passwd entry {};
    struct passwd* found = nullptr;
    std::string buffer(16384, '\0');
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir)
        return found->pw_dir;
    return "/";
}

}  // namespace

XdgAutostart::XdgAutostart(Configuration configuration) : configuration_(std::move(configuration)) {}

XdgAutostart XdgAutostart::mainAppService() {
    Configuration configuration;
    configuration.identifier = applicationIdentifier;
    configuration.name = applicationName;
    std::error_code error;
    configuration.executable = fs::read_symlink("/proc/self/exe", error);
    // A relative XDG_CONFIG_HOME is invalid and ignored, as the XDG base directory rules say.
    if (const char* home = std::getenv("XDG_CONFIG_HOME"); home && home[0] == '/')
        configuration.configHome = home;
    else
        configuration.configHome = homeFolder() / ".config";
    return XdgAutostart(std::move(configuration));
}

fs::path XdgAutostart::entryPath() const {
    return configuration_.configHome / "autostart" / (configuration_.identifier + ".desktop");
}

XdgAutostart::Status XdgAutostart::status() const {
    std::optional<std::string> data = readSmallFile(entryPath());
    if (!data) return Status::notRegistered;
    std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> file(g_key_file_new(), &g_key_file_free);
    if (!g_key_file_load_from_data(file.get(), data->data(), data->size(), G_KEY_FILE_NONE, nullptr))
        return Status::notRegistered;
    gchar* start = g_key_file_get_start_group(file.get());
    bool entryFirst = start && std::strcmp(start, entryGroup) == 0;
    g_free(start);
    if (!entryFirst) return Status::notRegistered;
    // Turned off by the user: their choice stands, whatever else the entry says.
    if (stringValue(file.get(), "Hidden") == "true") return Status::enabled;
    if (stringValue(file.get(), "X-GNOME-Autostart-enabled") == "false") return Status::enabled;
    if (stringValue(file.get(), "Type") != "Application") return Status::notRegistered;
    std::optional<std::string> exec = stringValue(file.get(), "Exec");
    std::optional<std::string> program = exec ? execProgram(*exec) : std::nullopt;
    if (!program || program->empty() || program->front() != '/') return Status::notRegistered;
    return sameFile(*program, configuration_.executable) ? Status::enabled : Status::notRegistered;
}

void XdgAutostart::registerEntry() const {
    const std::string& executable = configuration_.executable.native();
    if (executable.empty() || executable.front() != '/')
        throw Error("Could not register login item: the executable path \"" + executable + "\" is not absolute");
    // Desktop entries are UTF-8 text; a path in another encoding cannot be written faithfully.
    if (!g_utf8_validate(executable.data(), static_cast<gssize>(executable.size()), nullptr))
        throw Error("Could not register login item: the executable path is not valid UTF-8");
    // The entry would say %% as the format demands, but GLib's launcher and systemd's autostart
    // generator look for a program named with the doubled %, so the item would never start.
    if (executable.find('%') != std::string::npos)
        throw Error("Could not register login item: the executable path \"" + executable +
                    "\" contains %, which autostart launchers cannot start");
    std::string contents = "[Desktop Entry]\n"
                           "Type=Application\n"
                           "Name=" + escapeValue(configuration_.name) + "\n"
                           "Exec=" + escapeValue(quoteExecArgument(executable)) + "\n"
                           "X-GNOME-Autostart-enabled=true\n"
                           "NoDisplay=true\n"
                           "Terminal=false\n";

    fs::path path = entryPath();
    fs::path folder = path.parent_path();
    makeFolders(folder);

    std::string pattern = (folder / ("." + configuration_.identifier + ".desktop.XXXXXX")).native();
    OwnedDescriptor fd(::mkostemp(pattern.data(), O_CLOEXEC));
    if (fd.get() < 0) throw failure("Could not write", path, errno);
    TemporaryFile temporary{fs::path(pattern)};

    std::string_view rest = contents;
    while (!rest.empty()) {
        ssize_t written = ::write(fd.get(), rest.data(), rest.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            throw failure("Could not write", path, errno);
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    if (::fchmod(fd.get(), 0644) != 0) throw failure("Could not write", path, errno);
    // Without the sync a crash after the rename can leave an empty entry in place of the old one.
    if (::fsync(fd.get()) != 0) throw failure("Could not write", path, errno);
    if (int closeError = fd.closeNow(); closeError != 0) throw failure("Could not write", path, closeError);
    if (::rename(temporary.path().c_str(), path.c_str()) != 0) throw failure("Could not write", path, errno);
    temporary.committed();
}

}  // namespace orvel::platform
