#include "tools/dmctl/host_objects.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace qdb
{

namespace
{

// A text behind the fixed part is bounded by the whole object only; this is
// long enough for any name.
constexpr size_t kOffsetTextRoom = 128;

constexpr uint32_t kOidsPerKind = 0x10000;

// Bytes for a text with its NUL.
size_t RoomOf(const Table &table, const Source &source)
{
    return KindOf(source.form) == FormKind::Text
               ? TextRoom(table, source.offset)
               : kOffsetTextRoom;
}

bool IsContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// The longest beginning of the text that fits, cut between characters. In a
// text that is no UTF-8 all bytes but ASCII become '?'.
Json TextThatFits(std::string text, size_t room)
{
    if (text.size() >= room)
    {
        size_t size = room - 1;
        while (size > 0 && IsContinuation(text[size]))
        {
            size--;
        }
        text.resize(size);
    }
    Json value = qdb::Text(text);
    if (value == nullptr)
    {
        std::ranges::replace_if(
            text,
            [](char byte)
            {
                return (byte & 0x80) != 0;
            },
            '?');
        value = qdb::Text(text);
    }
    return value;
}

} // namespace

HostValues::HostValues(const Table &table)
    : mTable(table), mValues(json_object())
{
}

const Column &HostValues::Find(const char *name) const
{
    for (const Column &column : mTable.columns)
    {
        if (strcmp(column.name, name) == 0)
        {
            return column;
        }
    }
    throw std::logic_error(std::string("no column ") + name);
}

void HostValues::Text(const char *column,
                      const std::optional<std::string> &text)
{
    if (text && !text->empty())
    {
        Put(mValues, column,
            TextThatFits(*text, RoomOf(mTable, Find(column).source)));
    }
}

void HostValues::Number(const char *column, std::optional<int64_t> number)
{
    if (number)
    {
        const IntegerRange range = RangeOf(Find(column).source);
        const auto most = static_cast<int64_t>(
            std::min<uint64_t>(range.Greatest(), INT64_MAX));
        Put(mValues, column,
            Json(json_integer(std::clamp(*number, range.Least(), most))));
    }
}

void HostValues::Array(const char *column, Json array)
{
    Put(mValues, Find(column).name, std::move(array));
}

Json HostValues::Take()
{
    return std::exchange(mValues, Json(json_object()));
}

HostView::HostView(const HostFiles &files) : mFiles(files)
{
}

const HostFiles &HostView::Files() const
{
    return mFiles;
}

void HostView::Begin()
{
    mObjects.clear();
}

void HostView::Add(HostKind kind, const std::string &name, uint16_t type,
                   const std::string &fqdd, HostValues &values)
{
    const Json key = TextThatFits(HostKey(type, fqdd), kOffsetTextRoom);
    const uint32_t parent = kind == HostKind::System ? 1 : kFirstHostOid;
    mObjects.push_back({.type = type,
                        .oid = OidOf(kind, name),
                        .parent = parent,
                        .key = json_string_value(key.get()),
                        .values = values.Take()});
}

const std::vector<HostObject> &HostView::Objects() const
{
    return mObjects;
}

uint32_t HostView::OidOf(HostKind kind, const std::string &name)
{
    const auto [entry, isNew] = mOids.try_emplace({kind, name}, 0);
    if (isNew)
    {
        if (mUsed[kind] == kOidsPerKind)
        {
            throw std::runtime_error("out of OIDs");
        }
        entry->second = kFirstHostOid +
                        static_cast<uint32_t>(kind) * kOidsPerKind +
                        mUsed[kind]++;
    }
    return entry->second;
}

std::string HostKey(uint16_t type, const std::string &fqdd)
{
    char prefix[16];
    snprintf(prefix, sizeof(prefix), "%X||", static_cast<unsigned>(type));
    return prefix + fqdd;
}

} // namespace qdb
