// A descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace qdb
{

// -1: there is none.
class Descriptor
{
  public:
    explicit Descriptor(int fd) : fd_(fd)
    {
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
        {
            close(fd_);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    operator int() const
    {
        return fd_;
    }

    // Somebody else closes it from here on, or nobody.
    int Release()
    {
        return std::exchange(fd_, -1);
    }

  private:
    int fd_;
};

} // namespace qdb
