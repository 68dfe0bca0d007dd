// The whole catalogue as text, compared with the rendering in
// tests/data/catalogue.txt: rows in their order, columns with form and place,
// array properties and side tables.
//
// The layouts belong to the object library and can't be derived from anything
// else, so a slip of the hand in one of some 3,600 columns would store a
// neighbour's bytes without any error. The file shows every change of the data
// as a changed line for someone to look at. QDB_UPDATE_CATALOGUE=1 writes it
// anew.
#include "objects/schema/rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace qdb
{
namespace
{

std::string Hex(unsigned value)
{
    std::ostringstream out;
    out << "0x" << std::uppercase << std::hex << value;
    return out.str();
}

const char *Name(Form form)
{
    switch (form)
    {
    case Form::U8:
        return "U8";
    case Form::U16:
        return "U16";
    case Form::U32:
        return "U32";
    case Form::U64:
        return "U64";
    case Form::I8:
        return "I8";
    case Form::I16:
        return "I16";
    case Form::I32:
        return "I32";
    case Form::F32:
        return "F32";
    case Form::F64:
        return "F64";
    case Form::Bits:
        return "Bits";
    case Form::Text:
        return "Text";
    case Form::TextOrNull:
        return "TextOrNull";
    case Form::OffsetText:
        return "OffsetText";
    case Form::OffsetText16:
        return "OffsetText16";
    case Form::OffsetTextIf:
        return "OffsetTextIf";
    case Form::BodyText:
        return "BodyText";
    case Form::Joined:
        return "Joined";
    case Form::ParentKey:
        return "ParentKey";
    case Form::Null:
        return "Null";
    }
    return "?";
}

const char *Name(Join join)
{
    switch (join)
    {
    case Join::None:
        return "None";
    case Join::PossibleValues:
        return "PossibleValues";
    case Join::DisplayValues:
        return "DisplayValues";
    case Join::DnsServers:
        return "DnsServers";
    case Join::Gateways:
        return "Gateways";
    case Join::PhysicalFqdds:
        return "PhysicalFqdds";
    }
    return "?";
}

void RenderColumns(std::span<const Column> columns, std::ostream &out)
{
    for (const Column &column : columns)
    {
        const Source &source = column.source;
        out << "  " << column.name << ' ' << Name(source.form);
        if (HasField(source))
        {
            out << ' ' << Hex(source.offset);
        }
        if (source.form == Form::Bits)
        {
            out << " bit " << +source.bit << " width " << +source.width;
        }
        if (source.aux == kNarrowed)
        {
            out << " narrowed";
        }
        else if (source.aux != 0)
        {
            out << " aux " << Hex(source.aux);
        }
        if (source.join != Join::None)
        {
            out << ' ' << Name(source.join);
        }
        out << (source.insertOnly ? " insert-only" : "")
            << (source.placed ? " placed" : "") << '\n';
    }
}

void RenderTable(const Table &table, std::ostream &out)
{
    out << "\ntable " << table.name << ' ' << table.columns.size() << '\n';
    RenderColumns(table.columns, out);
    for (const ArrayProperty &array : table.arrays)
    {
        out << "  array " << array.name << " in " << array.table->name
            << " count " << array.fixedCount << " countAt "
            << Hex(array.countAt) << " firstAt " << Hex(array.firstAt)
            << " offsetAt " << Hex(array.offsetAt) << '\n';
    }
}

std::string RenderCatalogue()
{
    std::ostringstream out;
    size_t index = 0;
    for (const RowData &row : kRowData)
    {
        out << "row " << index++ << ' ' << Hex(row.objType) << ' ' << row.suffix
            << ' ' << row.table->name << '\n';
    }
    std::set<const Table *> seen;
    for (const RowData &row : kRowData)
    {
        if (seen.insert(row.table).second)
        {
            RenderTable(*row.table, out);
        }
    }
    for (const SideTable *side : kSideTables)
    {
        out << "\nside " << side->name << " record " << side->recordSize
            << '\n';
        RenderColumns(side->columns, out);
    }
    return out.str();
}

std::vector<std::string> Lines(std::istream &in)
{
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

TEST(Catalogue, MatchesItsCheckedInRendering)
{
    const char *root = std::getenv("QDB_TEST_SOURCE");
    ASSERT_NE(root, nullptr) << "QDB_TEST_SOURCE: the source folder";
    const std::string path = std::string(root) + "/tests/data/catalogue.txt";
    const std::string rendering = RenderCatalogue();
    if (std::getenv("QDB_UPDATE_CATALOGUE") != nullptr)
    {
        std::ofstream out(path, std::ios::trunc);
        out << rendering;
        ASSERT_TRUE(out.flush()) << "can't write " << path;
        return;
    }

    std::ifstream in(path);
    ASSERT_TRUE(in) << "can't read " << path;
    std::istringstream rendered(rendering);
    const auto expected = Lines(in);
    const auto actual = Lines(rendered);
    const auto [e, a] = std::ranges::mismatch(expected, actual);
    const auto text = [](auto at, const auto &lines)
    {
        return at == lines.end() ? std::string("(no line)") : *at;
    };
    EXPECT_TRUE(e == expected.end() && a == actual.end())
        << path << ":" << (e - expected.begin() + 1)
        << "\n  file: " << text(e, expected) << "\n  data: " << text(a, actual);
}

} // namespace
} // namespace qdb
