#include "update/UserInstall.h"

#include "update/UpdateError.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orvel::update {

namespace fs = std::filesystem;

namespace {

constexpr const char* tarProgram = "/bin/tar";

std::string systemReason(int error) { return std::strerror(error); }

// Runs tar and waits for it. It dies with the thread that started it, so a killed updater does
// not leave it writing into a folder that the next start removes.
int runTar(const fs::path& archive, const fs::path& folder) {
    const std::string archiveText = archive.string(), folderText = folder.string();
    const char* argv[] = {"tar", "-xzf", archiveText.c_str(), "-C", folderText.c_str(), "--no-same-owner", nullptr};
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        ::execv(tarProgram, const_cast<char* const*>(argv));
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::optional<UserInstall> UserInstall::containing(const fs::path& executable) {
    if (executable.filename() != "orvel" || executable.parent_path().filename() != "bin") return std::nullopt;
    const fs::path versionFolder = executable.parent_path().parent_path();
    UserInstall install(versionFolder.parent_path());
    std::error_code error;
    if (!fs::is_symlink(install.root_ / "current", error)) return std::nullopt;
    return install;
}

fs::path UserInstall::stableExecutable() const {
    std::error_code error;
    const fs::path stable = root_.parent_path().parent_path() / "bin/orvel";  // ~/.local/lib/orvel -> ~/.local/bin/orvel
    if (fs::equivalent(stable, root_ / "current/bin/orvel", error)) return stable;
    return root_ / "current/bin/orvel";
}

bool UserInstall::isWritable() const {
    // Ours and writable by its owner, not just writable: root may write anywhere, but an install
    // made read-only, or another account's, is left as it is.
    struct stat status {};
    return ::stat(root_.c_str(), &status) == 0 && status.st_uid == ::geteuid() && (status.st_mode & S_IWUSR) &&
           ::access(root_.c_str(), W_OK | X_OK) == 0;
}

bool UserInstall::isStaged(const std::string& version) const {
    return ::access(executable(version).c_str(), X_OK) == 0;
}

void UserInstall::removeLeftovers() const {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(root_, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(".") && (name.ends_with(".download") || name.ends_with(".partial")))
            fs::remove_all(entry.path(), error);
    }
}

void UserInstall::unpack(const fs::path& archive, const std::string& version) const {
    const fs::path partial = root_ / ("." + version + ".partial");
    std::error_code error;
    fs::remove_all(partial, error);
    if (!fs::create_directory(partial, error))
        throw UpdateError("Could not create " + partial.string() + ": " + error.message() + ".");
    if (runTar(archive, partial) != 0) {
        fs::remove_all(partial, error);
        throw UpdateError("Could not unpack the update archive.");
    }
    if (::access((partial / "bin/orvel").c_str(), X_OK) != 0) {
        fs::remove_all(partial, error);
        throw UpdateError("The update archive holds no bin/orvel.");
    }
    if (::rename(partial.c_str(), versionFolder(version).c_str()) != 0) {
        const int reason = errno;
        fs::remove_all(partial, error);
        throw UpdateError("Could not put the update in place: " + systemReason(reason) + ".");
    }
}

void UserInstall::switchTo(const std::string& version) const {
    const fs::path next = root_ / (".current." + std::to_string(::getpid()));
    ::unlink(next.c_str());
    // Relative, so the install still works when its folder moves.
    if (::symlink(version.c_str(), next.c_str()) != 0 || ::rename(next.c_str(), (root_ / "current").c_str()) != 0) {
        const int reason = errno;
        ::unlink(next.c_str());
        throw UpdateError("Could not switch to the update: " + systemReason(reason) + ".");
    }
}

}  // namespace orvel::update
