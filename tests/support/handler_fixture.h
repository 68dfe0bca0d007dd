// What tests of the handlers share: small objects and what they look like from
// outside, and a mirror whose signals are read.
#pragma once

#include "core/state.h"
#include "db/clearing.h"
#include "db/mapping.h"
#include "events/queues/fail_queue.h"
#include "objects/catalogue.h"
#include "publish/change_signal.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <regex>

namespace qdb::test
{

using Bytes = std::vector<uint8_t>;

// A small table that nobody keeps failures of.
inline constexpr uint16_t kStatus = 0x1001;
inline constexpr char kStatusTable[] = "TblDMStatus_Child_Obj";
inline constexpr std::string_view kMemberPrefix = "Vexo_qdb_Resource_";
// A table with an array.
inline constexpr uint16_t kList = 0x801;

inline int Create(const Bytes &object, const DataObjHeader *parent = nullptr)
{
    const DataObjHeader *pDOH = HeaderOf(object);
    return FindRow(pDOH->objType)->CreateObjFP(pDOH, parent);
}

inline int Refresh(const Bytes &object, const DataObjHeader *parent = nullptr)
{
    const DataObjHeader *pDOH = HeaderOf(object);
    return FindRow(pDOH->objType)->RefreshObjFP(pDOH, parent);
}

inline int Delete(const Bytes &object)
{
    return FindRow(HeaderOf(object)->objType)->DeleteObjFP(HeaderOf(object));
}

inline Bytes Status(uint32_t oid, const std::string &name, int status)
{
    return MakeObject(kStatus, oid,
                      R"({"key": "k", "popName": ")" + name +
                          R"(", "popStatus": )" + std::to_string(status) + "}");
}

// Its row as the signals show it.
inline std::string StatusRow(const std::string &oid, const std::string &name,
                             int status, const std::string &parent = "null")
{
    return R"({"DOH_ObjStatus": 0, "key": "k", "key_STR": null, )"
           R"("objExtFlags": 0, "OID": )" +
           oid + R"(, "ParentObjectKey": )" + parent + R"(, "popName": ")" +
           name + R"(", "popStatus": )" + std::to_string(status) +
           R"(, "SingleRecordEtag": "T"})";
}

inline std::string Announcement(const std::string &kind,
                                const std::string &table,
                                const std::string &row,
                                const std::string &more = "")
{
    return kind + R"( {"TableName": ")" + table + R"(", "RowDetails": )" + row +
           more + "}";
}

inline std::string StatusChange(const std::string &kind, const std::string &row,
                                const std::string &more = "")
{
    return Announcement(kind, kStatusTable, row, more);
}

// An object with these array elements, and its row.
inline Bytes List(uint32_t oid, const std::string &elements)
{
    return MakeObject(kList, oid, R"({"ObjTypeList": [)" + elements + "]}");
}

inline std::string ListRow(int oid, int count, const std::string &elements)
{
    return R"({"DOH_ObjStatus": 0, "ObjTypeCount": )" + std::to_string(count) +
           R"(, "ObjTypeList": )" + elements + R"(, "OID": )" +
           std::to_string(oid) +
           R"(, "ParentObjectKey": null, "SingleRecordEtag": "T"})";
}

inline std::string Elements(const std::vector<int> &values, int first = 0)
{
    std::string text;
    for (const int value : values)
    {
        text += (text.empty() ? R"([{"ARR_INDEX": )" : R"(, {"ARR_INDEX": )") +
                std::to_string(first++) + R"(, "VAL": )" +
                std::to_string(value) + "}";
    }
    return text + "]";
}

// "T" for a present time in a row's tag.
inline std::string Timeless(const std::string &text)
{
    static const std::regex kTime(R"("SingleRecordEtag": "\d{10}")");
    return std::regex_replace(text, kTime, R"("SingleRecordEtag": "T")");
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
inline const std::string kRead = "SELECT json_object('DOH_ObjStatus'";

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

    // What has been announced since the last call.
    Lines Announced()
    {
        Lines lines;
        for (const auto &[member, json, serial] : listener_.TakeAll())
        {
            lines.push_back(member.substr(kMemberPrefix.size()) + " " +
                            Timeless(json));
        }
        return lines;
    }

    // Lines up to the captured level, without line numbers and SQLite's texts.
    static Lines Logged()
    {
        static const std::regex kNumber("(LINE:|line=)\\d+");
        static const std::regex kMessage("errormsg: [^:]*?( ret:-?\\d+)?$");
        Lines lines;
        for (const std::string &line : LogLines())
        {
            lines.push_back(std::regex_replace(
                std::regex_replace(Timeless(line), kNumber, "$1"), kMessage,
                "errormsg:$1"));
        }
        return lines;
    }

    // A row's tag as it was long ago, so that a new one differs.
    void Age(const std::string &table)
    {
        mirror_.Rows("UPDATE " + table + " SET SingleRecordEtag = '1'");
    }

    // The next calls prepare their statements anew.
    static void ForgetStatements()
    {
        FinalizeHandlerStatements();
        FinalizeMappingStatements();
        FinalizeClearingStatements();
    }

    std::string Count(const std::string &table, uint32_t oid)
    {
        return mirror_.Value("SELECT count(*) FROM " + table +
                             " WHERE OID = " + std::to_string(oid));
    }

    ChangeListener listener_;
};

} // namespace qdb::test
