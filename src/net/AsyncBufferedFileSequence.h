#pragma once
#include "async/Error.h"
#include "net/AsyncBufferedSequence.h"
#include "net/OwnedDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace orvel::net {

// The bytes of a regular file as a buffered sequence. Every iterator opens the file afresh on its
// first pull and reads it with read(2) on the calling thread (regular files do not park a task),
// so a body made from a file can be sent any number of times. Anything else is refused at open.
class AsyncBufferedFileSequence {
public:
    class Iterator;
    class FileSizeError;
    class FileError;

    explicit AsyncBufferedFileSequence(std::filesystem::path fileURL) : fileURL_(std::move(fileURL)) {}

    const std::filesystem::path& fileURL() const noexcept { return fileURL_; }
    Iterator makeIterator() const;

    // The size in bytes of the regular file at url (symbolic links followed), for a body's length.
    // Raises FileSizeError when the file has no size in bytes (a directory, a device, a FIFO), and
    // FileError when stat(2) fails.
    static std::int64_t fileSize(const std::filesystem::path& url);

private:
    std::filesystem::path fileURL_;
};

class AsyncBufferedFileSequence::FileSizeError final : public async::Error {
public:
    explicit FileSizeError(std::string errorDescription = "File size not found") : Error(std::move(errorDescription)) {}
    const std::string& errorDescription() const noexcept { return description(); }
};

// A failed system call on a file: "FileError. Open(2): No such file or directory (/srv/a.txt)".
// A FIFO, device or socket is refused when opened: "FileError. Open: Not a regular file (/srv/p)",
// with errnoValue 0.
class AsyncBufferedFileSequence::FileError final : public async::Error {
public:
    FileError(std::string operation, int errnoValue, const std::filesystem::path& path);
    static FileError notRegular(const std::filesystem::path& path);

    const std::string& operation() const noexcept { return operation_; }
    int errnoValue() const noexcept { return errnoValue_; }

private:
    FileError(std::string text, std::string operation);
    std::string operation_;
    int errnoValue_;
};

// One pass over the file. Holds the descriptor from the first pull until the end is read or the
// iterator goes away. Single-byte pulls are served from a read-ahead block, so a byte-wise reader
// does not cost a system call per byte.
class AsyncBufferedFileSequence::Iterator final : public AsyncByteSequence {
public:
    // Runs larger than this are cut: the suggestion sizes an allocation.
    static constexpr std::size_t maxBufferSize = 1 << 20;
    static constexpr std::size_t readAheadSize = 4096;

    async::Task<std::optional<Byte>> next() override;
    async::Task<std::optional<Bytes>> nextBuffer(std::size_t suggested) override;

private:
    friend class AsyncBufferedFileSequence;
    explicit Iterator(std::filesystem::path fileURL) : fileURL_(std::move(fileURL)) {}

    // Up to count bytes from the file into `into`; 0 at the end (the descriptor is then closed).
    std::size_t read(Byte* into, std::size_t count);

    std::filesystem::path fileURL_;
    OwnedDescriptor fileHandle_;
    bool isAtEnd_ = false;
    Bytes readAhead_;
    std::size_t readAheadIndex_ = 0;
};

inline AsyncBufferedFileSequence::Iterator AsyncBufferedFileSequence::makeIterator() const { return Iterator(fileURL_); }

}  // namespace orvel::net
