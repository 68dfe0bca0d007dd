#include "bench/scratch.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

constexpr char kTmpfs[] = "/dev/shm";

} // namespace

Scratch::Scratch()
{
    if (OnTmpfs())
    {
        MoveToTmpfs();
    }
    root_.MakeDatabase();
    root_.MakePipe();
}

Scratch::Directory::~Directory()
{
    if (!path.empty())
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
}

bool Scratch::OnTmpfs()
{
    return access(kTmpfs, W_OK) == 0;
}

// Puts a link in the place of the database's directory.
void Scratch::MoveToTmpfs()
{
    std::string pattern = std::string(kTmpfs) + "/qdbbench.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw std::runtime_error("can't make " + pattern);
    }
    tmpfs_.path = pattern;
    const std::filesystem::path place =
        std::filesystem::path(root_.Database()).parent_path();
    std::filesystem::remove(place);
    std::filesystem::create_directory_symlink(tmpfs_.path, place);
}

} // namespace qdb::bench
