// The service with a runtime root from the environment, so that many of them
// run side by side.

#include "core/paths.h"
#include "service/lifecycle.h"

#include <cstdlib>

int main()
{
    if (const char *root = std::getenv("QDB_TEST_ROOT"))
    {
        qdb::gRuntimeRoot = root;
    }
    return qdb::RunService();
}
