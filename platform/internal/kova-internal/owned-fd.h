// A file descriptor with one owner, who closes it; or one lent by another
// owner for a shorter time (Borrowed), which is left open.
#ifndef KOVA_INTERNAL_OWNED_FD_H
#define KOVA_INTERNAL_OWNED_FD_H

#include <unistd.h>

namespace kova_internal {

class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    static OwnedFd Borrowed(int fd) {
        OwnedFd f(fd);
        f.owned_ = false;
        return f;
    }
    ~OwnedFd() { Reset(); }
    OwnedFd(OwnedFd &&other) noexcept : fd_(other.fd_), owned_(other.owned_) { other.fd_ = -1; }
    OwnedFd &operator=(OwnedFd &&other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = other.fd_;
            owned_ = other.owned_;
            other.fd_ = -1;
        }
        return *this;
    }
    OwnedFd(const OwnedFd &) = delete;
    OwnedFd &operator=(const OwnedFd &) = delete;
    int get() const { return fd_; }
    // Closes an owned descriptor now; a borrowed one is only forgotten.
    void Reset() {
        if (fd_ >= 0 && owned_) close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
    bool owned_ = true;
};

} // namespace kova_internal

#endif
