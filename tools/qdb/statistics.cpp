#include "tools/qdb/statistics.h"

#include "core/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <numeric>
#include <stdexcept>

namespace qdb::tool
{
namespace
{

// More than any version will need; what is longer is no such file.
constexpr off_t kLongestFile = off_t{16} << 20;

[[noreturn]] void Fail(const std::string &path, const std::string &reason)
{
    throw std::runtime_error(path + ": " + reason);
}

std::string ReadAll(int fd, const std::string &path)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0)
    {
        Fail(path, std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kLongestFile)
    {
        Fail(path, "is no statistics file");
    }
    std::string bytes(static_cast<size_t>(status.st_size), '\0');
    const ssize_t size = pread(fd, bytes.data(), bytes.size(), 0);
    if (size < 0)
    {
        Fail(path, std::strerror(errno));
    }
    bytes.resize(static_cast<size_t>(size));
    return bytes;
}

bool IsLocked(int fd)
{
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

uint64_t Now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U +
           static_cast<uint64_t>(now.tv_nsec);
}

// The bytes of a file, and what is taken from them, checked.
class Parser
{
  public:
    Parser(const std::string &bytes, const std::string &path)
        : bytes_(bytes), path_(path)
    {
        header_ = Take<StatisticsHeader>(0);
        if (header_.magic != kStatisticsMagic || header_.version == 0)
        {
            Fail(path_, "is no statistics file");
        }
    }

    uint32_t Pid() const
    {
        return header_.pid;
    }

    std::vector<Family> Families()
    {
        std::vector<Family> families;
        for (uint32_t i = 0; i < header_.families.count; ++i)
        {
            families.push_back(
                TakeFamily(Entry<StatisticsFamily>(header_.families, i)));
        }
        return families;
    }

  private:
    template <typename T>
    T Take(uint64_t at) const
    {
        T value;
        if (at > bytes_.size() || bytes_.size() - at < sizeof(value))
        {
            Fail(path_, "is cut off");
        }
        std::memcpy(&value, bytes_.data() + at, sizeof(value));
        return value;
    }

    template <typename T>
    T Entry(const StatisticsPart &part, uint32_t index) const
    {
        if (index >= part.count || part.size < sizeof(T))
        {
            Fail(path_, "is malformed");
        }
        return Take<T>(part.at + uint64_t{index} * part.size);
    }

    template <size_t kSize>
    static std::string Text(const char (&text)[kSize])
    {
        return {text, strnlen(text, kSize)};
    }

    Family TakeFamily(const StatisticsFamily &entry)
    {
        Family family = {
            Text(entry.name), Text(entry.help), entry.kind, entry.unit, {}};
        for (uint32_t i = 0; i < entry.seriesCount; ++i)
        {
            family.series.push_back(TakeSeries(Entry<StatisticsSeries>(
                header_.series, Sum(entry.firstSeries, i))));
        }
        return family;
    }

    // Each has cells, and no two have the same: what is read is never more than
    // the file.
    Series TakeSeries(const StatisticsSeries &entry)
    {
        if (entry.cellCount == 0 ||
            entry.cellCount > header_.cells.count - cellsTaken_)
        {
            Fail(path_, "is malformed");
        }
        cellsTaken_ += entry.cellCount;
        Series series = {Text(entry.labels), {}};
        for (uint32_t i = 0; i < entry.cellCount; ++i)
        {
            series.cells.push_back(
                Entry<uint64_t>(header_.cells, Sum(entry.firstCell, i)));
        }
        return series;
    }

    uint32_t Sum(uint32_t first, uint32_t index) const
    {
        if (first > UINT32_MAX - index)
        {
            Fail(path_, "is malformed");
        }
        return first + index;
    }

    const std::string &bytes_;
    const std::string &path_;
    StatisticsHeader header_ = {};
    uint32_t cellsTaken_ = 0;
};

bool Holds(const Series &series, std::string_view label)
{
    return series.labels.find(label) != std::string::npos;
}

} // namespace

uint64_t Series::Count() const
{
    if (cells.size() == kHistogramCells)
    {
        return std::accumulate(cells.begin(), cells.end() - 1, uint64_t{0});
    }
    return cells.empty() ? 0 : cells.front();
}

std::string_view Series::Label(std::string_view name) const
{
    const std::string lead = std::string(name) + "=\"";
    const size_t at = labels.find(lead);
    if (at == std::string::npos)
    {
        return {};
    }
    const size_t begin = at + lead.size();
    const size_t end = labels.find('"', begin);
    return std::string_view(labels).substr(begin, end - begin);
}

const Family *Statistics::Find(std::string_view name) const
{
    const auto found = std::ranges::find(families, name, &Family::name);
    return found == families.end() ? nullptr : &*found;
}

uint64_t Statistics::Value(std::string_view name, std::string_view label) const
{
    const Family *family = Find(name);
    if (family == nullptr)
    {
        return 0;
    }
    for (const Series &series : family->series)
    {
        if (Holds(series, label))
        {
            return series.Count();
        }
    }
    return 0;
}

uint64_t Statistics::Sum(std::string_view name, std::string_view label,
                         std::string_view butNot) const
{
    uint64_t sum = 0;
    if (const Family *family = Find(name))
    {
        for (const Series &series : family->series)
        {
            const bool counts = Holds(series, label) &&
                                (butNot.empty() || !Holds(series, butNot));
            sum += counts ? series.Count() : 0;
        }
    }
    return sum;
}

uint64_t PercentileOf(const std::vector<uint64_t> &cells, double share)
{
    constexpr uint64_t kMicrosecond = 1000;
    const auto all = std::accumulate(
        cells.begin(), cells.begin() + kHistogramBuckets, uint64_t{0});
    const auto wanted = static_cast<uint64_t>(static_cast<double>(all) * share);
    uint64_t sum = 0;
    uint32_t bucket = 0;
    for (; bucket + 1 < kHistogramBuckets; ++bucket)
    {
        sum += cells[bucket];
        if (sum > wanted)
        {
            break;
        }
    }
    return kMicrosecond << bucket;
}

std::optional<Statistics> ReadStatistics(const std::string &path)
{
    const Descriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file < 0)
    {
        if (errno == ENOENT)
        {
            return std::nullopt;
        }
        Fail(path, std::strerror(errno));
    }
    const std::string bytes = ReadAll(file, path);
    Parser parser(bytes, path);
    return Statistics{IsLocked(file), parser.Pid(), Now(), parser.Families()};
}

std::vector<std::string> Unbalanced(const Statistics &statistics)
{
    std::vector<std::string> roads;
    const Family *arrived = statistics.Find("objects_arrived");
    if (arrived == nullptr)
    {
        return roads;
    }
    for (const Series &series : arrived->series)
    {
        const uint64_t came = series.Count();
        const uint64_t told = statistics.Sum("objects", series.labels);
        if (came != told)
        {
            roads.push_back(std::string(series.Label("road")) + ": " +
                            std::to_string(came) + " arrived, " +
                            std::to_string(told) + " accounted for");
        }
    }
    return roads;
}

} // namespace qdb::tool
