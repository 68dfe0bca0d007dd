#include "busintake/match_rules.h"

#include "busintake/handlers.h"
#include "config/bus_rows.h"

namespace qdb
{

std::string BuildArgNMatch(unsigned index, const std::string &value)
{
    return "arg" + std::to_string(index) + "='" + value + "',";
}

std::string BuildNameOwnerChangedMatch(const std::string &name)
{
    return "type='signal',sender='org.freedesktop.DBus',"
           "member='NameOwnerChanged'," +
           BuildArgNMatch(0, name) + BuildArgNMatch(1, "");
}

std::string BuildPropertiesChangedMatch(const std::string &interface)
{
    return "type='signal',member='PropertiesChanged',"
           "interface='org.freedesktop.DBus.Properties'," +
           BuildArgNMatch(0, interface);
}

std::array<MatchRule, 13> MatchRules()
{
    const auto &attributes = DBusObj_Notification_Map_Table;
    const auto changed = [](const char *interface)
    {
        return MatchRule{BuildPropertiesChangedMatch(interface),
                         properties_changed};
    };
    return {{
        {BuildNameOwnerChangedMatch(kConfigService), cfgmgr_name_owner_changed},
        {"type='signal',member='InterfacesAdded'", interfaces_added},
        {"type='signal',member='qdb_object_removed'", object_removed},
        changed(attributes[0].interfaceName),
        changed(attributes[1].interfaceName),
        changed(attributes[2].interfaceName),
        changed(attributes[3].interfaceName),
        changed("com.vexo.tarnu.Sensor.ProbeObj"),
        changed("com.vexo.tarnu.Sensor.FanExtObj"),
        changed("com.vexo.tarnu.Sensor.HvxStatusObj"),
        changed("com.vexo.tarnu.Sensor.IntrusionObj"),
        {"type='signal',member='qdb_bulk_commit'", bulk_commit},
        {"type='signal',member='RawDataUpdated'", raw_data_updated},
    }};
}

} // namespace qdb
