// A descriptor that closes itself.
#pragma once

#include <unistd.h>

namespace qdb::client
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

  private:
    int fd_;
};

} // namespace qdb::client
