// The named pipe itself; what it carries is the parser's.
#include "tools/watch/pipe_end.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qdb::watch
{

PipeEnd::~PipeEnd()
{
    if (fd_ >= 0)
    {
        close(fd_);
    }
}

bool PipeEnd::Open(const std::string &path, std::string *pError)
{
    if (mkfifo(path.c_str(), 0660) != 0 && errno != EEXIST)
    {
        *pError = path + ": " + std::strerror(errno);
        return false;
    }
    struct stat file = {};
    if (stat(path.c_str(), &file) == 0 && !S_ISFIFO(file.st_mode))
    {
        *pError = path + ": not a named pipe";
        return false;
    }
    // With this process as a writer, too, the pipe never ends.
    fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0)
    {
        *pError = path + ": " + std::strerror(errno);
    }
    return fd_ >= 0;
}

} // namespace qdb::watch
