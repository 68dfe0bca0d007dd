// Configuration objects: fetching them, and finding their groups.
#include "config/config_objects.h"
#include "tests/support/config_bytes.h"
#include "tests/support/db_fixture.h"

#include <algorithm>

namespace qdb::test
{
namespace
{

using ConfigTest = DbTest;

// --- One object -----------------------------------------------------------

TEST_F(ConfigTest, AnAttributeIsFetchedByItsType)
{
    const struct
    {
        uint32_t type;
        std::string digits;
        const char *interface;
        const char *function;
    } kCases[] = {
        {0x4051, "4051", kIntInterface, "CfgIntAttribute_get_object"},
        {0x4052, "4052", kStrInterface, "CfgStrAttribute_get_object"},
        {0x4053, "4053", kEnumInterface, "CfgEnumAttribute_get_object"},
        {0x4054, "4054", kPasswdInterface, "CfgPasswdAttribute_get_object"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.function);
        const std::string key = "A.1#B.1#" + std::string(c.function);
        PutAttribute(c.interface, key, c.type + 0x10000);
        Restart();
        DataObjHeader *pDOH = nullptr;
        EXPECT_EQ(dbus_get_data_obj_hdr(
                      c.type, standin::AttributePath(key).c_str(), &pDOH),
                  0);
        const ConfigObjectPtr owner(pDOH);
        ASSERT_NE(pDOH, nullptr);
        EXPECT_EQ(standin::CallCount(c.function), 1U);
        EXPECT_EQ(GetCfgAttributeKey(pDOH), key);
        EXPECT_EQ(GetCfgObjectKey(pDOH), key);
        Lines lines = LogLines();
        ASSERT_EQ(lines.size(), 6U);
        EXPECT_EQ(lines[0].rfind("pDOH: 0x", 0), 0U);
        lines.erase(lines.begin());
        EXPECT_EQ(lines, (Lines{"pDOH->objID: 0x0001" + c.digits + "\n",
                                "pDOH->objType: 0x0000" + c.digits + "\n",
                                "pDOH->objStatus: 0x00000000\n",
                                "pDOH->objFlags: 0x00000000\n",
                                "pDOH->refreshInterval: 0x00000000\n"}));
    }
}

TEST_F(ConfigTest, AFailedFetchSaysWhy)
{
    DataObjHeader *pDOH = nullptr;
    const struct
    {
        const char *name;
        uint32_t type;
        DataObjHeader **ppDOH;
        int faults;
        int level;
        const char *line;
    } kCases[] = {
        {"nowhere to put it", 0x4051, nullptr, 0, 6,
         "ERROR: Invalid parameter pDOH.\n"},
        {"a group", 0x4050, &pDOH, 0, 3, "Unknown objType=0x4050\n"},
        {"another type", 0x16, &pDOH, 0, 3, "Unknown objType=0x  16\n"},
        {"one too high", 0x4055, &pDOH, 0, 3, "Unknown objType=0x4055\n"},
        {"not there", 0x4051, &pDOH, 0, 3,
         "ERROR: get_object failed: /no/such/path\n"},
        {"no object", 0x4051, &pDOH, 1, 3,
         "ERROR: get_object returned pDOH == NULL\n"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        for (const int level : {c.level, c.level - 1})
        {
            // Gives 0 and leaves the pointer alone.
            standin::SetFault("CfgIntAttribute_get_object", 0, c.faults);
            CaptureLog(level);
            EXPECT_EQ(dbus_get_data_obj_hdr(c.type, "/no/such/path", c.ppDOH),
                      1);
            EXPECT_EQ(LogLines(), level == c.level ? Lines{c.line} : Lines());
        }
    }
}

TEST_F(ConfigTest, AGroupIsFetchedByTheAttributesPath)
{
    PutAttribute(kIntInterface, "A.1#B.1#C");
    const struct
    {
        const char *name;
        const char *path;
        int result;
        const char *line;
    } kCases[] = {
        {"there", "/com/vexo/tarnu/Config/Attributes/a_1/b_1/c", 0,
         "get_object path = /com/vexo/tarnu/Config/Attributes/a_1/b_1, *pPDOH "
         "= 0x"},
        {"not there", "/com/vexo/tarnu/Config/Attributes/a_1/b_10/c", 256,
         "get_object FAILED for path = "
         "/com/vexo/tarnu/Config/Attributes/a_1/b_10"},
        {"no slash", "c", 256, "get_object FAILED for path = ."},
        {"no path", nullptr, -1, "Error: objPath is NULL.\n"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        Restart();
        DataObjHeader *pGroup = nullptr;
        EXPECT_EQ(GetCfgGroupByPath(c.path, &pGroup), c.result);
        const ConfigObjectPtr owner(pGroup);
        ASSERT_EQ(LogLines().size(), 1U);
        EXPECT_EQ(LogLines()[0].rfind(c.line, 0), 0U) << LogLines()[0];
        ASSERT_EQ(pGroup != nullptr, c.result == 0);
        if (pGroup != nullptr)
        {
            EXPECT_STREQ(GetCfgObjectKey(pGroup), "A.1#B.1");
        }
    }
}

// --- The group of an attribute --------------------------------------------

TEST_F(ConfigTest, AGroupIsFoundByItsWholeKey)
{
    const std::string k510(510, 'G');
    const std::string k511(511, 'G');
    const std::string k600(600, 'G');
    const Bytes kUnended = With(Group("A"), kSizeWord, 25);
    const struct
    {
        const char *name;
        Bytes attribute;
        std::vector<Bytes> groups;
        int found; // place in `groups`, -1: none
        const char *line;
    } kCases[] = {
        {"1 and 10",
         Attribute("A.1#B.10#X"),
         {Group("A.1#B.1"), Group("A.1#B.10")},
         1,
         "Found: "},
        {"10 and 1",
         Attribute("A.1#B.1#X"),
         {Group("A.1#B.10"), Group("A.1#B.1")},
         1,
         "Found: "},
        {"the first of two",
         Attribute("A#B#C#X"),
         {Group("Z"), Group("A#B"), Group("A#B#C")},
         1,
         "Found: "},
        {"its own key", Attribute("A#B"), {Group("A#B")}, -1, "NULL!!!\n"},
        {"no groups", Attribute("A#B"), {}, -1, "NULL!!!\n"},
        {"groups without a key",
         Attribute("A#B"),
         {With(Group("A"), kKeyWord, 26), kUnended,
          With(Group("A"), kSizeWord, 16), Group("A")},
         3,
         "Found: "},
        // Longer keys are cut to 511 characters, the "#" included.
        {"510", Attribute(k510 + "#X"), {Group(k510)}, 0, "Found: "},
        {"510 and more",
         Attribute(k510 + "G#X"),
         {Group(k510)},
         -1,
         "NULL!!!\n"},
        {"511", Attribute(k511 + "Y#X"), {Group(k511)}, 0, "Found: "},
        {"600", Attribute(k511 + "Y#X"), {Group(k600)}, 0, "Found: "},
        {"600, too short",
         Attribute(k510 + "#X"),
         {Group(k600)},
         -1,
         "NULL!!!\n"},
        // An attribute without a key ends the search at once.
        {"no attribute", Group("A#B"), {Group("A")}, -1, nullptr},
        {"another type",
         With(Attribute("A#B"), kTypeWord, 0x16),
         {Group("A")},
         -1,
         nullptr},
        {"a small attribute",
         With(Attribute("A#B"), kSizeWord, 16),
         {Group("A")},
         -1,
         nullptr},
        {"a key outside",
         With(Attribute("A#B"), kKeyWord, 0xFFFFFFF0),
         {Group("A")},
         -1,
         nullptr},
        {"an unended key",
         With(Attribute("A#B"), kSizeWord, 0x5E),
         {Group("A")},
         -1,
         nullptr},
    };
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
        const auto place = std::ranges::find(groups, found) - groups.begin();
        EXPECT_EQ(found == nullptr ? -1 : place, c.found);
        EXPECT_EQ(cache, found);
        const auto lines =
            std::ranges::count_if(LogLines(),
                                  [](const std::string &line)
                                  {
                                      return line.rfind("ERROR", 0) != 0;
                                  });
        ASSERT_EQ(lines, c.line == nullptr ? 0 : 1);
        if (c.line != nullptr)
        {
            EXPECT_EQ(LogLines().back().rfind(c.line, 0), 0U);
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
        const char *line;
    } kSteps[] = {
        {"C#1", 2, 2, 3, "Found: "},    {"C#2", 2, 2, 1, "Matched cache! "},
        {"D#1", -1, 2, 4, "NULL!!!\n"}, {"C#3", 2, 2, 1, "Matched cache! "},
        {"B#1", 1, 1, 3, "Found: "},    {"B#2", 1, 1, 1, "Matched cache! "},
    };
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.key);
        const Bytes attribute = Attribute(step.key);
        CaptureLog();
        const uint64_t before = standin::CallCount("client_get_obj_body_ptr");
        const DataObjHeader *found =
            GetGroupObject(HeaderOf(attribute), groups, &cache);
        EXPECT_EQ(standin::CallCount("client_get_obj_body_ptr") - before,
                  step.looks);
        EXPECT_EQ(found, step.found < 0
                             ? nullptr
                             : groups[static_cast<size_t>(step.found)]);
        EXPECT_EQ(cache, groups[static_cast<size_t>(step.cached)]);
        ASSERT_EQ(LogLines().size(), 1U);
        EXPECT_EQ(LogLines()[0].rfind(step.line, 0), 0U);
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
