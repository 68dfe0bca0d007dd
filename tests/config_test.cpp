// Finding the groups of attributes. How they are fetched is in the stream.
#include "config/config_objects.h"
#include "tests/support/config_bytes.h"
#include "tests/support/db_fixture.h"

#include <algorithm>

namespace qdb::test
{
namespace
{

using ConfigTest = DbTest;

TEST_F(ConfigTest, AGroupIsFoundByItsWholeKey)
{
    const std::string k510(510, 'G');
    const std::string k511(511, 'G');
    const std::string k600(600, 'G');
    const Bytes kUnended = With(Group("A"), kSizeWord, 25);
    const std::string kNone = "NULL!!!\n";
    const std::string kFound = "Found: ";
    // clang-format off
    const struct
    {
        const char *name;
        Bytes attribute;
        std::vector<Bytes> groups;
        int found; // place in `groups`, -1: none
        std::string line;
    } kCases[] = {
        {"1 and 10", Attribute("A.1#B.10#X"), {Group("A.1#B.1"), Group("A.1#B.10")}, 1, kFound},
        {"10 and 1", Attribute("A.1#B.1#X"), {Group("A.1#B.10"), Group("A.1#B.1")}, 1, kFound},
        {"the first of two", Attribute("A#B#C#X"), {Group("Z"), Group("A#B"), Group("A#B#C")}, 1, kFound},
        {"its own key", Attribute("A#B"), {Group("A#B")}, -1, kNone},
        {"no groups", Attribute("A#B"), {}, -1, kNone},
        {"groups without a key", Attribute("A#B"), {With(Group("A"), kKeyWord, 26), kUnended, With(Group("A"), kSizeWord, 16), Group("A")}, 3, kFound},
        // Longer keys are cut to 511 characters, the "#" included.
        {"510", Attribute(k510 + "#X"), {Group(k510)}, 0, kFound},
        {"510 and more", Attribute(k510 + "G#X"), {Group(k510)}, -1, kNone},
        {"511", Attribute(k511 + "Y#X"), {Group(k511)}, 0, kFound},
        {"600", Attribute(k511 + "Y#X"), {Group(k600)}, 0, kFound},
        {"600, too short", Attribute(k510 + "#X"), {Group(k600)}, -1, kNone},
        // An attribute without a key ends the search at once.
        {"no attribute", Group("A#B"), {Group("A")}, -1, ""},
        {"a small attribute", With(Attribute("A#B"), kSizeWord, 16), {Group("A")}, -1, ""},
        {"a key outside", With(Attribute("A#B"), kKeyWord, 0xFFFFFFF0), {Group("A")}, -1, ""},
        {"an unended key", With(Attribute("A#B"), kSizeWord, 0x5E), {Group("A")}, -1, ""},
    };
    // clang-format on
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        std::vector<DataObjHeader *> groups;
        for (const Bytes &group : c.groups)
        {
            groups.push_back(const_cast<DataObjHeader *>(HeaderOf(group)));
        }
        CaptureLog();
        GroupCache cache = nullptr;
        const DataObjHeader *found =
            GetGroupObject(HeaderOf(c.attribute), groups, &cache);
        EXPECT_EQ(found,
                  c.found < 0 ? nullptr : groups[static_cast<size_t>(c.found)]);
        EXPECT_EQ(cache, found);
        Lines lines = LogLines();
        std::erase_if(lines,
                      [](const std::string &line)
                      {
                          return line.starts_with("ERROR");
                      });
        ASSERT_EQ(lines.size(), c.line.empty() ? 0U : 1U);
        if (!c.line.empty())
        {
            EXPECT_TRUE(lines[0].starts_with(c.line)) << lines[0];
        }
    }
}

TEST_F(ConfigTest, TheLastGroupIsAskedFirst)
{
    const Bytes bytes[] = {Group("A"), Group("B"), Group("C")};
    std::vector<DataObjHeader *> groups;
    for (const Bytes &group : bytes)
    {
        groups.push_back(const_cast<DataObjHeader *>(HeaderOf(group)));
    }
    GroupCache cache = nullptr;
    const struct
    {
        const char *key;
        int found;
        int cached;
        uint64_t looks; // at groups
    } kSteps[] = {
        {"C#1", 2, 2, 3}, {"C#2", 2, 2, 1}, {"D#1", -1, 2, 4},
        {"C#3", 2, 2, 1}, {"B#1", 1, 1, 3}, {"B#2", 1, 1, 1},
    };
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.key);
        const Bytes attribute = Attribute(step.key);
        const uint64_t before = standin::CallCount("client_get_obj_body_ptr");
        const DataObjHeader *found =
            GetGroupObject(HeaderOf(attribute), groups, &cache);
        EXPECT_EQ(standin::CallCount("client_get_obj_body_ptr") - before,
                  step.looks);
        EXPECT_EQ(found, step.found < 0
                             ? nullptr
                             : groups[static_cast<size_t>(step.found)]);
        EXPECT_EQ(cache, groups[static_cast<size_t>(step.cached)]);
    }

    // The library gives no body: that group is passed over.
    standin::SetFault("client_get_obj_body_ptr", 5, 1);
    CaptureLog();
    cache = nullptr;
    const Bytes attribute = Attribute("A#1");
    EXPECT_EQ(GetGroupObject(HeaderOf(attribute), groups, &cache), nullptr);
    EXPECT_EQ(LogLines(),
              (Lines{"ERROR: client_get_obj_body_ptr failed.\n", "NULL!!!\n"}));
}

} // namespace
} // namespace qdb::test
