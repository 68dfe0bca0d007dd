#include "tools/dmctl/host.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <stdexcept>

namespace qdb
{

namespace
{

constexpr time_t kHour = 3600;

// A busy loop of looks doesn't fill the memory.
constexpr size_t kMostSamples = 3600;

// No overflow: what doesn't fit stands for the greatest value.
std::optional<int64_t> Scaled(std::optional<int64_t> number, const Field &field)
{
    return number ? std::optional(std::clamp(*number, INT64_MIN / field.factor,
                                             INT64_MAX / field.factor) *
                                  field.factor / field.divisor)
                  : std::nullopt;
}

void Fill(HostValues &values, const HostFiles &files,
          std::span<const Field> fields, const std::string &path,
          const std::string &name, const std::string &fqdd)
{
    for (const Field &field : fields)
    {
        const std::string file = path + field.file;
        switch (field.from)
        {
        case From::Fqdd:
            values.Text(field.column, fqdd);
            break;
        case From::Name:
            values.Text(field.column, name);
            break;
        case From::Text:
            values.Text(field.column, files.Text(file));
            break;
        case From::Decimal:
            values.Number(field.column, Scaled(files.Number(file, 10), field));
            break;
        case From::Hex:
            values.Number(field.column, files.Number(file, 16));
            break;
        }
    }
}

// "name: value" lines.
using Block = std::map<std::string, std::string>;

std::vector<Block> ReadBlocks(const std::string &text)
{
    std::vector<Block> blocks(1);
    for (const std::string &line : Lines(text))
    {
        const size_t colon = line.find(':');
        if (line.empty())
        {
            blocks.emplace_back();
        }
        else if (colon != std::string::npos)
        {
            blocks.back()[Trimmed(line.substr(0, colon))] =
                Trimmed(line.substr(colon + 1));
        }
    }
    return blocks;
}

std::optional<int64_t> NumberAt(const std::vector<std::string> &words,
                                size_t index)
{
    return index < words.size() ? ParseNumber(words[index]) : std::nullopt;
}

std::optional<int64_t> Kibibytes(const HostFiles &files, const char *word)
{
    return NumberAt(files.Line("/proc/meminfo", word), 1);
}

int64_t Percent(int64_t part, int64_t whole)
{
    return whole <= 0 ? 0 : std::clamp<int64_t>(part, 0, whole) * 100 / whole;
}

} // namespace

void HostUsage::Add(time_t now, int64_t percent)
{
    mSamples.emplace_back(now, percent);
    while (mSamples.front().first <= now - kHour ||
           mSamples.size() > kMostSamples)
    {
        mSamples.pop_front();
    }
}

void HostUsage::Put(HostValues &values) const
{
    int64_t sum = 0;
    int64_t least = 100;
    int64_t most = 0;
    for (const auto &[time, percent] : mSamples)
    {
        sum += percent;
        least = std::min(least, percent);
        most = std::max(most, percent);
    }
    values.Number("averageLastHour",
                  sum / static_cast<int64_t>(mSamples.size()));
    values.Number("minLastHour", least);
    values.Number("maxLastHour", most);
    values.Number("peakUtilization", most);
}

Host::Host(std::string root) : mFiles(std::move(root))
{
}

std::vector<HostObject> Host::Look(time_t now)
{
    mObjects.clear();
    AddSystem(now);
    AddProcessors();
    AddUsage(now);
    for (const HostKind &kind : kFoundKinds)
    {
        AddFound(kind);
    }
    AddTemperatures();
    return std::move(mObjects);
}

void Host::Add(const HostKind &kind, const std::string &name,
               const std::string &path, HostValues values)
{
    const auto [entry, isNew] = mOids.try_emplace(
        {kind.type, name}, kFirstHostOid + static_cast<uint32_t>(mOids.size()));
    if (entry->second >= kBehindHostOids)
    {
        throw std::runtime_error("out of OIDs");
    }
    char type[16];
    snprintf(type, sizeof(type), "%X||", kind.type);
    const std::string fqdd = kind.prefix + name;
    const std::string key = TextThatFits(type + fqdd, kOffsetTextRoom);
    values.Text(kind.keyColumn, key);
    Fill(values, mFiles, kind.fields, path, name, fqdd);
    mObjects.push_back({.type = kind.type,
                        .oid = entry->second,
                        .parent = &kind == &kSystemKind ? 1 : kFirstHostOid,
                        .key = key,
                        .values = values.Take()});
}

void Host::AddSystem(time_t now)
{
    HostValues values(kSystemKind.table);
    if (const auto total = Kibibytes(mFiles, "MemTotal:"))
    {
        values.Number("SysMemTotalSize", *total / 1024);
    }
    if (const auto available = Kibibytes(mFiles, "MemAvailable:"))
    {
        values.Number("SysMemAvailableSize", *available / 1024);
    }
    values.Number("systemBootupTime",
                  NumberAt(mFiles.Line("/proc/stat", "btime"), 1));
    values.Number("UpdateTime", now);
    Add(kSystemKind, "Embedded.1", "", std::move(values));
}

// One for each package; a kernel that doesn't tell the topology gets one for
// each processor.
void Host::AddProcessors()
{
    std::map<std::string, std::vector<Block>> packages;
    for (Block &block : ReadBlocks(mFiles.Text("/proc/cpuinfo").value_or("")))
    {
        const std::string id = block.contains("physical id")
                                   ? block["physical id"]
                                   : block["processor"];
        if (!id.empty())
        {
            packages[id].push_back(std::move(block));
        }
    }
    for (auto &[id, blocks] : packages)
    {
        std::set<std::string> cores;
        for (Block &block : blocks)
        {
            cores.insert(block.contains("core id") ? block["core id"]
                                                   : block["processor"]);
        }
        Block &first = blocks.front();
        HostValues values(kProcessorKind.table);
        values.Text("Manufacturer", first["vendor_id"]);
        values.Text("ProductName", first["model name"]);
        values.Text("Family", first["cpu family"]);
        values.Number("CurrentClockSpeed", ParseNumber(first["cpu MHz"]));
        values.Number("NumberOfProcessorCores",
                      static_cast<int64_t>(cores.size()));
        values.Number("NumberofEnabledThreads",
                      static_cast<int64_t>(blocks.size()));
        Add(kProcessorKind, id, "", std::move(values));
    }
}

// Of the processors there is no use without their counters: "cpu" and the ticks
// spent in user, nice, system, idle, iowait and further states.
void Host::AddUsage(time_t now)
{
    const std::vector<std::string> ticks = mFiles.Line("/proc/stat", "cpu");
    int64_t all = 0;
    // The guest's ticks behind the eighth are in the user's already.
    for (size_t index = 1; index <= 8; index++)
    {
        all += NumberAt(ticks, index).value_or(0);
    }
    const int64_t busy =
        all - NumberAt(ticks, 4).value_or(0) - NumberAt(ticks, 5).value_or(0);
    const auto total = Kibibytes(mFiles, "MemTotal:");
    const auto available = Kibibytes(mFiles, "MemAvailable:");
    const auto add =
        [&](const char *name, HostUsage &usage, int64_t part, int64_t whole)
    {
        usage.Add(now, Percent(part, whole));
        HostValues values(kUsageKind.table);
        usage.Put(values);
        Add(kUsageKind, name, "", std::move(values));
    };
    if (all > 0)
    {
        add("CPU", mProcessors, busy - mBusyTicks, all - mAllTicks);
    }
    if (total && available)
    {
        add("Memory", mMemory, *total - *available, *total);
    }
    mBusyTicks = busy;
    mAllTicks = all;
}

void Host::AddFound(const HostKind &kind)
{
    for (const std::string &name : mFiles.List(kind.folder))
    {
        const std::string path = kind.folder + name;
        if (!mFiles.Text(path + kind.needs).value_or("").empty())
        {
            Add(kind, name, path, HostValues(kind.table));
        }
    }
}

void Host::AddTemperatures()
{
    const HostKind &kind = kTemperatureKind;
    for (const std::string &chip : mFiles.List(kind.folder))
    {
        const std::string folder = kind.folder + chip + "/";
        for (const std::string &file : mFiles.List(folder))
        {
            const std::string name = file.substr(0, file.find('_'));
            if (file.starts_with("temp") && file == name + kind.needs &&
                mFiles.Number(folder + file, 10))
            {
                HostValues values(kind.table);
                values.Number("unitModifier", 1);
                Add(kind, chip + "." + name, folder + name, std::move(values));
            }
        }
    }
}

} // namespace qdb
