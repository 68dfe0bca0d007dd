// Texts as SQLite might write them, against Jansson. An input is two texts of
// rows, or what stands between the fixed parts of two.
#include "fuzz/support.h"
#include "objects/change_json.h"
#include "objects/json_text.h"
#include "objects/plain_value.h"

#include <string_view>

namespace qdb::fuzz
{
namespace
{

// The name of a column begins like the tag's.
constexpr Column kColumns[] = {
    {"OID", Null()},
    {"a_DOT_b", Null()},
    {"SingleRecordEtagOld", Null()},
    {"e", Null()},
    {"SingleRecordEta", Null()},
};
constexpr Table kTable = {"TblTwo", kColumns, {}};
constexpr ObjTypeRow kRow = {0x304, "", &kTable, Trait::PreviousValues};

// Only what is plain.
RowReading ReadPlain(const std::string &text)
{
    RowReading reading;
    reading.ReadPlain(kTable, text);
    return reading;
}

RowReading ReadByJansson(const std::string &text)
{
    return RowReading(JsonPtr(json_loads(text.c_str(), 0, nullptr)));
}

std::string Print(const JsonText &text)
{
    return text == nullptr ? "(none)" : text.get();
}

void RequireSame(const std::string &own, const std::string &other)
{
    Require(own == other, own + "\nisn't\n" + other);
}

void CompareWhole(const std::string &text)
{
    RowReading own = ReadPlain(text);
    RowReading other = ReadByJansson(text);
    Require(!other.IsEmpty(), "JSON: " + text);
    for (RowReading *reading : {&own, &other})
    {
        reading->SetArray("e", R"([1, {"x": "y"}])");
    }
    RequireSame(Print(RenderWholeRow(kRow, std::move(own))),
                Print(RenderWholeRow(kRow, std::move(other))));
}

void CompareDifference(const std::string &before, const std::string &after)
{
    int ownCount = -1;
    int count = -1;
    const JsonText own =
        RenderDifference(kRow, ReadPlain(before), ReadPlain(after), &ownCount);
    const JsonText other = RenderDifference(kRow, ReadByJansson(before),
                                            ReadByJansson(after), &count);
    RequireSame(std::to_string(ownCount) + Print(own),
                std::to_string(count) + Print(other));
}

// An element of an array. SQLite writes no key twice.
void CompareObject(const std::string &text)
{
    std::string own;
    const JsonPtr parsed(json_loads(text.c_str(), 0, nullptr));
    if (AppendPlainObject(text, &own))
    {
        Require(parsed != nullptr, "JSON: " + text);
        const JsonPtr once(
            json_loads(text.c_str(), JSON_REJECT_DUPLICATES, nullptr));
        if (once != nullptr)
        {
            RequireSame(own, Print(PrintJson(parsed.get())));
        }
    }
    if (const size_t size = PlainValueSize(text))
    {
        const std::string list = '[' + text.substr(0, size) + ']';
        const JsonPtr value(json_loads(list.c_str(), 0, nullptr));
        RequireSame(Print(PrintJson(value.get())), list);
    }
}

// A row around four values.
std::string RowAround(Input *pInput)
{
    const std::string values[] = {pInput->Text(), pInput->Text(),
                                  pInput->Text(), pInput->Text()};
    return R"({"OID":)" + values[0] + R"(,"a_DOT_b":)" + values[1] +
           R"(,"SingleRecordEtagOld":)" + values[2] + R"(,"e":)" + values[3] +
           R"(,"SingleRecordEta":null,"SingleRecordEtag":"9"})";
}

std::string WholeText(Input *pInput)
{
    const Bytes bytes = pInput->Take(pInput->Word());
    return {bytes.begin(), std::ranges::find(bytes, 0)};
}

} // namespace

void RunRowText(Bytes bytes)
{
    Input input(bytes);
    const bool around = input.Byte() % 2 == 1;
    const std::string before = around ? RowAround(&input) : WholeText(&input);
    const std::string after = around ? RowAround(&input) : WholeText(&input);
    const bool plainBefore = !ReadPlain(before).IsEmpty();
    const bool plainAfter = !ReadPlain(after).IsEmpty();
    if (plainBefore)
    {
        CompareWhole(before);
    }
    if (plainBefore && plainAfter)
    {
        CompareDifference(before, after);
    }
    CompareObject(before);
    CompareObject(after);
}

} // namespace qdb::fuzz
