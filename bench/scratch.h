// What a measurement stands on: files, and a bus.
//
// In the field the database lies on a tmpfs. Here it does, too, where the
// machine offers one.
#pragma once

#include "bench/process.h"

#include <string>

namespace qdb::bench
{

// Whether there is a tmpfs.
bool OnTmpfs();

// A directory of its own, removed with all it holds. All constructors below
// throw std::runtime_error when what they make can't be made.
class Directory
{
  public:
    Directory();
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    const std::string &Path() const
    {
        return path_;
    }
    std::string operator/(const char *name) const
    {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

// The runtime root of one side, with an empty database of the whole schema and
// the telemetry pipe.
class Scratch
{
  public:
    Scratch();

    const Directory root;
    const std::string database =
        root / "var/run/quillondatabase/DMLiveObjectDatabase.db";
    const std::string pipe = root / "var/run/telemetryservice/qdbtdbipcpipe";
};

// A dbus-daemon, as long as the object lives. It is the system bus of this
// process and of those that it makes.
class Bus
{
  public:
    Bus();

  private:
    Directory directory_;
    std::string address_;
    Process daemon_;
};

} // namespace qdb::bench
