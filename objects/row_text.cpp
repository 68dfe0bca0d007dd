// The promises named here stand in the header.
#include "objects/row_text.h"

#include "objects/plain_value.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <new>

namespace qdb
{
namespace
{

// Ten workers and two others have up to two rows in hand each. Long texts, such
// as imported files, aren't kept.
constexpr size_t kKeptTexts = 24;
constexpr size_t kKeptCapacity = 32768;

// NULL where a place is free; whoever exchanges a text out of its place owns
// it. The first ones are always tried first, so that few are used at rest. Not
// one list per thread: the destructor of such a list has to be registered with
// the C library, which ends the process when that needs memory and has none.
std::atomic<RowText *> gKept[kKeptTexts];

// The end of the key `name` and its colon, which `text` must begin with; 0 if
// it doesn't.
size_t SkipKey(std::string_view text, std::string_view name)
{
    constexpr std::string_view kClose = "\":";
    const size_t close = 1 + name.size();
    return text.starts_with('"') && text.substr(1).starts_with(name) &&
                   text.substr(close).starts_with(kClose)
               ? close + kClose.size()
               : 0;
}

} // namespace

bool RowText::Split(const Table &table, std::string_view text)
{
    // SQLite makes the text, of the table's columns in their order and the tag.
    // Anything else, a duplicate or a value that isn't plain, is left to the
    // parser: what isn't understood to the last byte isn't spliced.
    count_ = 0;
    const size_t tag = table.columns.size();
    if (tag >= kMaxRowFields ||
        text.size() > std::numeric_limits<uint32_t>::max())
    {
        return false;
    }
    size_t end = 0; // of the field before
    for (size_t i = 0; i <= tag; ++i)
    {
        if (!text.substr(end).starts_with(i == 0 ? '{' : ','))
        {
            return false;
        }
        const size_t key = end + 1;
        const size_t keySize = SkipKey(
            text.substr(key), i == tag ? kTagColumn : table.columns[i].name);
        const size_t value = key + keySize;
        // Nothing but what keeps promises 1 to 3 has a size.
        const size_t valueSize = PlainValueSize(text.substr(value));
        if (keySize == 0 || valueSize == 0)
        {
            return false;
        }
        end = value + valueSize;
        fields_[i] = {static_cast<uint32_t>(key), static_cast<uint32_t>(value),
                      static_cast<uint32_t>(end)};
    }
    // A column that the table's list doesn't have would be left out.
    if (text.substr(end) != "}")
    {
        return false;
    }
    // SQLite's buffer ends with the statement's next step.
    try
    {
        text_.assign(text);
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
    count_ = tag + 1;
    return true;
}

bool RowText::SetValue(std::string_view name, std::string_view value)
{
    Field *end = fields_.data() + count_;
    Field *field =
        std::find_if(fields_.data(), end,
                     [&](const Field &candidate)
                     {
                         const std::string_view key = Key(candidate);
                         return key.substr(1, key.size() - 2) == name;
                     });
    if (field == end)
    {
        return false;
    }
    // replace() leaves the text as it was when it throws, and the fields are
    // moved only behind it.
    try
    {
        text_.replace(field->value, field->end - field->value, value);
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
    // Modulo 2^32, and so right also where the text becomes shorter.
    const uint32_t shift =
        field->value + static_cast<uint32_t>(value.size()) - field->end;
    field->end += shift;
    for (Field *later = field + 1; later != end; ++later)
    {
        later->key += shift;
        later->value += shift;
        later->end += shift;
    }
    return true;
}

FieldSet RowText::DifferentFrom(const RowText &other) const
{
    // Byte by byte: the same SQLite made both texts, so that equal values have
    // equal bytes (plain_value.h keeps out those for which that isn't so).
    FieldSet different = 0;
    for (size_t i = 0; i < count_; ++i)
    {
        if (Value(fields_[i]) != other.Value(other.fields_[i]))
        {
            different.set(i);
        }
    }
    return different;
}

int RowText::CountWithoutTag(const FieldSet &fields) const
{
    int count = 0;
    for (size_t i = 0; i < count_; ++i)
    {
        if (fields[i] && !Key(fields_[i]).substr(1).starts_with(kTagColumn))
        {
            ++count;
        }
    }
    return count;
}

size_t RowText::RenderedSize(const FieldSet &fields) const
{
    size_t size = 0;
    for (size_t i = 0; i < count_; ++i)
    {
        if (fields[i])
        {
            // A blank behind the colon; a comma and a blank, or the braces.
            // Never less than Render writes: it doesn't look at the end.
            size += fields_[i].end - fields_[i].key + 3;
        }
    }
    return std::max<size_t>(size, 2);
}

char *RowText::Render(const FieldSet &fields, char *to) const
{
    const auto copy = [&](size_t begin, size_t end)
    {
        std::memcpy(to, text_.data() + begin, end - begin);
        to += end - begin;
    };
    // As Jansson prints an object: consumers see no difference between the two.
    *to++ = '{';
    bool isFirst = true;
    for (size_t i = 0; i < count_; ++i)
    {
        if (!fields[i])
        {
            continue;
        }
        if (!isFirst)
        {
            *to++ = ',';
            *to++ = ' ';
        }
        isFirst = false;
        copy(fields_[i].key, fields_[i].value); // with the colon
        *to++ = ' ';
        copy(fields_[i].value, fields_[i].end);
    }
    *to++ = '}';
    return to;
}

void KeepRowText::operator()(RowText *text) const
{
    // Also where it isn't kept nothing may throw: this is a destructor.
    std::unique_ptr<RowText> owned(text);
    if (owned->Text().capacity() > kKeptCapacity)
    {
        return;
    }
    for (std::atomic<RowText *> &place : gKept)
    {
        RowText *free = nullptr;
        if (place.compare_exchange_strong(free, text))
        {
            static_cast<void>(owned.release());
            return;
        }
    }
}

RowTextPtr TakeRowText()
{
    for (std::atomic<RowText *> &place : gKept)
    {
        // The look spares an exchange for each place that is empty.
        if (place.load(std::memory_order_relaxed) != nullptr)
        {
            if (RowText *text = place.exchange(nullptr))
            {
                return RowTextPtr(text);
            }
        }
    }
    return RowTextPtr(new (std::nothrow) RowText);
}

} // namespace qdb
