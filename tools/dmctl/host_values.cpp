#include "tools/dmctl/host_values.h"

#include <algorithm>
#include <utility>

namespace qdb
{

HostValues::HostValues(const Table &table)
    : mTable(table), mValues(json_object())
{
}

const Source &HostValues::Find(const char *name) const
{
    const auto column =
        std::ranges::find(mTable.columns, std::string(name), &Column::name);
    if (column == mTable.columns.end())
    {
        throw std::logic_error(std::string("no column ") + name);
    }
    return column->source;
}

void HostValues::Text(const char *column,
                      const std::optional<std::string> &text)
{
    const Source &source = Find(column);
    const size_t room = KindOf(source.form) == FormKind::Text
                            ? TextRoom(mTable, source.offset)
                            : kOffsetTextRoom;
    if (text && !text->empty())
    {
        Put(mValues, column, qdb::Text(TextThatFits(*text, room)));
    }
}

void HostValues::Number(const char *column, std::optional<int64_t> number)
{
    const IntegerRange range = RangeOf(Find(column));
    const auto most =
        static_cast<int64_t>(std::min<uint64_t>(range.Greatest(), INT64_MAX));
    if (number)
    {
        Put(mValues, column,
            Json(json_integer(std::clamp(*number, range.Least(), most))));
    }
}

Json HostValues::Take()
{
    return std::exchange(mValues, Json(json_object()));
}

std::string TextThatFits(std::string text, size_t room)
{
    if (text.size() >= room)
    {
        size_t size = room - 1;
        while (size > 0 && (text[size] & 0xC0) == 0x80)
        {
            size--;
        }
        text.resize(size);
    }
    if (Text(text) == nullptr)
    {
        std::ranges::replace_if(
            text,
            [](char byte)
            {
                return (byte & 0x80) != 0;
            },
            '?');
    }
    return text;
}

} // namespace qdb
