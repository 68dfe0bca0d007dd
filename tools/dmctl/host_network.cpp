// Network interfaces: their addresses, and their counters.
#include "objects/schema/network_tables.h"
#include "tools/dmctl/host_objects.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

namespace qdb
{

namespace
{

using Addresses = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

Addresses ReadAddresses()
{
    ifaddrs *list = nullptr;
    return {getifaddrs(&list) == 0 ? list : nullptr, freeifaddrs};
}

std::string IPv4Text(const sockaddr *address)
{
    sockaddr_in internet;
    memcpy(&internet, address, sizeof(internet));
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &internet.sin_addr, text, sizeof(text));
    return text;
}

Json IPv4Record(const ifaddrs &entry)
{
    Json record(json_object());
    Put(record, "ipAddr", Text(IPv4Text(entry.ifa_addr)));
    if (entry.ifa_netmask != nullptr)
    {
        Put(record, "subnetMask", Text(IPv4Text(entry.ifa_netmask)));
    }
    return record;
}

unsigned PrefixLength(const in6_addr &mask)
{
    unsigned length = 0;
    for (const uint8_t byte : mask.s6_addr)
    {
        length += static_cast<unsigned>(__builtin_popcount(byte));
    }
    return length;
}

// The kernel's numbers: global, link and host.
unsigned Scope(const in6_addr &address)
{
    return IN6_IS_ADDR_LOOPBACK(&address)    ? 0x10
           : IN6_IS_ADDR_LINKLOCAL(&address) ? 0x20
                                             : 0;
}

Json IPv6Record(const ifaddrs &entry)
{
    sockaddr_in6 address;
    memcpy(&address, entry.ifa_addr, sizeof(address));
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof(text));
    Json record(json_object());
    Put(record, "ipAddr", Text(text));
    Put(record, "scope", Number(Scope(address.sin6_addr)));
    if (entry.ifa_netmask != nullptr)
    {
        sockaddr_in6 mask;
        memcpy(&mask, entry.ifa_netmask, sizeof(mask));
        Put(record, "prefixLen", Number(PrefixLength(mask.sin6_addr)));
    }
    return record;
}

// The interface's addresses of one family, in the kernel's order.
Json AddressArray(const ifaddrs *list, const std::string &interface, int family)
{
    Json array(json_array());
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        if (entry->ifa_addr == nullptr || interface != entry->ifa_name ||
            entry->ifa_addr->sa_family != family)
        {
            continue;
        }
        Append(array,
               family == AF_INET ? IPv4Record(*entry) : IPv6Record(*entry));
    }
    return array;
}

// The default gateways in /proc/net/route, whose lines hold interface,
// destination and gateway; addresses are hexadecimal words as in memory.
Json GatewayArray(const HostFiles &files, const std::string &interface)
{
    Json array(json_array());
    for (const std::string &line :
         Lines(files.Text("/proc/net/route").value_or("")))
    {
        const std::vector<std::string> words = Words(line);
        if (words.size() < 3 || words[0] != interface || words[1] != "00000000")
        {
            continue;
        }
        const int64_t word = ParseNumber(words[2], 16).value_or(0);
        if (word != 0)
        {
            const in_addr address = {static_cast<in_addr_t>(word)};
            char text[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &address, text, sizeof(text));
            Append(array, Text(text));
        }
    }
    return array;
}

// Loopback and the like have no carrier to report and count as up.
bool IsUp(const HostFiles &files, const std::string &path)
{
    const std::string state = files.Text(path + "operstate").value_or("");
    const int64_t flags = files.Number(path + "flags", 16).value_or(0);
    return state == "up" || (state == "unknown" && (flags & IFF_UP) != 0);
}

void AddInterface(HostView &view, const std::string &name,
                  const ifaddrs *addresses)
{
    const std::string path = "/sys/class/net/" + name + "/";
    const std::string fqdd = "Host.NIC." + name;
    HostValues values(kTblOSLogicalNetworkIntfObj);
    values.Text("RootObjectKey", HostKey(0x1200, fqdd));
    values.Text("ifName", name);
    values.Text("ifDescription", view.Files().Text(path + "ifalias"));
    values.Text("macAddrStr", view.Files().Text(path + "address"));
    values.Number("ifStatus", IsUp(view.Files(), path));
    values.Array("IpV4Address", AddressArray(addresses, name, AF_INET));
    values.Array("IpV6Address", AddressArray(addresses, name, AF_INET6));
    values.Array("GatewayAddress", GatewayArray(view.Files(), name));
    view.Add(HostKind::Interface, name, 0x1200, fqdd, values);
}

struct Counter
{
    const char *column;
    const char *file;
};

constexpr Counter kCounters[] = {
    {"ReceiveTotalBytes", "rx_bytes"},
    {"ReceiveTotalUnicast", "rx_packets"},
    {"ReceiveTotalMutlicast", "multicast"},
    {"ReceiveErrorPktFCSErrors", "rx_crc_errors"},
    {"ReceiveErrorPktAlignmentErrors", "rx_frame_errors"},
    {"DiscardedPkts", "rx_dropped"},
    {"TransmitTotalBytes", "tx_bytes"},
    {"TransmitTotalUnicast", "tx_packets"},
    {"TransmitErrorPktMultipleCollision", "collisions"},
};

void AddCounters(HostView &view, const std::string &name)
{
    const std::string path = "/sys/class/net/" + name + "/";
    const std::string fqdd = "Host.NIC." + name;
    HostValues values(kTblNic_Port_Stats_Obj);
    values.Text("hdr_DOT_key", HostKey(0x711, fqdd));
    values.Text("hdr_DOT_fqdd", fqdd);
    values.Text("hdr_DOT_ObjName", name);
    values.Number("LinkStatus", IsUp(view.Files(), path));
    for (const Counter &counter : kCounters)
    {
        values.Number(counter.column,
                      view.Files().Number(path + "statistics/" + counter.file));
    }
    view.Add(HostKind::Counters, name, 0x711, fqdd, values);
}

} // namespace

void CollectInterfaces(HostView &view)
{
    const Addresses addresses = ReadAddresses();
    for (const std::string &name : view.Files().List("/sys/class/net"))
    {
        AddInterface(view, name, addresses.get());
        AddCounters(view, name);
    }
}

} // namespace qdb
