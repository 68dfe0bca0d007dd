// The stand-in of the test's own process, reached as dmctl reaches it.
//
// The stand-in reads its environment once per process, so all such tests share
// one socket. The first of them finds the scenario that QDB_TEST_SCENARIO names
// loaded; each begins with an empty stand-in.
#pragma once

#include "standin/standin.h"
#include "tests/support/temp_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace qdb::test
{

class StandinSocketTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        Shared();
        standin::Reset();
    }

    static const std::string &Socket()
    {
        return Shared().socket;
    }

    // How many objects the scenario made.
    static size_t Loaded()
    {
        return Shared().loaded;
    }

  private:
    struct Standin
    {
        Standin()
        {
            const char *scenario = getenv("QDB_TEST_SCENARIO");
            setenv("QDB_STANDIN_SOCKET", socket.c_str(), 1);
            setenv("QDB_STANDIN_SCENARIO", scenario == nullptr ? "" : scenario,
                   1);
            loaded = standin::ObjectIds().size(); // starts it
        }

        const TempRoot root;
        const std::string socket = root.Path() + "/socket";
        size_t loaded = 0;
    };

    static const Standin &Shared()
    {
        static const Standin standin;
        return standin;
    }
};

} // namespace qdb::test
