#include "busintake/handlers.h"

#include "busintake/translation.h"
#include "config/bus_rows.h"
#include "config/config_load.h"
#include "core/log.h"
#include "core/status.h"
#include "db/mapping.h"

#include <exception>
#include <map>
#include <stdexcept>

namespace qdb
{
namespace
{

using Properties = std::map<std::string, std::variant<uint32_t>>;
using Interfaces = std::map<std::string, Properties>;

// Runs a handler's body; what it throws ends here.
template <typename Body>
int Guarded(Body body)
{
    try
    {
        return body();
    }
    catch (const std::exception &exception)
    {
        QDB_LOG(kLogInvalid, "%s: EX: %s\n", exception.what());
        return kFailed;
    }
}

// A header field, which a message need not have. It lives as long as that.
const char *Field(const char *text)
{
    if (text == nullptr)
    {
        throw std::invalid_argument("a header field is missing");
    }
    return text;
}

// Makes the record of an object; `verb` is what the handler does to it.
int Notify(const sdbusplus::message_t &message, const char *interface,
           uint32_t oid, const char *handler, const char *verb)
{
    const char *member = Field(message.get_member());
    const char *path = Field(message.get_path());
    const int status =
        qdb_signal_notification_callback(interface, member, path, oid);
    if (status != 0)
    {
        QDB_LOG(kLogInvalid, "%s: %s: %s object failed: %s\n", handler, verb,
                path);
    }
    return status;
}

void AddInterface(const sdbusplus::message_t &message,
                  const std::string &interface, const Properties &properties)
{
    QDB_LOG(kLogTrace, "%s: %s: intf: %s\n", "interfaces_added",
            interface.c_str());
    const auto oid = properties.find("oid");
    if (oid == properties.end())
    {
        return;
    }
    const uint32_t value = std::get<uint32_t>(oid->second);
    QDB_LOG(kLogTrace, "%s: %s: oid: %d\n", "interfaces_added",
            StoredOid(value));
    // The record gets the path of the message, which is the object manager's.
    Notify(message, interface.c_str(), value, "interfaces_added", "add");
}

} // namespace

int properties_changed(sdbusplus::message_t &message)
{
    return Guarded(
        [&]
        {
            std::string interface;
            message.read(interface);
            QDB_LOG(kLogInvalid, "%s: %s: intf: %s\n", "properties_changed",
                    interface.c_str());
            return Notify(message, interface.c_str(), 0, "properties_changed",
                          "update");
        });
}

int object_removed(sdbusplus::message_t &message)
{
    return Guarded(
        [&]
        {
            uint32_t oid = 0;
            std::string unused;
            message.read(oid, unused);
            Notify(message, Field(message.get_interface()), oid,
                   "object_removed", "remove");
            return 0;
        });
}

int interfaces_added(sdbusplus::message_t &message)
{
    return Guarded(
        [&]
        {
            sdbusplus::message::object_path path;
            message.read(path);
            QDB_LOG(kLogTrace, "%s: %s: path: %s\n", "interfaces_added",
                    path.str.c_str());
            Interfaces interfaces;
            message.read(interfaces);
            for (const auto &[interface, properties] : interfaces)
            {
                AddInterface(message, interface, properties);
            }
            return 0;
        });
}

int bulk_commit(sdbusplus::message_t &message)
{
    return Guarded(
        [&]
        {
            const char *interface = Field(message.get_interface());
            if (FindBusRow(interface) == nullptr)
            {
                return OnLoadConfigObjectsCreation(interface, nullptr);
            }
            ConfigObjectList groups;
            if (groups.Fetch(kConfigGroup) != 0)
            {
                QDB_LOG(kLogError, "%s: Objects not found: CfgGroup 1\n");
                return ZO_STATUS_NO_SUCH_OBJECT;
            }
            return OnLoadConfigObjectsCreation(interface, &groups);
        });
}

int cfgmgr_name_owner_changed(sdbusplus::message_t &message)
{
    return Guarded(
        [&]
        {
            std::string name;
            message.read(name);
            return qdb_signal_cfgmgr_restart_callback(name.c_str());
        });
}

int raw_data_updated(sdbusplus::message_t &message)
{
    return Guarded(
        [&]
        {
            std::string key;
            std::string filePath;
            message.read(key, filePath);
            return HandleSignalRawDataUpdated(key.c_str(), filePath.c_str());
        });
}

} // namespace qdb
