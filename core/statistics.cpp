#include "core/statistics.h"

#include "core/descriptor.h"
#include "core/statistics_families.h"
#include "core/waiting.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <new>
#include <utility>

namespace qdb
{
namespace
{

Statistics gUnseen;

// The whole file.
struct Image
{
    StatisticsHeader header;
    StatisticsFamily families[kFamilyCount];
    StatisticsSeries series[kSeriesCount];
    Statistics figures;
};
static_assert(offsetof(Image, figures) % sizeof(Cell) == 0);

// With all its blocks, since a write to a page that finds no room is a SIGBUS.
// Locked for the life of the process, as the format promises. 0 or errno.
int Fill(int fd)
{
    constexpr mode_t kForEverybody = 0644;
    flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    if (fchmod(fd, kForEverybody) != 0 || fcntl(fd, F_SETLK, &lock) != 0)
    {
        return errno;
    }
    return posix_fallocate(fd, 0, sizeof(Image));
}

void Describe(Image *pImage)
{
    constexpr auto cellCount =
        static_cast<uint32_t>(sizeof(Statistics) / sizeof(Cell));
    DescribeFamilies(pImage->families, pImage->series);
    StatisticsHeader &header = pImage->header;
    header.magic = kStatisticsMagic;
    header.version = kStatisticsVersion;
    header.pid = static_cast<uint32_t>(getpid());
    header.families = {offsetof(Image, families), kFamilyCount,
                       sizeof(StatisticsFamily)};
    header.series = {offsetof(Image, series), kSeriesCount,
                     sizeof(StatisticsSeries)};
    header.cells = {offsetof(Image, figures), cellCount, sizeof(Cell)};
}

// A file of that name, complete and mapped. 0 or errno.
int Make(const char *path, Image **ppImage)
{
    Descriptor file(
        open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (file < 0)
    {
        return errno;
    }
    if (const int error = Fill(file))
    {
        return error;
    }
    void *memory = mmap(nullptr, sizeof(Image), PROT_READ | PROT_WRITE,
                        MAP_SHARED, file, 0);
    if (memory == MAP_FAILED)
    {
        return errno;
    }
    *ppImage = new (memory) Image{};
    Describe(*ppImage);
    file.Release(); // or the lock would go with it
    return 0;
}

// kCountedTables for one that isn't counted.
size_t IndexOf(std::string_view table)
{
    // Mostly the same as before.
    thread_local size_t last = 0;
    if (figures::kTables[last] == table)
    {
        return last;
    }
    const auto found = std::ranges::lower_bound(figures::kTables, table);
    if (found == figures::kTables.end() || *found != table)
    {
        return kCountedTables;
    }
    last = static_cast<size_t>(found - figures::kTables.begin());
    return last;
}

struct TableChanges
{
    int64_t rowsMore = 0;
    uint64_t changes = 0;
};

// Of the statement under way: those of the tables from begin to end.
struct NotedChanges
{
    std::array<TableChanges, kCountedTables> tables = {};
    size_t begin = kCountedTables;
    size_t end = 0;
};

constinit thread_local NotedChanges tNoted;

} // namespace

constinit std::atomic<Statistics *> gStatistics = &gUnseen;
constinit thread_local uint64_t tEventCame = 0;

uint64_t MomentNow()
{
    return kCounts ? static_cast<uint64_t>(NowNanoseconds()) : 0;
}

void EnterPhase(Phase phase)
{
    Put(Figures().phase, static_cast<uint64_t>(phase));
    Put(Figures().phaseSince, MomentNow());
}

void CountEvent(EventKind kind)
{
    CountOne(Figures().received, kind);
    Put(Figures().lastEvent, MomentNow());
}

void CountSince(Histogram &histogram, uint64_t moment)
{
    if (!kCounts || moment == 0)
    {
        return;
    }
    constexpr uint64_t kMicrosecond = 1000;
    const uint64_t took = MomentNow() - moment;
    const auto bucket =
        static_cast<size_t>(std::bit_width(took / kMicrosecond));
    Count(histogram[std::min<size_t>(bucket, kHistogramBuckets - 1)]);
    Count(histogram[kHistogramBuckets], took);
}

void NoteRowChange(const char *table, int rowsMore)
{
    const size_t index = kCounts ? IndexOf(table) : kCountedTables;
    if (index == kCountedTables)
    {
        return;
    }
    tNoted.begin = std::min(tNoted.begin, index);
    tNoted.end = std::max(tNoted.end, index + 1);
    tNoted.tables[index].rowsMore += rowsMore;
    ++tNoted.tables[index].changes;
}

void CountRowChanges(bool succeeded)
{
    for (size_t i = tNoted.begin; i < tNoted.end; ++i)
    {
        const TableChanges noted = std::exchange(tNoted.tables[i], {});
        if (succeeded && noted.changes != 0)
        {
            Count(Figures().tableRows[i],
                  static_cast<uint64_t>(noted.rowsMore));
            Count(Figures().tableChanges[i], noted.changes);
            Put(Figures().tableChanged[i], MomentNow());
        }
    }
    tNoted.begin = kCountedTables;
    tNoted.end = 0;
}

std::span<const std::string_view> CountedTables()
{
    return figures::kTables;
}

void PutRows(const char *table, uint64_t rows)
{
    if (const size_t index = IndexOf(table); index < kCountedTables)
    {
        Put(Figures().tableRows[index], rows);
    }
}

int OpenStatistics(const char *path)
{
    if (!kCounts)
    {
        return 0;
    }
    // Nobody sees half a file, and a reader that still maps the old one keeps
    // that.
    char unfinished[PATH_MAX];
    if (std::snprintf(unfinished, sizeof(unfinished), "%s.new", path) >=
        static_cast<int>(sizeof(unfinished)))
    {
        return ENAMETOOLONG;
    }
    unlink(unfinished);
    Image *image = nullptr;
    int error = Make(unfinished, &image);
    if (error == 0 && std::rename(unfinished, path) != 0)
    {
        error = errno;
    }
    if (error != 0)
    {
        // The figures of an earlier service would be taken for this one's.
        unlink(unfinished);
        unlink(path);
        return error;
    }
    gStatistics = &image->figures;
    return 0;
}

} // namespace qdb
