#include "tools/audit/audit.h"

#include "tools/audit/expected.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

namespace qdb::audit
{
namespace
{

constexpr char kMapping[] = "ActiveOIDMapping";
constexpr char kLinks[] = "ParentChildMapping";
constexpr char kNothing[] = "nothing";
constexpr char kRawColumn[] = "CurrentValue";

template <typename Map, typename Key>
auto *Find(Map &map, const Key &key)
{
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

bool IsTag(const Value &value)
{
    const auto *text = std::get_if<std::string>(&value);
    return text != nullptr && !text->empty() &&
           text->find_first_not_of("0123456789") == std::string::npos;
}

// One object on its way through the comparison.
struct Subject
{
    const Object &object;
    const ObjectBytes bytes;
    const ObjTypeRow *const row;
    const int64_t oid;

    explicit Subject(const Object &given)
        : object(given), bytes(given), row(RowOf(given, bytes)),
          oid(StoredOid(given.oid))
    {
    }
};

class Comparison
{
  public:
    Comparison(const Content &content, const Snapshot &snapshot)
        : content_(content), snapshot_(snapshot)
    {
    }

    Report Run();

  private:
    void CompareObject(const Object &object);
    void CompareMapping(const Subject &subject);
    void CompareRow(const Subject &subject);
    void CompareColumn(const Subject &subject, const Row &row, size_t index);
    void CompareBookkeeping(const Subject &subject, const Row &row);
    void CompareElements(const Subject &subject, const ArrayProperty &property);
    void CompareElement(const Subject &subject, const ArrayProperty &property,
                        int64_t index, const Element &expected);
    void CompareLinks(const Subject &subject);
    bool IsStorable(const Subject &subject);
    bool IsParentKey(const Subject &subject, const Value &found) const;
    Value ParentKey(const Object &object) const;
    const Object *Parent(uint32_t oid) const;

    void FindExtras();
    void FindExtraRows(const Table &table);
    void FindExtraElements(const SideTable &table);
    bool IsJudged(int64_t oid) const;
    bool IsExpected(int64_t oid, const Table &table) const;
    uint32_t TypeOf(int64_t oid) const;
    void Add(Kind kind, int64_t oid, const std::string &table,
             const std::string &expected, const std::string &found,
             const std::string &column = "", int64_t index = -1,
             const std::string &field = "");

    const Content &content_;
    const Snapshot &snapshot_;
    std::unordered_map<uint32_t, const Object *> parents_; // all objects
    std::map<int64_t, const ObjTypeRow *> expected_;       // by OID
    std::set<int64_t> unjudged_;
    std::map<int64_t, uint32_t> types_;
    std::set<ElementPlace> elements_;             // that are expected
    std::set<std::pair<int64_t, int64_t>> links_; // that may be there
    Report report_;
};

void Comparison::Add(Kind kind, int64_t oid, const std::string &table,
                     const std::string &expected, const std::string &found,
                     const std::string &column, int64_t index,
                     const std::string &field)
{
    report_.differences.push_back(
        {oid, kind, TypeOf(oid), table, column, index, field, expected, found});
}

// The object's type, or what the mapping holds of one that doesn't exist.
uint32_t Comparison::TypeOf(int64_t oid) const
{
    if (const uint32_t *type = Find(types_, oid))
    {
        return *type;
    }
    const Value *mapped = Find(snapshot_.mapping, oid);
    const auto *type =
        mapped == nullptr ? nullptr : std::get_if<int64_t>(mapped);
    return type == nullptr ? 0 : static_cast<uint32_t>(*type);
}

bool Comparison::IsJudged(int64_t oid) const
{
    return !unjudged_.contains(oid);
}

bool Comparison::IsExpected(int64_t oid, const Table &table) const
{
    const ObjTypeRow *const *row = Find(expected_, oid);
    return row != nullptr && (*row)->table == &table;
}

const Object *Comparison::Parent(uint32_t oid) const
{
    const Object *const *found = Find(parents_, oid);
    return found == nullptr ? nullptr : *found;
}

// --- What an object must have ------------------------------------------------

// False, with a note, when some column can't be read.
bool Comparison::IsStorable(const Subject &subject)
{
    for (const Column &column : subject.row->table->columns)
    {
        if (!ColumnOf(subject.bytes, *subject.row, column))
        {
            report_.unstorable.push_back({subject.oid, subject.object.type,
                                          subject.row->table->name,
                                          column.name});
            return false;
        }
    }
    return true;
}

void Comparison::CompareMapping(const Subject &subject)
{
    const Value type = int64_t{subject.object.type};
    const Value *found = Find(snapshot_.mapping, subject.oid);
    if (found == nullptr)
    {
        Add(Kind::MissingMapping, subject.oid, kMapping, Show(type), kNothing);
    }
    else if (*found != type)
    {
        Add(Kind::MappingType, subject.oid, kMapping, Show(type), Show(*found),
            "ObjType");
    }
}

// The key of the first parent that exists.
Value Comparison::ParentKey(const Object &object) const
{
    if (object.group)
    {
        return *object.group;
    }
    for (const uint32_t oid : object.parents)
    {
        if (const Object *parent = Parent(oid))
        {
            return parent->key;
        }
    }
    return {};
}

bool Comparison::IsParentKey(const Subject &subject, const Value &found) const
{
    const std::vector<uint32_t> &parents = subject.object.parents;
    const bool lacksFirst =
        !parents.empty() && Parent(parents.front()) == nullptr;
    return found == ParentKey(subject.object) ||
           (lacksFirst && found == Value());
}

void Comparison::CompareColumn(const Subject &subject, const Row &row,
                               size_t index)
{
    const Table &table = *subject.row->table;
    const Column &column = table.columns[index];
    const Value &found = row.columns[index];
    const bool isRaw = row.isRaw == Value(int64_t{1});
    if (isRaw && std::string_view(column.name) == kRawColumn)
    {
        return;
    }
    const bool isKey = column.source.form == Form::ParentKey;
    const Value expected =
        isKey ? ParentKey(subject.object)
              : ColumnOf(subject.bytes, *subject.row, column).value_or(Value());
    if (isKey ? IsParentKey(subject, found) : found == expected)
    {
        return;
    }
    Add(column.source.insertOnly ? Kind::CreationColumn : Kind::Column,
        subject.oid, table.name, Show(expected), Show(found), column.name);
}

// The columns that no object holds.
void Comparison::CompareBookkeeping(const Subject &subject, const Row &row)
{
    const Table &table = *subject.row->table;
    if (!IsTag(row.tag))
    {
        Add(Kind::Column, subject.oid, table.name, "digits", Show(row.tag),
            "SingleRecordEtag");
    }
    if (&table == &kTblStrAttribute && row.isRaw != Value(int64_t{0}) &&
        row.isRaw != Value(int64_t{1}))
    {
        Add(Kind::Column, subject.oid, table.name, "0 or 1", Show(row.isRaw),
            "isRawData");
    }
}

void Comparison::CompareRow(const Subject &subject)
{
    const Table &table = *subject.row->table;
    const Row *row = Find(snapshot_.rows.at(&table), subject.oid);
    if (row == nullptr)
    {
        Add(Kind::MissingRow, subject.oid, table.name, "a row", kNothing);
        return;
    }
    for (size_t i = 0; i < table.columns.size(); ++i)
    {
        CompareColumn(subject, *row, i);
    }
    CompareBookkeeping(subject, *row);
}

void Comparison::CompareElement(const Subject &subject,
                                const ArrayProperty &property, int64_t index,
                                const Element &expected)
{
    const SideTable &table = *property.table;
    const ElementPlace place = {subject.oid, property.name, index};
    elements_.insert(place);
    const auto *found = Find(snapshot_.elements.at(&table), place);
    if (found == nullptr)
    {
        Add(Kind::MissingElement, subject.oid, table.name, "an element",
            kNothing, property.name, index);
        return;
    }
    for (size_t i = 0; i < table.columns.size(); ++i)
    {
        if ((*found)[i] != expected[i])
        {
            Add(Kind::Element, subject.oid, table.name, Show(expected[i]),
                Show((*found)[i]), property.name, index, table.columns[i].name);
        }
    }
}

void Comparison::CompareElements(const Subject &subject,
                                 const ArrayProperty &property)
{
    int64_t index = 0;
    for (const Element &element : ElementsOf(subject.bytes, property))
    {
        CompareElement(subject, property, index++, element);
    }
}

// Parents that have gone keep their links, so these are only tolerated.
void Comparison::CompareLinks(const Subject &subject)
{
    const std::set<uint32_t> parents(subject.object.parents.begin(),
                                     subject.object.parents.end());
    for (const uint32_t parent : parents)
    {
        const std::pair link(subject.oid, StoredOid(parent));
        links_.insert(link);
        if (Parent(parent) != nullptr && !snapshot_.links.contains(link))
        {
            Add(Kind::MissingLink, subject.oid, kLinks,
                std::to_string(link.second), kNothing, "POID");
        }
    }
}

void Comparison::CompareObject(const Object &object)
{
    const Subject subject(object);
    types_[subject.oid] = object.type;
    if (subject.row == nullptr)
    {
        return;
    }
    if (!IsStorable(subject))
    {
        unjudged_.insert(subject.oid);
        return;
    }
    ++report_.compared;
    expected_[subject.oid] = subject.row;
    CompareMapping(subject);
    CompareRow(subject);
    for (const ArrayProperty &property : subject.row->table->arrays)
    {
        CompareElements(subject, property);
    }
    CompareLinks(subject);
}

// --- What has no object ------------------------------------------------------

void Comparison::FindExtraRows(const Table &table)
{
    for (const auto &[oid, row] : snapshot_.rows.at(&table))
    {
        if (IsJudged(oid) && !IsExpected(oid, table))
        {
            Add(Kind::ExtraRow, oid, table.name, kNothing, "a row");
        }
    }
}

void Comparison::FindExtraElements(const SideTable &table)
{
    for (const auto &[place, element] : snapshot_.elements.at(&table))
    {
        if (IsJudged(place.oid) && !elements_.contains(place))
        {
            Add(Kind::ExtraElement, place.oid, table.name, kNothing,
                "an element", place.property, place.index);
        }
    }
}

void Comparison::FindExtras()
{
    for (const auto &[oid, type] : snapshot_.mapping)
    {
        if (IsJudged(oid) && !expected_.contains(oid))
        {
            Add(Kind::ExtraMapping, oid, kMapping, kNothing, Show(type));
        }
    }
    for (const auto &[table, rows] : snapshot_.rows)
    {
        FindExtraRows(*table);
    }
    for (const auto &[table, elements] : snapshot_.elements)
    {
        FindExtraElements(*table);
    }
    for (const auto &link : snapshot_.links)
    {
        if (IsJudged(link.first) && !links_.contains(link))
        {
            Add(Kind::ExtraLink, link.first, kLinks, kNothing,
                std::to_string(link.second), "POID");
        }
    }
    for (const auto &[oid, table] : snapshot_.repeated)
    {
        Add(Kind::Repeated, oid, table, "one row", "more");
    }
}

Report Comparison::Run()
{
    for (const Object &object : content_.objects)
    {
        if (!object.group)
        {
            parents_[object.oid] = &object;
        }
    }
    for (const Object &object : content_.objects)
    {
        CompareObject(object);
    }
    FindExtras();
    std::ranges::sort(report_.differences);
    std::ranges::sort(report_.unstorable);
    return std::move(report_);
}

} // namespace

Report Compare(const Content &content, const Snapshot &snapshot)
{
    return Comparison(content, snapshot).Run();
}

} // namespace qdb::audit
