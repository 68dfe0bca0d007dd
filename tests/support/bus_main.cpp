// Runs the tests with a private bus and the bus service thread.

#include "tests/support/mirror.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new qdb::test::BusEnvironment);
    return RUN_ALL_TESTS();
}
