// The stand-in of the test's own process, reached as dmctl reaches it.
//
// The stand-in reads its environment once per process, so all such tests share
// one socket; each begins with an empty stand-in.
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
        setenv("QDB_STANDIN_SOCKET", Socket().c_str(), 1);
        standin::Reset(); // the first time it starts
    }

    static const std::string &Socket()
    {
        static const TempRoot root;
        static const std::string socket = root.Path() + "/socket";
        return socket;
    }
};

} // namespace qdb::test
