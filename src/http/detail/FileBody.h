#pragma once
#include "http/HTTPBodySequence.h"

#include <filesystem>
#include <optional>
#include <string_view>

namespace orvel::http::detail {

// The content type the file handlers give a file, by the lower-cased extension of its name.
std::string_view contentTypeForPath(std::string_view path) noexcept;

// The bytes of the regular file at `path` as a response body, or nothing when there is no such
// file, it is not a regular file (a FIFO is refused without waiting for a writer), or it cannot
// be read. The file is opened once: a small one is read whole (it then goes out with the header
// block), a larger one streams from the open descriptor and never yields more or fewer bytes than
// its size at opening (a file cut short meanwhile fails the body).
std::optional<HTTPBodySequence> openFileBody(const std::filesystem::path& path);

// As openFileBody for `relative` resolved beneath `root`: a path or symbolic link that would lead
// out of `root` (absolute, "..", or a link whose target lies outside) finds no file.
std::optional<HTTPBodySequence> openFileBodyBeneath(const std::filesystem::path& root, std::string_view relative);

}  // namespace orvel::http::detail
