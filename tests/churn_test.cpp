// Ten workers at the same objects, with delays wherever one of them could
// overtake another: no row is missing or old in the end, and consumers that
// follow the signals alone know the tables.
//
// QDB_TEST_SIGNALS: how many signals at least; 2000 unless given.
// QDB_TEST_BURSTS: how many bursts of replaced objects; 3 unless given.

#include "tests/support/managed_objects.h"
#include "tests/support/signal_checker.h"

#include <cstdlib>
#include <random>

namespace qdb::test
{
namespace
{

int Asked(const char *variable, int usual)
{
    const char *asked = std::getenv(variable);
    return asked == nullptr ? usual : std::atoi(asked);
}

class Churn : public ::testing::Test
{
  protected:
    Churn() : mirror_({.threads = true})
    {
        RestoreSleeps();
    }
    ~Churn() override
    {
        standin::ReleaseDelays();
    }

    static void Delay(const char *call, const standin::Delay &delay)
    {
        EXPECT_EQ(standin::SetDelay(call, delay), "");
    }

    // At rest the signals told all that the tables hold, and these hold all
    // that the objects do, but for the objects that somebody lied about.
    void Check(const std::set<uint32_t> &liedAbout = {})
    {
        mirror_.Settle();
        std::string fault;
        for (const Change &change : listener_.TakeAll())
        {
            ++signals_;
            const std::string found = checker_.Take(change);
            fault = fault.empty() ? found : fault; // the rest tells little
        }
        ASSERT_EQ(fault, "");
        const audit::Snapshot snapshot = SnapshotOf(mirror_);
        ASSERT_EQ(checker_.Judge(RowsIn(snapshot)), "");
        ASSERT_EQ(Unequal(snapshot, liedAbout), Lines{});
    }

    Mirror mirror_;
    ChangeListener listener_;
    SignalChecker checker_;
    int signals_ = 0;
};

// --- Objects that change quickly ---------------------------------------------

struct Object
{
    uint32_t oid;
    uint16_t type;
    const char *column; // of texts, or of an array of integers
    bool isArray = false;
    bool isThere = false;
    bool isLiedAbout = false;
};

class Actor
{
  public:
    // Something happens to one of the objects, and is told; or something is
    // told that isn't so. No create of what is there, which would be waited
    // with for long.
    void Act()
    {
        Object &object = objects_[Below(std::size(objects_))];
        const uint32_t choice = Below(10);
        if (choice == 0)
        {
            const bool destroys = Below(2) == 0;
            object.isLiedAbout |= destroys && object.isThere;
            standin::SendObjectList(destroys ? DATA_EVENT_DATA_OBJ_DESTROY
                                             : DATA_EVENT_DATA_OBJ_DIRTY_LIST,
                                    {{object.oid}});
        }
        else if (!object.isThere)
        {
            object.isThere = true;
            PutObject(object.type, object.oid, Values(object), true);
        }
        else if (choice < 5)
        {
            object.isThere = object.isLiedAbout = false;
            DeleteObjects({object.oid});
        }
        else
        {
            SetObject(object.oid, Values(object));
        }
    }

    std::set<uint32_t> LiedAbout() const
    {
        std::set<uint32_t> oids;
        for (const Object &object : objects_)
        {
            if (object.isLiedAbout)
            {
                oids.insert(object.oid);
            }
        }
        return oids;
    }

  private:
    std::string Values(const Object &object)
    {
        const std::string value = std::to_string(++mark_);
        return std::string("{\"") + object.column + "\": " +
               (object.isArray ? "[1, " + value + "]}" : '"' + value + "\"}");
    }

    uint32_t Below(size_t limit)
    {
        return static_cast<uint32_t>(engine_() % limit);
    }

    std::mt19937 engine_{4711};
    // Of a type that tells old values, one with an array, one in the fail
    // queue's list, one that is none of it.
    Object objects_[8] = {
        {0x100, 0x703, "current_"},     {0x101, 0x801, "ObjTypeList", true},
        {0x102, 0x16, "ProbeLocation"}, {0x103, 0x1001, "popName"},
        {0x104, 0x703, "current_"},     {0x105, 0x801, "ObjTypeList", true},
        {0x106, 0x16, "ProbeLocation"}, {0x107, 0x1001, "popName"},
    };
    int mark_ = 0;
};

TEST_F(Churn, IsFollowedByItsSignalsAlone)
{
    constexpr int kEventsPerRound = 300;
    for (const char *line : {"createObjJsonStr", "Json_Out_Str", "buffer ={"})
    {
        for (const bool late : {false, true})
        {
            Delay("vexoprintf", {.microseconds = 1000,
                                 .random = true,
                                 .late = late,
                                 .text = line});
        }
    }
    Delay("ZOILGetObjByOID",
          {.microseconds = 1000, .random = true, .late = true});
    Actor actor;
    while (signals_ < Asked("QDB_TEST_SIGNALS", 2000) && !HasFailure())
    {
        for (int i = 0; i < kEventsPerRound; ++i)
        {
            actor.Act();
        }
        Check(actor.LiedAbout());
    }
}

// A fetch may come back with what the object was before.
TEST_F(Churn, ARowEndsAsItsObjectDoes)
{
    constexpr uint32_t kEnd = 0x100 + 50;
    for (uint32_t oid = 0x100; oid < kEnd; ++oid)
    {
        PutObject(0x1001, oid, "{}", true);
    }
    mirror_.Settle();
    Delay("ZOILGetObjByOID",
          {.microseconds = 6000, .random = true, .late = true});
    for (int round = 0; round < 10 && !HasFailure(); ++round)
    {
        for (uint32_t oid = 0x100; oid < kEnd; ++oid)
        {
            const std::string name = std::to_string(round);
            SetObject(oid, R"({"popName": "first)" + name + "\"}");
            SetObject(oid, R"({"popName": "second)" + name + "\"}");
        }
        Check();
    }
}

// --- Objects that are replaced -----------------------------------------------

// Types whose creates wait for the end of a delete, and types whose don't.
constexpr uint16_t kReplaced[] = {
    0x16,  0x17, 0x1B, 0x42, 0x49,   0x802, 0x80C, 0xD04, 0x5E, 0xE1,
    0x801, 0x18, 0x40, 0x36, 0x1001, 0xEB,  0x220, 0xA03, 0x5D, 0xC003,
};
constexpr uint32_t kParent = 0x4001;
constexpr uint32_t kFirst = 0x10000;
constexpr uint32_t kCount = 200;
constexpr uint32_t kFirstOfBurst = 0x20000;

// With a status that tells which life of the object this is.
void Bring(uint32_t oid, int life)
{
    const uint16_t type = kReplaced[oid % std::size(kReplaced)];
    PutChild(type, oid, kParent, "{}", false);
    EXPECT_EQ(standin::SetStatus(oid, static_cast<uint8_t>(life % 200), false),
              "");
    standin::SendObjectList(DATA_EVENT_DATA_OBJ_CREATE, Words{oid});
}

// Each object goes and comes back in each burst, others come between.
TEST_F(Churn, ReplacedObjectsAreNeitherMissingNorOld)
{
    PutObject(0x40, kParent, "{}", true);
    for (uint32_t i = 0; i < kCount; ++i)
    {
        Bring(kFirst + i, 0);
    }
    mirror_.Settle();
    const int bursts = Asked("QDB_TEST_BURSTS", 3);
    for (int burst = 1; burst <= bursts && !HasFailure(); ++burst)
    {
        SCOPED_TRACE(burst);
        standin::ReleaseDelays();
        Delay("ZOILGetObjByOID",
              {.microseconds = 6000, .random = true, .late = burst % 2 == 0});
        Words others;
        for (uint32_t i = 0; i < kCount; ++i)
        {
            DeleteObjects({kFirst + i});
            Bring(kFirst + i, burst);
            if (i % 3 == 0)
            {
                others.push_back(kFirstOfBurst + i);
                Bring(others.back(), 0);
            }
        }
        Check();
        DeleteObjects(others);
    }
}

} // namespace
} // namespace qdb::test
