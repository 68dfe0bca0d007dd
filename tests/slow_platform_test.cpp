// A platform that now and then doesn't answer: nobody but those who need the
// answer waits for it, and no object is lost or left old.

#include "tests/support/managed_objects.h"
#include "tests/support/works.h"

#include <future>

namespace qdb::test
{
namespace
{

// The platform functions that answer for a handler. A mutex of the platform
// that hangs is not one of them, nor is the memory for a record's copy: the
// callback itself needs it.
constexpr const char *kAnswers[] = {
    "CfgEnumAttribute_get_object",
    "CfgGroup_get_object",
    "CfgIntAttribute_get_object",
    "CfgPasswdAttribute_get_object",
    "CfgStrAttribute_get_object",
    "FreeObjectList",
    "ZOFreeMem",
    "ZOILDOGetObjKeyUTF8",
    "ZOILFreeGeneric",
    "ZOILGetObjByKey",
    "ZOILGetObjByOID",
    "ZOILListChildOIDByType",
    "ZOILListParentOID",
    "client_get_obj_body_ptr",
    "client_get_objects",
};

// The objects of another row that everything goes on with meanwhile.
struct Others
{
    static constexpr uint16_t kType = 0x17;

    static void Put()
    {
        for (uint32_t oid = 0x101; oid <= 0x104; ++oid)
        {
            PutObject(kType, oid);
            MakeRow(MakeObject(kType, oid));
        }
    }

    static void Tell()
    {
        SetObject(0x101, R"({"probeReading": 7})");
        DeleteObjects({0x102});
        DeleteObjects({0x103, 0x104}); // in the callback
        PutObject(kType, 0x105, "{}", true);
    }

    static bool AreDone(const Mirror &mirror)
    {
        return mirror.Rows("SELECT OID, probeReading FROM TblProbeObj "
                           "ORDER BY OID") == Lines{"257|7", "261|0"};
    }
};

// Work that is carried out by the mirror's workers, or on a thread of its own.
class Underway
{
  public:
    explicit Underway(const Work &work) : mirror_({.threads = true})
    {
        work.begin();
        Others::Put();
    }
    ~Underway()
    {
        standin::ReleaseDelays();
        standin::WaitDelivered(kDeadlineMs);
        Finish();
    }
    Underway(const Underway &) = delete;
    Underway &operator=(const Underway &) = delete;

    void Start(const Work &work)
    {
        if (work.record.empty())
        {
            own_ = std::async(std::launch::async, work.run);
        }
        else
        {
            Enqueue(work.record);
        }
    }

    void Finish()
    {
        if (own_.valid())
        {
            own_.get();
        }
        mirror_.Settle();
    }

    const Mirror &Tables() const
    {
        return mirror_;
    }

  private:
    Mirror mirror_;
    std::future<void> own_;
};

// How often the work calls each function.
std::vector<int> CallsOf(const Work &work)
{
    Underway underway(work);
    std::vector<int> calls;
    for (const char *call : kAnswers)
    {
        calls.push_back(-static_cast<int>(standin::CallCount(call)));
    }
    underway.Start(work);
    underway.Finish();
    for (size_t i = 0; i < calls.size(); ++i)
    {
        calls[i] += static_cast<int>(standin::CallCount(kAnswers[i]));
    }
    return calls;
}

// Lets one call of the work hang, as `delay` says.
void Hang(const Work &work, const std::string &call, standin::Delay delay)
{
    Underway underway(work);
    delay.microseconds = standin::kHang;
    delay.times = 1;
    ASSERT_EQ(standin::SetDelay(call, delay), "");
    underway.Start(work);
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            return standin::HangingCalls(call) == 1;
        }))
        << "isn't called";
    Others::Tell();
    ASSERT_TRUE(standin::WaitDelivered(kDeadlineMs)) << "callbacks wait";
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            return Others::AreDone(underway.Tables());
        }))
        << "other objects wait";
    EXPECT_EQ(standin::HangingCalls(call), 1);
    standin::ReleaseDelays();
    underway.Finish();
    EXPECT_EQ(Unequal(SnapshotOf(underway.Tables())), Lines{});
}

void HangEveryCall(const Work &work, std::set<std::string> *pCalled)
{
    const std::vector<int> calls = CallsOf(work);
    for (size_t i = 0; i < calls.size(); ++i)
    {
        for (int skip = 0; skip < calls[i]; ++skip)
        {
            SCOPED_TRACE(kAnswers[i] + (" " + std::to_string(skip + 1)));
            pCalled->insert(kAnswers[i]);
            ASSERT_NO_FATAL_FAILURE(Hang(work, kAnswers[i], {.skip = skip}));
        }
    }
}

TEST(SlowPlatform, ACallThatHangsHoldsUpNobodyElse)
{
    std::vector<Work> works = WorksOfWorkers();
    works.push_back(OfConfiguration());
    std::set<std::string> called;
    for (const Work &work : works)
    {
        SCOPED_TRACE(work.name);
        ASSERT_NO_FATAL_FAILURE(HangEveryCall(work, &called));
    }
    EXPECT_EQ(called.size(), std::size(kAnswers));
}

// The log may take its time over what is about to be sent.
TEST(SlowPlatform, ALogThatHangsHoldsUpNobodyElse)
{
    const std::vector<Work> works = WorksOfWorkers();
    const std::pair<size_t, const char *> kLines[] = {
        {0, "createObjJsonStr"},
        {0, "buffer ={"},
        {1, "Json_Out_Str"},
        {2, "Json_Out_Str"},
    };
    for (const auto &[index, text] : kLines)
    {
        SCOPED_TRACE(works[index].name + ": " + text);
        ASSERT_NO_FATAL_FAILURE(
            Hang(works[index], "vexoprintf", {.text = text}));
    }
}

} // namespace
} // namespace qdb::test
