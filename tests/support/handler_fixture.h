// What tests of the handlers share: small objects and what they look like from
// outside, and a mirror whose signals are read.
#pragma once

#include "config/presence_check.h"
#include "core/state.h"
#include "db/clearing.h"
#include "db/mapping.h"
#include "objects/handlers.h"
#include "publish/change_signal.h"
#include "queues/fail_queue.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

namespace qdb::test
{

using Bytes = std::vector<uint8_t>;

// A small table that nobody keeps failures of.
inline constexpr uint16_t kStatus = 0x1001;
inline constexpr std::string_view kMemberPrefix = "Vexo_qdb_Resource_";
// A table with an array.
inline constexpr uint16_t kList = 0x801;

inline int Create(const Bytes &object, const DataObjHeader *parent = nullptr)
{
    const DataObjHeader *pDOH = HeaderOf(object);
    return CreateObject(*FindRow(pDOH->objType), pDOH, parent);
}

inline int Refresh(const Bytes &object)
{
    const DataObjHeader *pDOH = HeaderOf(object);
    return RefreshObject(*FindRow(pDOH->objType), pDOH, nullptr);
}

inline int Delete(const Bytes &object)
{
    return DeleteObject(*FindRow(HeaderOf(object)->objType), HeaderOf(object));
}

// The next calls prepare their statements anew.
inline void ForgetStatements()
{
    FinalizeHandlerStatements();
    FinalizeMappingStatements();
    FinalizePresenceChecks();
    FinalizeClearingStatements();
}

inline Bytes Status(uint32_t oid, const std::string &name, int status)
{
    return MakeObject(kStatus, oid,
                      R"({"key": "k", "popName": ")" + name +
                          R"(", "popStatus": )" + std::to_string(status) + "}");
}

// An object with these array elements.
inline Bytes List(uint32_t oid, const std::string &elements)
{
    return MakeObject(kList, oid, R"({"ObjTypeList": [)" + elements + "]}");
}

// The statements whose text contains these, and how they fail.
struct Faults
{
    std::vector<std::pair<std::string, Fault>> steps;
    std::vector<std::pair<std::string, Fault>> prepares;
    int skippedSteps = 0; // that work before

    void Arm() const
    {
        for (const auto &[sql, fault] : steps)
        {
            FailSteps(sql, fault.status, fault.times, skippedSteps);
        }
        for (const auto &[sql, fault] : prepares)
        {
            FailPrepares(sql, fault.status, fault.times);
        }
    }
};

inline const std::string kMapping = "insert into ActiveOIDMapping";

// The kept failures, oldest first: "oid operation index".
inline Lines Kept()
{
    Lines kept;
    while (QdbFailQNode *node = QdbFaildeQueue(gFailQueue))
    {
        kept.push_back(std::to_string(node->oid) + " " +
                       std::to_string(static_cast<int>(node->operation)) + " " +
                       std::to_string(node->index));
        std::free(node);
    }
    return kept;
}

class Handler : public DbTest
{
  protected:
    Handler()
    {
        DbusEventsEnabled = 1;
    }

    // What has been announced since the last call, with "T" for a present time
    // in a row's tag.
    Lines Announced();

    // The same without rows, such as "Added".
    Lines Kinds();

    // The handlers that have run since Restart(), such as "Create 7".
    static Lines Calls();

    ChangeListener listener_;
};

} // namespace qdb::test
