// The machine as a whole and its processors.
#include "objects/schema/system_tables.h"
#include "tools/dmctl/host_objects.h"

#include <algorithm>
#include <set>

namespace qdb
{

namespace
{

constexpr char kSystemFqdd[] = "Host.Embedded.1";

// "name: value" lines, the value as it stands.
using Fields = std::map<std::string, std::string>;

// The processors of one package.
struct Package
{
    Fields first; // of its first processor
    int64_t threads = 0;
    std::set<std::string> cores;
};

Fields ParseFields(const std::string &block)
{
    Fields fields;
    for (const std::string &line : Lines(block))
    {
        const size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0)
        {
            continue;
        }
        const size_t nameEnd = line.find_last_not_of(" \t", colon - 1);
        const size_t value = line.find_first_not_of(" \t", colon + 1);
        fields[line.substr(0, nameEnd + 1)] =
            value == std::string::npos ? "" : line.substr(value);
    }
    return fields;
}

// The packages by their number. A kernel that doesn't tell the topology gets
// one for each processor.
std::map<int64_t, Package> ReadPackages(const HostFiles &files)
{
    std::map<int64_t, Package> packages;
    const std::string text = files.Text("/proc/cpuinfo").value_or("");
    size_t start = 0;
    while (start < text.size())
    {
        const size_t end = std::min(text.find("\n\n", start), text.size());
        Fields fields = ParseFields(text.substr(start, end - start));
        start = end + 2;
        const auto processor = ParseNumber(fields["processor"]);
        if (!processor)
        {
            continue;
        }
        Package &package =
            packages[ParseNumber(fields["physical id"]).value_or(*processor)];
        package.threads++;
        package.cores.insert(fields.contains("core id") ? fields["core id"]
                                                        : fields["processor"]);
        if (package.first.empty())
        {
            package.first = std::move(fields);
        }
    }
    return packages;
}

bool HasFlag(const Fields &fields, const char *flag)
{
    const auto flags = fields.find("flags");
    if (flags == fields.end())
    {
        return false;
    }
    const std::vector<std::string> words = Words(flags->second);
    return std::find(words.begin(), words.end(), flag) != words.end();
}

void AddProcessor(HostView &view, int64_t number, Package &package)
{
    Fields &fields = package.first;
    const std::string fqdd = "Host.CPU." + std::to_string(number + 1);
    HostValues values(kTblDevProcessor);
    values.Text("Key", HostKey(0xD2, fqdd));
    values.Text("fqdd", fqdd);
    values.Text("friendlyFQDD", "CPU " + std::to_string(number + 1));
    values.Text("Manufacturer", fields["vendor_id"]);
    values.Text("ProductName", fields["model name"]);
    values.Text("Version", fields["model name"]);
    values.Text("Family", fields["cpu family"]);
    values.Number("effectiveFamily", ParseNumber(fields["cpu family"]));
    values.Number("effectiveModel", ParseNumber(fields["model"]));
    values.Number("processorStep", ParseNumber(fields["stepping"]));
    values.Text("procMicroCode", fields["microcode"]);
    values.Number("CurrentClockSpeed", ParseNumber(fields["cpu MHz"]));
    const auto cores = static_cast<int64_t>(package.cores.size());
    values.Number("NumberOfProcessorCores",
                  ParseNumber(fields["cpu cores"]).value_or(cores));
    values.Number("NumberofEnabledCores", cores);
    values.Number("NumberofEnabledThreads", package.threads);
    values.Number("hyperThreadingEnabled", package.threads > cores);
    values.Number("hyperThreadingCapable", HasFlag(fields, "ht"));
    values.Number("executeDisableCapable", HasFlag(fields, "nx"));
    values.Number("executeDisableEnabled", HasFlag(fields, "nx"));
    values.Number("virtualizationTechCapable",
                  HasFlag(fields, "vmx") || HasFlag(fields, "svm"));
    const std::string frequency = "/sys/devices/system/cpu/cpu" +
                                  fields["processor"] +
                                  "/cpufreq/cpuinfo_max_freq";
    values.Number("MaxClockSpeed",
                  Divided(view.Files().Number(frequency), 1000));
    view.Add(HostKind::Processor, std::to_string(number), 0xD2, fqdd, values);
}

} // namespace

void CollectSystem(HostView &view, time_t now)
{
    const HostFiles &files = view.Files();
    const std::string dmi = "/sys/class/dmi/id/";
    HostValues values(kTblSystemInfo);
    values.Text("Key", HostKey(0x91, kSystemFqdd));
    values.Text("fqdd", kSystemFqdd);
    values.Text("friendlyFQDD", "This host");
    values.Text("HostName", files.Text("/proc/sys/kernel/hostname"));
    values.Text("SysManufacturer", files.Text(dmi + "sys_vendor"));
    values.Text("SysProductName", files.Text(dmi + "product_name"));
    values.Text("MarketingName", files.Text(dmi + "product_family"));
    values.Text("ChassisManufacturer", files.Text(dmi + "chassis_vendor"));
    values.Text("BIOSVersion", files.Text(dmi + "bios_version"));
    values.Text("BIOSReleaseDate", files.Text(dmi + "bios_date"));
    values.Number("PopulatedCPUSockets",
                  static_cast<int64_t>(ReadPackages(files).size()));
    values.Number("SysMemTotalSize",
                  Divided(MemoryKibibytes(files, "MemTotal:"), 1024));
    values.Number("SysMemAvailableSize",
                  Divided(MemoryKibibytes(files, "MemAvailable:"), 1024));
    for (const std::string &line : Lines(files.Text("/proc/stat").value_or("")))
    {
        if (line.starts_with("btime "))
        {
            values.Number("systemBootupTime", ParseNumber(line.substr(6)));
        }
    }
    values.Number("UpdateTime", now);
    view.Add(HostKind::System, "", 0x91, kSystemFqdd, values);
}

void CollectProcessors(HostView &view)
{
    for (auto &[number, package] : ReadPackages(view.Files()))
    {
        AddProcessor(view, number, package);
    }
}

} // namespace qdb
