#pragma once
#include <unistd.h>

#include <utility>

namespace orvel::net {

// Owns one descriptor and closes it when dropped. Whoever opens or accepts a descriptor holds
// it here until it hands it on with release(); Socket itself is a plain value.
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int fd = -1) noexcept : fd_(fd) {}
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OwnedDescriptor& operator=(OwnedDescriptor other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~OwnedDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);  // no retry on EINTR: on Linux the fd is already gone
    }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_;
};

}  // namespace orvel::net
