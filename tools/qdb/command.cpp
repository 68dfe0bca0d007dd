#include "tools/qdb/command.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qdb::tool
{

void AddDatabaseOption(CLI::App &command, std::string *pPath)
{
    *pPath = kInstalledDatabase;
    command.add_option("--database", *pPath, "the database's file")
        ->type_name("PATH")
        ->capture_default_str();
}

void AddBusOption(CLI::App &command, std::string *pAddress)
{
    command
        .add_option("--bus", *pAddress,
                    "D-Bus address; by default the system bus")
        ->type_name("ADDRESS");
}

void Print(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0)
    {
        if (errno == EPIPE)
        {
            throw ReaderGone();
        }
        throw Failure(std::string("standard output: ") + std::strerror(errno));
    }
}

void Complain(const std::string &text)
{
    std::fprintf(stderr, "qdb: %s\n", text.c_str());
}

bool IsTerminal()
{
    return isatty(STDOUT_FILENO) == 1;
}

bool IsColoured()
{
    const char *refusal = std::getenv("NO_COLOR");
    return IsTerminal() && (refusal == nullptr || *refusal == '\0');
}

MirrorPtr OpenMirror(const qdb_options &options)
{
    qdb_mirror *mirror = nullptr;
    if (const int result = qdb_mirror_open(&options, &mirror))
    {
        throw Failure(std::string("can't follow the mirror: ") +
                      std::strerror(-result));
    }
    return MirrorPtr(mirror);
}

Failure FailureOf(int result, const std::string &table,
                  const std::string &database)
{
    switch (result)
    {
    case -ENOENT:
        return Failure("no table " + table + ", see qdb tables");
    case -ENODATA:
        return Failure("no database at " + database);
    case -EBUSY:
        return Failure("the database is busy");
    default:
        return Failure(database + ": " + std::strerror(-result));
    }
}

void CheckTable(qdb_mirror *mirror, const std::string &table,
                const std::string &database)
{
    const qdb_column *columns = nullptr;
    if (qdb_mirror_columns(mirror, table.c_str(), &columns) == -ENOENT)
    {
        throw FailureOf(-ENOENT, table, database);
    }
}

const char *StateText(qdb_state state)
{
    switch (state)
    {
    case QDB_READY:
        return "ready";
    case QDB_NO_BUS:
        return "the bus can't be reached";
    case QDB_NO_DATABASE:
        return "there is no database";
    case QDB_NO_SERVICE:
        return "the service has left the bus";
    case QDB_FILLING:
        return "the service hasn't filled the tables";
    case QDB_BUSY:
        return "the database is busy";
    }
    return "for an unknown reason";
}

} // namespace qdb::tool
