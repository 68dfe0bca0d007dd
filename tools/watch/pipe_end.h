// The reading end of the telemetry pipe.
#pragma once

#include <string>

namespace qdb::watch
{

class PipeEnd
{
  public:
    PipeEnd() = default;
    ~PipeEnd();
    PipeEnd(const PipeEnd &) = delete;
    PipeEnd &operator=(const PipeEnd &) = delete;

    // Opens the pipe, made if it isn't there. Reads don't block and never see
    // an end, however the writers come and go. Returns false and says why in
    // *pError.
    bool Open(const std::string &path, std::string *pError);

    // -1 unless open.
    int Descriptor() const
    {
        return fd_;
    }

  private:
    int fd_ = -1;
};

} // namespace qdb::watch
