#include "bench/report.h"

#include "core/json.h"

#include <cmath>
#include <cstdio>

namespace qdb::bench
{
namespace
{

json_t *JsonOf(const Figures &table)
{
    json_t *rows = json_array();
    for (const Figures::Row &row : table.rows)
    {
        json_t *json = json_pack("{s:s}", "name", row.name.c_str());
        for (size_t i = 0; i < row.values.size(); ++i)
        {
            const std::string column = table.columns[i];
            const std::string member =
                column[1] == '=' ? std::string(table.columns[i - 1]) + "_target"
                                 : column;
            if (!std::isnan(row.values[i]))
            {
                json_object_set_new(json, member.c_str(),
                                    json_real(row.values[i]));
            }
        }
        json_array_append_new(rows, json);
    }
    return rows;
}

} // namespace

void PrintText(const std::vector<Figures> &tables)
{
    for (const Figures &table : tables)
    {
        std::printf("\n%-36s", table.name);
        for (const char *column : table.columns)
        {
            std::printf(" %10s", column);
        }
        for (const Figures::Row &row : table.rows)
        {
            std::printf("\n%-36s", row.name.c_str());
            for (const double value : row.values)
            {
                std::isnan(value)
                    ? std::printf(" %10s", "")
                    : std::printf(" %10.*f", value < 100 ? 2 : 0, value);
            }
        }
        std::printf("\n");
    }
}

void PrintJson(const std::vector<Figures> &tables)
{
    const JsonPtr whole(json_object());
    for (const Figures &table : tables)
    {
        json_object_set_new(whole.get(), table.name, JsonOf(table));
    }
    const JsonText text(
        json_dumps(whole.get(), JSON_INDENT(2) | JSON_REAL_PRECISION(6)));
    std::printf("%s\n", text.get());
}

} // namespace qdb::bench
