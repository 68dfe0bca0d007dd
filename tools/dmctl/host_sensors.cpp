// The machine's temperatures.
#include "objects/schema/system_tables.h"
#include "tools/dmctl/host_objects.h"

namespace qdb
{

namespace
{

// In thousandths of a degree, as the kernel gives them.
struct Sensor
{
    std::string name;
    std::string location;
    std::optional<int64_t> reading;
    std::optional<int64_t> warning;
    std::optional<int64_t> critical;
};

// Probes read in tenths of a degree. False for a sensor without a reading.
bool AddSensor(HostView &view, const Sensor &sensor)
{
    if (!sensor.reading)
    {
        return false;
    }
    const std::string fqdd = "Host.Temp." + sensor.name;
    HostValues values(kTblProbeObj);
    values.Text("Key", HostKey(0x16, fqdd));
    values.Text("FriendlyFQDD", fqdd);
    values.Text("ProbeLocation", sensor.location);
    values.Number("probeReading", Divided(sensor.reading, 100));
    values.Number("probeThresholds_DOT_uncThreshold",
                  Divided(sensor.warning, 100));
    values.Number("probeThresholds_DOT_ucThreshold",
                  Divided(sensor.critical, 100));
    values.Number("unitModifier", 1);
    view.Add(HostKind::Temperature, sensor.name, 0x16, fqdd, values);
    return true;
}

Sensor ReadSensor(const HostFiles &files, const std::string &chip,
                  const std::string &name)
{
    const std::string directory = "/sys/class/hwmon/" + chip + "/";
    const std::string path = directory + name;
    return {
        .name = chip + "." + name,
        .location = files.Text(directory + "name").value_or(chip) + " " +
                    files.Text(path + "_label").value_or(name),
        .reading = files.Number(path + "_input"),
        .warning = files.Number(path + "_max"),
        .critical = files.Number(path + "_crit"),
    };
}

// Adds the sensors of one chip; true when there was any.
bool AddChip(HostView &view, const std::string &chip)
{
    const std::string input = "_input";
    bool found = false;
    for (const std::string &entry :
         view.Files().List("/sys/class/hwmon/" + chip))
    {
        if (entry.starts_with("temp") && entry.ends_with(input))
        {
            const std::string name =
                entry.substr(0, entry.size() - input.size());
            found =
                AddSensor(view, ReadSensor(view.Files(), chip, name)) || found;
        }
    }
    return found;
}

void AddThermalZones(HostView &view)
{
    const HostFiles &files = view.Files();
    for (const std::string &zone : files.List("/sys/class/thermal"))
    {
        const std::string directory = "/sys/class/thermal/" + zone;
        AddSensor(view,
                  {.name = zone,
                   .location = files.Text(directory + "/type").value_or(zone),
                   .reading = files.Number(directory + "/temp"),
                   .warning = std::nullopt,
                   .critical = std::nullopt});
    }
}

} // namespace

void CollectTemperatures(HostView &view)
{
    bool found = false;
    for (const std::string &chip : view.Files().List("/sys/class/hwmon"))
    {
        found = AddChip(view, chip) || found;
    }
    // The zones mostly show the chips' sensors again.
    if (!found)
    {
        AddThermalZones(view);
    }
}

} // namespace qdb
