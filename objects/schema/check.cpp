// What can be checked about the column lists while they compile.
#include "objects/schema/rows.h"

#include <algorithm>
#include <string_view>

namespace qdb
{
namespace
{

// Whether the row is the first of its table. Compared by name: addresses of
// objects are no constants for a compiler that instruments them.
constexpr bool IsFirstOfTable(const RowData &row)
{
    const RowData *other = kRowData;
    while (std::string_view(other->table->name) != row.table->name)
    {
        ++other;
    }
    return std::string_view(other->suffix) == row.suffix;
}

consteval size_t CountTables()
{
    return static_cast<size_t>(std::ranges::count_if(kRowData, IsFirstOfTable));
}

// Columns over all tables, each table counted once, that satisfy `test`.
template <typename Test>
consteval size_t CountColumns(Test test)
{
    size_t count = 0;
    for (const RowData &row : kRowData)
    {
        if (IsFirstOfTable(row))
        {
            count += static_cast<size_t>(
                std::ranges::count_if(row.table->columns, test));
        }
    }
    return count;
}

constexpr bool Narrowed(const Column &column, Form form)
{
    return column.source.form == form && column.source.aux == kNarrowed;
}

consteval bool FormsAreInOrder()
{
    for (size_t i = 0; i < std::size(kForms); ++i)
    {
        if (kForms[i].form != static_cast<Form>(i))
        {
            return false;
        }
    }
    return kForms[std::size(kForms) - 1].form == Form::Null;
}

consteval bool RowsAreInOrder()
{
    // The order of the lower-case hexadecimal texts: digits come before
    // letters in either case, so the suffix up to its `_` serves.
    for (size_t i = 1; i < std::size(kRowData); ++i)
    {
        const std::string_view before = kRowData[i - 1].suffix;
        const std::string_view after = kRowData[i].suffix;
        const auto a = before.substr(0, before.find('_'));
        const auto b = after.substr(0, after.find('_'));
        if (b < a)
        {
            return false;
        }
    }
    return true;
}

consteval bool PlacedFieldsOverlapNoDocumentedOne()
{
    for (const RowData &row : kRowData)
    {
        for (const Column &column : row.table->columns)
        {
            if (column.source.placed &&
                std::ranges::any_of(row.table->columns,
                                    [&](const Column &other)
                                    {
                                        return !other.source.placed &&
                                               Overlap(column.source,
                                                       other.source);
                                    }))
            {
                return false;
            }
        }
    }
    return true;
}

consteval bool NamesAreUnique()
{
    for (const RowData &row : kRowData)
    {
        const auto columns = row.table->columns;
        for (size_t i = 0; i < columns.size(); ++i)
        {
            for (size_t j = 0; j < i; ++j)
            {
                if (std::string_view(columns[i].name) == columns[j].name)
                {
                    return false;
                }
            }
        }
    }
    return true;
}

static_assert(FormsAreInOrder());
static_assert(std::size(kRowData) == 161);
static_assert(kRowData[157].objType == 0xE1);
static_assert(CountTables() == 111);
static_assert(RowsAreInOrder());
static_assert(NamesAreUnique());
static_assert(PlacedFieldsOverlapNoDocumentedOne());
static_assert(CountColumns(
                  [](const Column &c)
                  {
                      return Narrowed(c, Form::OffsetText16);
                  }) == 94);
static_assert(CountColumns(
                  [](const Column &c)
                  {
                      return Narrowed(c, Form::U8);
                  }) == 2);
static_assert(CountColumns(
                  [](const Column &c)
                  {
                      const IntegerRange range = RangeOf(c.source);
                      return KindOf(c.source.form) == FormKind::Integer &&
                             (range.bits == 0 || FieldSize(c.source) > 8);
                  }) == 0);
static_assert(CountColumns(
                  [](const Column &c)
                  {
                      return c.source.placed;
                  }) == 404);
static_assert(std::ranges::count_if(kRowData,
                                    [](const RowData &row)
                                    {
                                        return ReadsWithSelectStar(*row.table);
                                    }) == 11);

} // namespace
} // namespace qdb
