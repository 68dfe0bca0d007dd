// What one measurement works on: an empty database with the whole schema, open
// as the service opens it, and the telemetry pipe's file. The process's runtime
// root as long as it lives.
//
// In the field the database lies on a tmpfs. Here it does, too, where the
// machine offers one.
#pragma once

#include "tests/support/temp_root.h"

#include <string>

namespace qdb::bench
{

class Scratch
{
  public:
    // Throws std::runtime_error when the files can't be made or opened.
    Scratch();

    // All statements have been finalised.
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    std::string Pipe() const
    {
        return root_.Pipe();
    }

    // Whether databases lie on a tmpfs.
    static bool OnTmpfs();

  private:
    // Removed with all it holds; "": none.
    struct Directory
    {
        ~Directory();

        std::string path;
    };

    void MoveToTmpfs();

    test::TempRoot root_;
    Directory tmpfs_; // the database's; none when it lies in the root
};

} // namespace qdb::bench
