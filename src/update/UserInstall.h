#pragma once
#include <filesystem>
#include <optional>
#include <string>

namespace orvel::update {

// The per-user install that the updater changes: a root (~/.local/lib/orvel) with one folder per
// release (<root>/<version>/bin/orvel, …), the link <root>/current -> <version> that the stable
// path ~/.local/bin/orvel goes through, and the updater's leftovers (".<version>.download",
// ".<version>.partial"). A release folder appears by one rename once complete, and the install
// switches by one rename of `current`, so a process killed at any moment leaves either the old
// release or the new one, never half of one. Used by one thread at a time.
class UserInstall {
public:
    explicit UserInstall(std::filesystem::path root) : root_(std::move(root)) {}

    // The install `executable` (resolved, as /proc/self/exe gives it) belongs to: it must be
    // <root>/<version>/bin/orvel with <root>/current a link. nullopt for a package or a build.
    static std::optional<UserInstall> containing(const std::filesystem::path& executable);

    const std::filesystem::path& root() const noexcept { return root_; }
    std::filesystem::path versionFolder(const std::string& version) const { return root_ / version; }
    std::filesystem::path executable(const std::string& version) const { return versionFolder(version) / "bin/orvel"; }
    std::filesystem::path downloadPath(const std::string& version) const { return root_ / ("." + version + ".download"); }
    // ~/.local/bin/orvel when it leads here, else <root>/current/bin/orvel: what a login item starts.
    std::filesystem::path stableExecutable() const;

    // The root belongs to this user, who may write it: create and rename entries in it.
    bool isWritable() const;
    // A complete release folder for this version is there (it appears only once complete).
    bool isStaged(const std::string& version) const;

    // Removes downloads and unpacked folders that a process ended before finishing.
    void removeLeftovers() const;
    // Unpacks a checked .tar.gz archive into the version's folder: first beside it, then one
    // rename. Throws UpdateError.
    void unpack(const std::filesystem::path& archive, const std::string& version) const;
    // Points `current` at the version's folder by one atomic rename. Throws UpdateError.
    void switchTo(const std::string& version) const;

private:
    std::filesystem::path root_;
};

}  // namespace orvel::update
