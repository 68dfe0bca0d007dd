// The Python module on the real service: its own tests, and what only its
// process's end shows.

#include "tests/support/example.h"
#include "tests/support/private_bus.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace qdb::test
{
namespace
{

TEST(Python, ReadsAndLosesNoException)
{
    if (Python().empty())
    {
        GTEST_SKIP() << "no Python that could load the library";
    }
    const PrivateBus bus;
    ServiceProcess service({.scenario = Server(3)});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    const auto test = Follow(PythonCommand("tests/quillondb_test.py"), service,
                             "quillondb_test");
    EXPECT_EQ(test->WaitExit(), 0) << test->Output();
}

TEST(Python, IsEndedByAnInterrupt)
{
    if (Python().empty())
    {
        GTEST_SKIP() << "no Python that could load the library";
    }
    const PrivateBus bus;
    ServiceProcess service({.scenario = Server(3)});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    const auto follow =
        Follow(PythonCommand("client/examples/follow.py"), service, "follow");
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return follow->Output().find("ready") != std::string::npos;
        }));
    follow->Signal(SIGINT);
    EXPECT_EQ(follow->WaitExit(), 128 + SIGINT) << follow->Output();
    EXPECT_NE(follow->Output().find("KeyboardInterrupt"), std::string::npos);
}

} // namespace
} // namespace qdb::test
