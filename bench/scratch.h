// What one side works on: an empty database with the whole schema, and the
// telemetry pipe's file, below a runtime root of its own.
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
    // Throws std::runtime_error when the files can't be made.
    Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    const std::string &Root() const
    {
        return root_.Path();
    }
    std::string Database() const
    {
        return root_.Database();
    }
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
