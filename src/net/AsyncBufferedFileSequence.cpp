#include "net/AsyncBufferedFileSequence.h"

#include "net/SocketError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace orvel::net {

AsyncBufferedFileSequence::FileError::FileError(std::string operation, int errnoValue, const std::filesystem::path& path)
    : Error("FileError. " + operation + "(" + std::to_string(errnoValue) + "): " + SocketError::errorMessage(errnoValue) +
            " (" + path.string() + ")"),
      operation_(std::move(operation)),
      errnoValue_(errnoValue) {}

AsyncBufferedFileSequence::FileError::FileError(std::string text, std::string operation)
    : Error(std::move(text)), operation_(std::move(operation)), errnoValue_(0) {}

AsyncBufferedFileSequence::FileError AsyncBufferedFileSequence::FileError::notRegular(const std::filesystem::path& path) {
    return FileError("FileError. Open: Not a regular file (" + path.string() + ")", "Open");
}

std::int64_t AsyncBufferedFileSequence::fileSize(const std::filesystem::path& url) {
    struct stat attributes {};
    if (::stat(url.c_str(), &attributes) != 0) throw FileError("Stat", errno, url);
    // st_size of anything but a regular file is not the number of bytes a read would deliver.
    if (!S_ISREG(attributes.st_mode)) throw FileSizeError();
    return attributes.st_size;
}

std::size_t AsyncBufferedFileSequence::Iterator::read(Byte* into, std::size_t count) {
    if (isAtEnd_) return 0;
    if (!fileHandle_) {
        // O_NONBLOCK: opening a FIFO without a writer would otherwise hold this pool thread until
        // one comes. Only regular files are read (a FIFO, device or socket could block any read);
        // O_NONBLOCK has no effect on them.
        OwnedDescriptor file(::open(fileURL_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!file) throw FileError("Open", errno, fileURL_);
        struct stat attributes {};
        if (::fstat(file.get(), &attributes) != 0) throw FileError("Stat", errno, fileURL_);
        if (S_ISDIR(attributes.st_mode)) throw FileError("Open", EISDIR, fileURL_);
        if (!S_ISREG(attributes.st_mode)) throw FileError::notRegular(fileURL_);
        fileHandle_ = std::move(file);
    }
    ssize_t got;
    do {
        got = ::read(fileHandle_.get(), into, count);
    } while (got < 0 && errno == EINTR);
    if (got < 0) throw FileError("Read", errno, fileURL_);
    if (got == 0) {
        isAtEnd_ = true;
        fileHandle_ = OwnedDescriptor();
    }
    return static_cast<std::size_t>(got);
}

async::Task<std::optional<Byte>> AsyncBufferedFileSequence::Iterator::next() {
    if (readAheadIndex_ == readAhead_.size()) {
        readAhead_.resize(readAheadSize);
        readAhead_.resize(read(readAhead_.data(), readAhead_.size()));
        readAheadIndex_ = 0;
        if (readAhead_.empty()) co_return std::nullopt;
    }
    co_return readAhead_[readAheadIndex_++];
}

async::Task<std::optional<Bytes>> AsyncBufferedFileSequence::Iterator::nextBuffer(std::size_t suggested) {
    const std::size_t count = std::clamp<std::size_t>(suggested, 1, maxBufferSize);
    if (readAheadIndex_ < readAhead_.size()) {
        const auto first = readAhead_.begin() + static_cast<std::ptrdiff_t>(readAheadIndex_);
        const std::size_t taken = std::min(count, readAhead_.size() - readAheadIndex_);
        readAheadIndex_ += taken;
        co_return Bytes(first, first + static_cast<std::ptrdiff_t>(taken));
    }
    Bytes buffer(count);
    buffer.resize(read(buffer.data(), count));
    if (buffer.empty()) co_return std::nullopt;
    co_return buffer;
}

}  // namespace orvel::net
