// A copy of a table that is always right, printed whenever it changes.
#include <iostream>
#include <quillondb/copy.hpp>

int main(int argc, char **argv)
{
    quillondb::Copy modules("TblMemoryInfo", argc > 1 ? argv[1] : "");
    for (; modules.Wait(); std::cout << std::endl)
        for (const auto &[oid, module] : modules.Rows())
            std::cout << oid << ' ' << module["Speed"] << "; ";
}
