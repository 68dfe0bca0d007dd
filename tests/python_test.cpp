// The Python module on the real service: its own tests, and what only its
// process's end shows.

#include "tests/support/private_bus.h"
#include "tests/support/program.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace qdb::test
{
namespace
{

TEST(Python, ReadsLosesNoExceptionAndIsEndedByAnInterrupt)
{
    if (Python().empty())
    {
        GTEST_SKIP() << "no Python that could load the library";
    }
    const PrivateBus bus;
    ServiceProcess service({.scenario = Server(3)});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    const auto test = Follow(PythonCommand("tests/quillondb_test.py"), service);
    const auto follow =
        Follow(PythonCommand("client/examples/follow.py"), service);
    EXPECT_EQ(test->WaitExit(), 0) << test->Output();
    EXPECT_TRUE(follow->WaitFor("ready"));
    EXPECT_EQ(follow->End(SIGINT), 128 + SIGINT) << follow->Output();
    EXPECT_NE(follow->Output().find("KeyboardInterrupt"), std::string::npos);
}

} // namespace
} // namespace qdb::test
