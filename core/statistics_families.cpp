#include "core/statistics_families.h"

#include <cstdio>

namespace qdb
{
namespace
{

// Of the values with these numbers; a label without values is left out.
void PrintLabels(const FigureFamily &family, size_t outer, size_t inner,
                 char (&text)[sizeof(StatisticsSeries::labels)])
{
    text[0] = '\0';
    if (family.outer.values.empty())
    {
        return;
    }
    const auto print = [](const FigureLabel &label, size_t which, char *to,
                          size_t room, const char *lead)
    {
        const std::string_view value = label.values[which];
        return std::snprintf(to, room, "%s%s=\"%.*s\"", lead, label.name,
                             static_cast<int>(value.size()), value.data());
    };
    const int length = print(family.outer, outer, text, sizeof(text), "");
    if (!family.inner.values.empty())
    {
        const auto used = static_cast<size_t>(length);
        print(family.inner, inner, text + used, sizeof(text) - used, ",");
    }
}

} // namespace

void DescribeFamilies(StatisticsFamily *pFamilies, StatisticsSeries *pSeries)
{
    uint32_t seriesSoFar = 0;
    for (const FigureFamily &family : figures::kFamilies)
    {
        StatisticsFamily &entry = *pFamilies++;
        std::snprintf(entry.name, sizeof(entry.name), "%s", family.name);
        std::snprintf(entry.help, sizeof(entry.help), "%s", family.help);
        entry.kind = family.kind;
        entry.unit = family.unit;
        entry.firstSeries = seriesSoFar;
        entry.seriesCount = static_cast<uint32_t>(family.SeriesCount());
        const uint32_t cells =
            family.kind == FigureKind::Histogram ? kHistogramCells : 1;
        auto cell = static_cast<uint32_t>(family.at / sizeof(Cell));
        for (size_t i = 0; i < family.SeriesCount(); ++i, cell += cells)
        {
            StatisticsSeries &series = *pSeries++;
            PrintLabels(family, i / family.inner.Ways(),
                        i % family.inner.Ways(), series.labels);
            series.firstCell = cell;
            series.cellCount = cells;
        }
        seriesSoFar += entry.seriesCount;
    }
}

} // namespace qdb
