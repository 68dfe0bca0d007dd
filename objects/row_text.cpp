#include "objects/row_text.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

namespace qdb
{
namespace
{

// Refresh has two rows in hand at a time. Long texts, such as imported files,
// aren't kept.
constexpr size_t kKeptTexts = 2;
constexpr size_t kKeptCapacity = 32768;

thread_local std::vector<std::unique_ptr<RowText>> tKept;

// Longer integers might not fit in 64 bits.
constexpr int kMaxDigits = 18;

// Characters of a string that need no look at what follows them.
constexpr std::array<bool, 256> kOrdinary = []
{
    std::array<bool, 256> ordinary = {};
    for (size_t byte = 0x20; byte < 0x80; ++byte)
    {
        ordinary[byte] = byte != '"' && byte != '\\';
    }
    return ordinary;
}();

// The bytes that a lead byte's successor may have: narrower than 0x80 to 0xBF
// where overlong forms, surrogates or more than U+10FFFF would begin.
struct Sequence
{
    int length;
    uint8_t low;
    uint8_t high;
};

constexpr Sequence SequenceOf(uint8_t lead)
{
    if (lead < 0xC2 || lead > 0xF4)
    {
        return {0, 0, 0};
    }
    if (lead < 0xE0)
    {
        return {2, 0x80, 0xBF};
    }
    if (lead < 0xF0)
    {
        return {3, static_cast<uint8_t>(lead == 0xE0 ? 0xA0 : 0x80),
                static_cast<uint8_t>(lead == 0xED ? 0x9F : 0xBF)};
    }
    return {4, static_cast<uint8_t>(lead == 0xF0 ? 0x90 : 0x80),
            static_cast<uint8_t>(lead == 0xF4 ? 0x8F : 0xBF)};
}

// Walks a text from piece to piece. A Take moves behind what it names, or
// returns false with the place undefined.
class Cursor
{
  public:
    explicit Cursor(std::string_view text)
        : begin_(text.data()), at_(begin_), end_(begin_ + text.size())
    {
    }

    uint32_t Offset() const
    {
        return static_cast<uint32_t>(at_ - begin_);
    }
    bool AtEnd() const
    {
        return at_ == end_;
    }

    bool Take(char expected)
    {
        if (AtEnd() || *at_ != expected)
        {
            return false;
        }
        ++at_;
        return true;
    }

    bool Take(std::string_view expected)
    {
        if (static_cast<size_t>(end_ - at_) < expected.size() ||
            std::memcmp(at_, expected.data(), expected.size()) != 0)
        {
            return false;
        }
        at_ += expected.size();
        return true;
    }

    bool TakeValue()
    {
        if (AtEnd())
        {
            return false;
        }
        switch (*at_)
        {
        case '"':
            return TakeString();
        case 'n':
            return Take("null");
        default:
            return TakeInteger();
        }
    }

  private:
    bool TakeString()
    {
        ++at_;
        while (!AtEnd())
        {
            if (kOrdinary[static_cast<uint8_t>(*at_)])
            {
                ++at_;
            }
            else if (*at_ == '"')
            {
                ++at_;
                return true;
            }
            else if (*at_ == '\\' ? !TakeEscape() : !TakeSequence())
            {
                return false;
            }
        }
        return false;
    }

    // The escapes that both sides write.
    bool TakeEscape()
    {
        ++at_;
        if (AtEnd() || *at_ == '\0' ||
            std::strchr("\"\\bfnrt", *at_) == nullptr)
        {
            return false;
        }
        ++at_;
        return true;
    }

    // A character beyond ASCII; control characters are none.
    bool TakeSequence()
    {
        const Sequence sequence = SequenceOf(static_cast<uint8_t>(*at_));
        if (sequence.length == 0 || end_ - at_ < sequence.length)
        {
            return false;
        }
        const auto second = static_cast<uint8_t>(at_[1]);
        if (second < sequence.low || second > sequence.high)
        {
            return false;
        }
        for (int i = 2; i < sequence.length; ++i)
        {
            if ((static_cast<uint8_t>(at_[i]) & 0xC0) != 0x80)
            {
                return false;
            }
        }
        at_ += sequence.length;
        return true;
    }

    bool TakeInteger()
    {
        if (Take('0'))
        {
            return true;
        }
        Take('-');
        const char *first = at_;
        while (!AtEnd() && *at_ >= '0' && *at_ <= '9')
        {
            ++at_;
        }
        return at_ != first && *first != '0' && at_ - first <= kMaxDigits;
    }

    const char *begin_;
    const char *at_;
    const char *end_;
};

} // namespace

bool RowText::Split(const Table &table, std::string_view text)
{
    count_ = 0;
    if (ReadsWithSelectStar(table) ||
        text.size() > std::numeric_limits<uint32_t>::max())
    {
        return false;
    }
    const size_t tag = table.columns.size();
    Cursor cursor(text);
    bool plain = cursor.Take('{');
    for (size_t i = 0; plain && i <= tag; ++i)
    {
        Field &field = fields_[i];
        field.key = cursor.Offset();
        plain = cursor.Take('"') &&
                cursor.Take(i == tag ? kTagColumn : table.columns[i].name) &&
                cursor.Take("\":");
        field.value = cursor.Offset();
        plain = plain && cursor.TakeValue();
        field.end = cursor.Offset();
        plain = plain && cursor.Take(i == tag ? '}' : ',');
    }
    if (!plain || !cursor.AtEnd())
    {
        return false;
    }
    text_.assign(text);
    count_ = tag + 1;
    return true;
}

FieldSet RowText::DifferentFrom(const RowText &other) const
{
    FieldSet different = 0;
    for (size_t i = 0; i < count_; ++i)
    {
        if (Value(fields_[i]) != other.Value(other.fields_[i]))
        {
            different |= FieldSet{1} << i;
        }
    }
    return different;
}

int RowText::CountWithoutTag(FieldSet fields) const
{
    int count = 0;
    for (size_t i = 0; i < count_; ++i)
    {
        if ((fields >> i & 1) != 0 &&
            !Key(fields_[i]).substr(1).starts_with(kTagColumn))
        {
            ++count;
        }
    }
    return count;
}

size_t RowText::RenderedSize(FieldSet fields) const
{
    size_t size = 0;
    for (size_t i = 0; i < count_; ++i)
    {
        if ((fields >> i & 1) != 0)
        {
            // A blank behind the colon; a comma and a blank, or the braces.
            size += fields_[i].end - fields_[i].key + 3;
        }
    }
    return std::max<size_t>(size, 2);
}

char *RowText::Render(FieldSet fields, char *to) const
{
    constexpr std::string_view kColon = ": ";
    std::string_view separator;
    *to++ = '{';
    for (size_t i = 0; i < count_; ++i)
    {
        if ((fields >> i & 1) != 0)
        {
            to = std::ranges::copy(separator, to).out;
            to = std::ranges::copy(Key(fields_[i]), to).out;
            to = std::ranges::copy(kColon, to).out;
            to = std::ranges::copy(Value(fields_[i]), to).out;
            separator = ", ";
        }
    }
    *to++ = '}';
    return to;
}

void KeepRowText::operator()(RowText *text) const
{
    std::unique_ptr<RowText> owned(text);
    if (owned->Text().capacity() <= kKeptCapacity && tKept.size() < kKeptTexts)
    {
        tKept.push_back(std::move(owned));
    }
}

RowTextPtr TakeRowText()
{
    if (tKept.empty())
    {
        return RowTextPtr(new RowText);
    }
    RowTextPtr text(tKept.back().release());
    tKept.pop_back();
    return text;
}

} // namespace qdb
