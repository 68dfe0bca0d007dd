#include "bench/scratch.h"

#include "tools/schema_sql.h"

#include <sys/stat.h>
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

Directory::Directory(const std::string &parent)
    : path_(parent + "/qdbbench.XXXXXX")
{
    if (mkdtemp(path_.data()) == nullptr)
    {
        throw std::runtime_error("can't make " + path_);
    }
}

Directory::~Directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Scratch::Scratch() : root_(OnTmpfs() ? kTmpfs : "/tmp")
{
    std::filesystem::create_directories(Root() + "/var/run/quillondatabase");
    std::filesystem::create_directories(Root() + "/var/run/telemetryservice");
    std::string error;
    if (!CreateDatabase(Database(), false, &error))
    {
        throw std::runtime_error(error);
    }
    if (mkfifo(Pipe().c_str(), 0600) != 0)
    {
        throw std::runtime_error("can't make " + Pipe());
    }
}

std::string Scratch::Database() const
{
    return Root() + "/var/run/quillondatabase/DMLiveObjectDatabase.db";
}

std::string Scratch::Pipe() const
{
    return Root() + "/var/run/telemetryservice/qdbtdbipcpipe";
}

bool Scratch::OnTmpfs()
{
    return access(kTmpfs, W_OK) == 0;
}

} // namespace qdb::bench
