// A copy of a table that is always right, printed whenever it changes.
#include "quillondb/client.hpp"

#include <iostream>
#include <map>

int main(int argc, char **argv)
{
    std::map<int64_t, std::string> speeds;
    const auto print = [&]
    {
        for (const auto &[oid, speed] : speeds)
        {
            std::cout << oid << ' ' << speed << "; ";
        }
        std::cout << std::endl;
    };
    const auto keep = [&](const quillondb::Row &row)
    {
        speeds[row.Oid()] = row["Speed"].Text();
        print();
    };
    const auto drop = [&](const quillondb::Row &row)
    {
        speeds.erase(row.Oid());
        print();
    };
    quillondb::Mirror mirror(
        {.added = keep, .changed = keep, .removed = drop},
        {.database = argc > 1 ? argv[1] : "", .tables = {"TblMemoryInfo"}});
    mirror.Run();
}
