#include "core/lifecycle.h"

int main()
{
    return qdb::RunService();
}
