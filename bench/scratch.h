// The files that one side works on: a runtime root of its own with an empty
// database of the whole schema and the telemetry pipe.
//
// In the field the database lies on a tmpfs. Here it does, too, where the
// machine offers one.
#pragma once

#include <string>

namespace qdb::bench
{

// A directory of its own, removed with all it holds.
class Directory
{
  public:
    // Throws std::runtime_error when it can't be made.
    explicit Directory(const std::string &parent);
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    const std::string &Path() const
    {
        return path_;
    }

  private:
    std::string path_;
};

class Scratch
{
  public:
    // Throws std::runtime_error when the files can't be made.
    Scratch();

    const std::string &Root() const
    {
        return root_.Path();
    }
    std::string Database() const;
    std::string Pipe() const;

    // Whether databases lie on a tmpfs.
    static bool OnTmpfs();

  private:
    Directory root_;
};

} // namespace qdb::bench
