#include "bench/spliced_rows.h"

#include "db/mapping.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace qdb::bench
{
namespace
{

constexpr std::string_view kTagMember = ",\"SingleRecordEtag\":\"";

// The place behind the text that begins with a quote at `at`.
size_t EndOfString(std::string_view json, size_t at)
{
    ++at;
    while (json[at] != '"')
    {
        at += json[at] == '\\' ? size_t{2} : size_t{1};
    }
    return at + 1;
}

// Behind the number, true, false or null that begins at `at`.
size_t EndOfWord(std::string_view json, size_t at)
{
    return std::min(json.find_first_of(",]}", at), json.size());
}

void AppendReal(double value, std::string &text)
{
    char digits[32];
    const int length = std::snprintf(digits, sizeof(digits), "%.17g", value);
    text.append(digits, static_cast<size_t>(length));
    if (std::strpbrk(digits, ".e") == nullptr)
    {
        text += ".0";
    }
}

void AppendWord(std::string_view word, std::string &text)
{
    const bool isNumber = word[0] == '-' || (word[0] >= '0' && word[0] <= '9');
    if (isNumber && word.find_first_of(".e") != std::string_view::npos)
    {
        AppendReal(std::strtod(std::string(word).c_str(), nullptr), text);
    }
    else
    {
        text += word;
    }
}

// Appends JSON without spaces as Jansson would write it.
void AppendSpread(std::string_view json, std::string &text)
{
    for (size_t at = 0; at < json.size();)
    {
        const size_t begin = at;
        switch (json[at])
        {
        case '"':
            at = EndOfString(json, at);
            text += json.substr(begin, at - begin);
            break;
        case ',':
        case ':':
            text += json[at++];
            text += ' ';
            break;
        case '{':
        case '}':
        case '[':
        case ']':
            text += json[at++];
            break;
        default:
            at = EndOfWord(json, at);
            AppendWord(json.substr(begin, at - begin), text);
        }
    }
}

struct Member
{
    std::string_view key; // with its quotes
    std::string_view value;
};

// Reads the members of an object without arrays and objects in it.
class Members
{
  public:
    explicit Members(std::string_view json) : json_(json)
    {
    }

    // False at the end.
    bool Next(Member *pMember)
    {
        if (json_[at_] == '}')
        {
            return false;
        }
        ++at_; // the brace or the comma
        const size_t key = at_;
        at_ = EndOfString(json_, at_);
        pMember->key = json_.substr(key, at_ - key);
        const size_t value = ++at_;
        at_ =
            json_[at_] == '"' ? EndOfString(json_, at_) : EndOfWord(json_, at_);
        pMember->value = json_.substr(value, at_ - value);
        return true;
    }

  private:
    std::string_view json_;
    size_t at_ = 0;
};

void AppendMember(const Member &member, std::string &text)
{
    text += text.empty() ? "" : ", ";
    text += member.key;
    text += ": ";
    AppendSpread(member.value, text);
}

// As SQLite's json_object writes a text.
void AppendQuoted(std::string_view value, std::string &json)
{
    json += '"';
    for (const char c : value)
    {
        if (static_cast<unsigned char>(c) < ' ')
        {
            throw std::runtime_error("a control character in a text");
        }
        if (c == '"' || c == '\\')
        {
            json += '\\';
        }
        json += c;
    }
    json += '"';
}

std::string_view ColumnText(sqlite3_stmt *statement, int column)
{
    const auto *text =
        reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return {text, static_cast<size_t>(sqlite3_column_bytes(statement, column))};
}

void AppendColumn(sqlite3_stmt *statement, int column, std::string &json)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        json += std::to_string(sqlite3_column_int(statement, column));
        break;
    case SQLITE_FLOAT:
        AppendReal(sqlite3_column_double(statement, column), json);
        break;
    case SQLITE_TEXT:
        AppendQuoted(ColumnText(statement, column), json);
        break;
    default:
        json += "null";
    }
}

std::string Build(sqlite3_stmt *statement)
{
    std::string json;
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i)
    {
        json += i == 0 ? "{\"" : ",\"";
        json += sqlite3_column_name(statement, i);
        json += "\":";
        AppendColumn(statement, i, json);
    }
    return json + "}";
}

// Puts the elements in the place of the property's null.
void AddArray(const StatementPtr &elements, const char *property, uint32_t oid,
              std::string &json)
{
    const StatementReset reset(elements.get());
    sqlite3_bind_int64(elements.get(), 1, StoredOid(oid));
    sqlite3_bind_text(elements.get(), 2, property, -1, SQLITE_TRANSIENT);
    std::string array;
    while (sqlite3_step(elements.get()) == SQLITE_ROW)
    {
        array += array.empty() ? '[' : ',';
        array += ColumnText(elements.get(), 0);
    }
    if (!array.empty())
    {
        const std::string key = std::string("\"") + property + "\":";
        json.replace(json.find(key + "null") + key.size(), 4, array + "]");
    }
}

std::string BeginChange(const ObjTypeRow &row, std::string_view whole)
{
    std::string text;
    text.reserve(2 * whole.size() + 256);
    text += "{\"TableName\": \"";
    text += row.table->name;
    text += "\", \"RowDetails\": ";
    AppendSpread(whole, text);
    return text;
}

// The tag is the last column.
bool DifferOnlyInTag(std::string_view before, std::string_view after)
{
    const size_t tag = before.rfind(kTagMember);
    return tag != std::string_view::npos &&
           before.substr(0, tag) == after.substr(0, after.rfind(kTagMember));
}

} // namespace

SplicedRows::Row SplicedRows::Read(RowStatements &statements, uint32_t oid)
{
    const StatementPtr &select = statements.select.Get();
    const StatementReset reset(select.get());
    sqlite3_bind_int64(select.get(), 1, StoredOid(oid));
    StepTo(select, SQLITE_ROW);
    const Table &table = *statements.row.table;
    Row row = ReadsWithSelectStar(table) ? Build(select.get())
                                         : Row(ColumnText(select.get(), 0));
    for (size_t i = 0; i < table.arrays.size(); ++i)
    {
        AddArray(statements.elements[i].Get(), table.arrays[i].name, oid, row);
    }
    return row;
}

SplicedRows::Text SplicedRows::RenderWhole(const ObjTypeRow &row,
                                           const Row &whole)
{
    return BeginChange(row, whole) + "}";
}

std::optional<SplicedRows::Text>
SplicedRows::RenderChange(const ObjTypeRow &row, const Row &before,
                          const Row &after)
{
    if (DifferOnlyInTag(before, after))
    {
        return std::nullopt;
    }
    std::string changed;
    std::string previous;
    Members oldMembers(before);
    Members newMembers(after);
    for (Member oldMember, newMember;
         oldMembers.Next(&oldMember) && newMembers.Next(&newMember);)
    {
        if (oldMember.value != newMember.value)
        {
            AppendMember(newMember, changed);
            AppendMember(oldMember, previous);
        }
    }
    std::string text = BeginChange(row, after);
    text += ", \"PropertiesChanged\": {" + changed + "}";
    if (HasPreviousValues(row))
    {
        text += ", \"PreviousPropertyValues\": {" + previous + "}";
    }
    return text + "}";
}

} // namespace qdb::bench
