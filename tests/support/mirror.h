// The service's parts inside the test's own process.
//
// A Mirror opens the service's database in a root of its own, with the stand-in
// as Data Manager, and takes everything down again, so that tests follow each
// other in one process. What only the real process can show (start-up, stop,
// exit) is tested with ServiceProcess instead.
#pragma once

#include "core/threads.h"
#include "events/workers.h"
#include "platform/zoil.h"
#include "standin/standin.h"
#include "tests/support/private_bus.h"
#include "tests/support/temp_root.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>

namespace qdb::test
{

// A private bus and the bus service thread, for all tests of an executable.
class BusEnvironment : public ::testing::Environment
{
  public:
    void SetUp() override;
    void TearDown() override;

    // The bus of the executable; only while its tests run.
    static const PrivateBus &Bus();
};

struct MirrorParts
{
    bool threads = false; // listener and workers; needs the BusEnvironment
    bool pipe = false;    // the telemetry pipe's file
};

class Mirror
{
  public:
    explicit Mirror(MirrorParts parts = {});
    ~Mirror();
    Mirror(const Mirror &) = delete;
    Mirror &operator=(const Mirror &) = delete;

    const TempRoot &Root() const
    {
        return root_;
    }

    // Runs a query as another process would; see Query().
    std::vector<std::string> Rows(const std::string &sql) const
    {
        return Query(root_.Database(), sql);
    }
    std::string Value(const std::string &sql) const
    {
        return QueryValue(root_.Database(), sql);
    }

    // Waits until every event sent so far has been carried out: ends the
    // workers, each of which finishes its record, and starts them anew.
    void Settle();

    // Sends stop records and waits for the workers' ends.
    void StopWorkers();
    void StartWorkers();

  private:
    TempRoot root_;
    bool threads_;
    QdbWorkerArg arguments_[kWorkerCount] = {};
};

// An object of the stand-in's making; it stays out of the Data Manager.
// `values` is a JSON text.
std::vector<uint8_t> MakeObject(uint16_t type, uint32_t oid,
                                const std::string &values = "{}",
                                uint8_t status = 0);

inline const DataObjHeader *HeaderOf(const std::vector<uint8_t> &object)
{
    return reinterpret_cast<const DataObjHeader *>(object.data());
}

// Puts an object into the Data Manager; `values` is a JSON text.
uint32_t PutObject(uint16_t type, uint32_t oid,
                   const std::string &values = "{}", bool announce = false);

} // namespace qdb::test
