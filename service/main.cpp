#include "service/lifecycle.h"

#include <cstdio>
#include <string_view>

namespace
{

constexpr char kUsage[] =
    "usage: quillondb [--help | --version]\n"
    "\n"
    "Keeps the database as a live mirror of the Data Manager's objects, and\n"
    "tells of every change on the system bus and on the telemetry pipe. Runs\n"
    "until SIGTERM, in the foreground; takes no other arguments.\n";
constexpr int kUsageError = 2;

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
    {
        return qdb::RunService();
    }
    const std::string_view argument = argv[1];
    if (argc == 2 && argument == "--help")
    {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc == 2 && argument == "--version")
    {
        std::puts("quillondb " QDB_VERSION);
        return 0;
    }
    std::fputs(kUsage, stderr);
    return kUsageError;
}
