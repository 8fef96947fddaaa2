#include "http/detail/FileBody.h"

#include "http/detail/Ascii.h"
#include "net/AsyncBufferedFileSequence.h"
#include "net/OwnedDescriptor.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace orvel::http::detail {
namespace {

using net::OwnedDescriptor;
using FileError = net::AsyncBufferedFileSequence::FileError;

// A file up to wholeFileBytes is read in one go and kept in memory for its response. A larger one
// streams, so a connection holds at most one buffer of it; a 256 KiB buffer is four reads and a few
// writes per MiB (bench/files.sh).
constexpr std::size_t wholeFileBytes = 64 * 1024;
constexpr std::size_t streamBufferBytes = 256 * 1024;

struct ContentType {
    std::string_view extension;
    std::string_view type;
};
constexpr std::array<ContentType, 15> contentTypes{{
    {"json", "application/json"},
    {"html", "text/html"},
    {"htm", "text/html"},
    {"css", "text/css"},
    {"js", "application/javascript"},
    {"javascript", "application/javascript"},
    {"png", "image/png"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"pdf", "application/pdf"},
    {"svg", "image/svg+xml"},
    {"ico", "image/x-icon"},
    {"wasm", "application/wasm"},
    {"webp", "image/webp"},
    {"jp2", "image/jp2"},
}};
constexpr std::string_view octetStream = "application/octet-stream";

// Reads until `count` bytes or the end; -1 on failure (errno set).
ssize_t readFully(int file, std::uint8_t* into, std::size_t count) {
    std::size_t total = 0;
    while (total < count) {
        ssize_t got = ::read(file, into + total, count - total);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        total += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(total);
}

// The rest of an open regular file, `left` bytes of it. One pass; the descriptor is closed at the
// end or when the body goes away. Reads never wait on a regular file, so no task parks here.
class OpenFileSource final : public HTTPBodySequence::Source {
public:
    OpenFileSource(OwnedDescriptor file, std::int64_t size, std::filesystem::path path)
        : file_(std::move(file)), left_(size), path_(std::move(path)) {}

    async::Task<std::optional<net::Bytes>> nextBuffer(std::size_t suggested) override {
        if (left_ == 0) {
            file_ = OwnedDescriptor();
            co_return std::nullopt;
        }
        std::size_t count = std::min<std::size_t>(std::max<std::size_t>(suggested, 1), static_cast<std::size_t>(left_));
        net::Bytes buffer(count);
        ssize_t got = readFully(file_.get(), buffer.data(), count);
        if (got < 0) throw FileError("Read", errno, path_);
        // The length is already announced: a file cut short cannot be answered correctly.
        if (got == 0) throw FileError("Read", ENODATA, path_);
        left_ -= got;
        buffer.resize(static_cast<std::size_t>(got));
        co_return buffer;
    }
    async::Task<std::optional<std::uint8_t>> next() override {
        auto buffer = co_await nextBuffer(1);
        if (!buffer) co_return std::nullopt;
        co_return buffer->front();
    }

private:
    OwnedDescriptor file_;
    std::int64_t left_;
    std::filesystem::path path_;
};

std::optional<HTTPBodySequence> bodyOf(OwnedDescriptor file, const std::filesystem::path& path) {
    struct stat attributes {};
    if (!file || ::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return std::nullopt;
    auto size = static_cast<std::size_t>(attributes.st_size);
    if (size > wholeFileBytes) {
        return HTTPBodySequence(std::make_shared<OpenFileSource>(std::move(file), attributes.st_size, path),
                                attributes.st_size, streamBufferBytes);
    }
    std::string bytes(size, '\0');
    ssize_t got = readFully(file.get(), reinterpret_cast<std::uint8_t*>(bytes.data()), size);
    if (got < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(got));
    return HTTPBodySequence(std::move(bytes));
}

// O_NONBLOCK: opening a FIFO without a writer would otherwise hold the pool thread until one
// comes; it has no effect on regular files.
constexpr int openFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// `relative` beneath the directory `root` with openat2(RESOLVE_BENEATH): the kernel refuses any
// step out of it, links included, without a race between a check and the open.
OwnedDescriptor openBeneath(int root, const std::string& relative) {
    open_how how{};
    how.flags = openFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return OwnedDescriptor(static_cast<int>(::syscall(SYS_openat2, root, relative.c_str(), &how, sizeof how)));
}

// Where openat2 is missing (ENOSYS: an old kernel or a filter): open, then see where the
// descriptor really leads.
OwnedDescriptor openBeneathByCheck(const std::filesystem::path& root, const std::string& relative) {
    OwnedDescriptor file(::open((root / relative).c_str(), openFlags));
    if (!file) return file;
    std::error_code linkError, rootError;
    std::filesystem::path real = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.get()), linkError);
    std::filesystem::path realRoot = std::filesystem::canonical(root, rootError);
    if (linkError || rootError) return OwnedDescriptor();
    auto [rootEnd, realEnd] = std::mismatch(realRoot.begin(), realRoot.end(), real.begin(), real.end());
    if (rootEnd != realRoot.end()) return OwnedDescriptor();
    return file;
}

}  // namespace

std::string_view contentTypeForPath(std::string_view path) noexcept {
    std::string_view name = path.substr(path.find_last_of('/') + 1);
    std::size_t dot = name.find_last_of('.');
    if (dot == std::string_view::npos) return octetStream;
    std::string_view extension = name.substr(dot + 1);
    for (const ContentType& entry : contentTypes) {
        if (equalsIgnoringCase(extension, entry.extension)) return entry.type;
    }
    return octetStream;
}

std::optional<HTTPBodySequence> openFileBody(const std::filesystem::path& path) {
    return bodyOf(OwnedDescriptor(::open(path.c_str(), openFlags)), path);
}

std::optional<HTTPBodySequence> openFileBodyBeneath(const std::filesystem::path& root, std::string_view relative) {
    std::string name(relative.empty() ? std::string_view(".") : relative);
    OwnedDescriptor directory(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return std::nullopt;
    OwnedDescriptor file = openBeneath(directory.get(), name);
    if (!file && errno == ENOSYS) file = openBeneathByCheck(root, name);
    return bodyOf(std::move(file), root / name);
}

}  // namespace orvel::http::detail
