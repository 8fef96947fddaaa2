#pragma once
#include "update/Appcast.h"
#include "update/UpdateError.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace orvel::update {

// The answer to the permission question; downloading is a number object where the question
// was first asked, hence the optional.
struct UpdatePermissionResponse {
    bool automaticUpdateChecks = false;
    std::optional<bool> automaticUpdateDownloading;
    bool sendSystemProfile = false;
};

// What a user may answer when an update is found or ready; numbered as the updater's callers know.
enum class UpdateChoice : int { skip = 0, install = 1, dismiss = 2 };

struct UpdatePermissionRequest {};
struct UserUpdateState {
    bool stage = false;  // the update is already downloaded and unpacked
};

// The one who would show the updater's dialogs and answer its questions. Replies and
// acknowledgements may be called from any thread, once; a reply may come after the call returns.
class UserDriver {
public:
    using Reply = std::function<void(UpdateChoice)>;
    using Acknowledgement = std::function<void()>;

    virtual ~UserDriver() = default;
    virtual void showUpdatePermissionRequest(const UpdatePermissionRequest& request,
                                             std::function<void(UpdatePermissionResponse)> reply) = 0;
    virtual void showUserInitiatedUpdateCheck(std::function<void()> cancellation) = 0;
    virtual void showUpdateFound(const AppcastItem& item, const UserUpdateState& state, Reply reply) = 0;
    virtual void showUpdateReleaseNotes(const std::string& downloadData) = 0;
    virtual void showUpdateReleaseNotesFailedToDownload(const UpdateError& error) = 0;
    virtual void showUpdateNotFound(const UpdateError& error, Acknowledgement acknowledgement) = 0;
    virtual void showUpdaterError(const UpdateError& error, Acknowledgement acknowledgement) = 0;
    virtual void showDownloadInitiated(std::function<void()> cancellation) = 0;
    virtual void showDownloadDidReceiveExpectedContentLength(std::uint64_t length) = 0;
    virtual void showDownloadDidReceiveDataOfLength(std::uint64_t length) = 0;
    virtual void showDownloadDidStartExtractingUpdate() = 0;
    virtual void showExtractionReceivedProgress(double progress) = 0;
    virtual void showReadyToInstallAndRelaunch(Reply reply) = 0;
    virtual void showInstallingUpdate(bool applicationTerminated, std::function<void()> retryTerminatingApplication) = 0;
    virtual void showUpdateInstalledAndRelaunched(bool relaunched, Acknowledgement acknowledgement) = 0;
    virtual void showUpdateInFocus() = 0;
    virtual void dismissUpdateInstallation() = 0;
};

}  // namespace orvel::update
