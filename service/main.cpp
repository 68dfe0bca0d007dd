#include "service/lifecycle.h"

int main()
{
    return qdb::RunService();
}
