// In-process control of the stand-in platform.
//
// The stand-in takes the place of the four closed libraries on a plain Linux
// machine. It keeps a Data Manager's objects and a configuration manager's
// groups and attributes in memory, answers the platform calls from them, and
// delivers events on a thread of its own, one at a time and in order. Tests
// drive it with the functions below; dmctl sends the same commands over the
// control socket. The service itself never includes this header.
//
// Nothing runs and nothing is opened before the first platform call or the
// first call of this header. Environment, read then:
//   QDB_STANDIN_SCENARIO  JSON file whose objects, attributes and faults exist
//                         at first
//   QDB_STANDIN_SOCKET    path of the control socket to serve
//   QDB_STANDIN_LOG       highest log level to print on standard error; 0: none
//   QDB_STANDIN_STATE     file that always holds the integer attributes set by
//                         CfgSetAttributeInt, as one JSON object
//
// All functions are safe on any thread. Values are JSON objects by column name
// and stay the caller's; a name that the type's table lacks is an error. Column
// values are integers, reals, texts or null; an array property is an array of
// integers or of objects by the side table's column names; a joined list
// (DNSServer, possible_value_ ...) is an array of texts.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace standin
{

// The OID of the root object, parent of every object for lists by type.
inline constexpr uint32_t kRootOid = 1;

// What went wrong with a command, in words for its user; empty on success.
using Error = std::string;

// --- Objects -------------------------------------------------------------

struct ObjectSpec
{
    uint16_t type = 0;
    uint32_t oid = 0; // 0: the next free one
    std::vector<uint32_t> parents;
    json_t *values = nullptr; // borrowed; NULL: none
    std::string key;          // "": the type's Key column, else made from OID
};

// Adds an object and, if `announce`, sends its create event. *pOid gets the
// OID when pOid isn't NULL.
Error CreateObject(const ObjectSpec &spec, bool announce = true,
                   uint32_t *pOid = nullptr);

// Replaces the given columns and, if `announce`, sends a dirty list event.
Error SetObject(uint32_t oid, json_t *values, bool announce = true);

// Removes the objects and, if `announce`, sends one destroy event for them.
Error DeleteObjects(std::span<const uint32_t> oids, bool announce = true);

// Sets objStatus and, if `announce`, sends a status change event (type 4).
Error SetStatus(uint32_t oid, uint8_t status, bool announce = true);

// Stores bytes as an object of their own, whatever they hold, in place of one
// with the same objID, which is taken from them. For malformed objects: objSize
// need not be their number, callers of the platform get a block of at least
// objSize, the bytes given and zeros behind them.
Error PutRawObject(std::span<const uint8_t> bytes,
                   std::span<const uint32_t> parents = {});

// The object as ZOILGetObjByOID would give it; empty when there is none.
std::vector<uint8_t> ObjectBytes(uint32_t oid);
std::vector<uint32_t> ObjectIds();

// Objects of the given types (all types of the Data Manager when empty), taken
// in turn, with plausible contents, `count` in all. The contents follow from
// the OID alone; objects of a type with two tables take turns between them.
Error GenerateObjects(size_t count, std::span<const uint16_t> types,
                      bool announce = true);

// `count` dirty list events, each changing one column of one live object of
// the given types (all when empty), at most `perSecond` a second (0: as fast
// as the listener takes them). Returns when the last has been delivered; an
// error when there is no such object or nobody listens (any more).
Error Churn(size_t count, double perSecond, std::span<const uint16_t> types);

// --- Events --------------------------------------------------------------

// Records wait while no listener is registered.

// Queues a record as it is. evtSize need not be its real size: the listener
// gets a block of at least that size, the bytes given and zeros behind them.
void SendRecord(std::span<const uint8_t> record);

// An ObjList record (types 3, 7, 8) for the given OIDs.
void SendObjectList(uint16_t eventType, std::span<const uint32_t> oids);

// Makes the Data Manager not ready and sends event 12; makes it ready and
// sends create events for all objects, at most 4,000 in a record.
void Detach();
void Attach();

// Waits until every queued event has been delivered and its callback has
// returned; false when `timeoutMs` has passed first.
bool WaitDelivered(int timeoutMs);

// --- Configuration -------------------------------------------------------

// interfaceName is "CfgIntAttribute", "CfgStrAttribute", "CfgEnumAttribute" or
// "CfgPasswdAttribute". The key "A.1#B.1#C" belongs to the group "A.1#B.1",
// which is made when it isn't there, and has the path
// "/com/vexo/tarnu/Config/Attributes/a_1/b_1/c". Of an attribute that exists
// only the given columns change. Sends no signal.
Error PutAttribute(const std::string &interfaceName, const std::string &key,
                   json_t *values, uint32_t oid = 0);
Error RemoveAttribute(const std::string &key);
std::string AttributePath(const std::string &key);

// A group of its own, with the next free OID when `oid` is 0. One that exists
// already is an error, and so is the removal of one that has attributes. The
// group of a removed attribute stays.
Error PutGroup(const std::string &key, uint32_t oid = 0);
Error RemoveGroup(const std::string &key);

// The last value that CfgSetAttributeInt was given for a key; `otherwise` when
// it never was.
int IntegerAttribute(const std::string &key, int otherwise);

// --- Faults --------------------------------------------------------------

// The next `times` calls of the platform function `call`, after `skip` calls
// that work, fail: with `status` where the function returns an int, with NULL
// where it returns a pointer. times 0 removes the fault.
Error SetFault(const std::string &call, int status, int times, int skip = 0);

// How often a platform function has been called; vexoprintf counts the lines
// that pass the level alone.
uint64_t CallCount(const std::string &call);

// --- Log -----------------------------------------------------------------

// Gets every line that passes the level, formatted, on the thread that logs,
// with whatever newline its format has. NULL: standard error, where each line
// ends in one newline. Level 0 drops all lines before they are formatted.
using LogSink = void (*)(int level, const char *line);
void SetLog(int level, LogSink sink);

// Forgets all objects, attributes, faults, counts and queued events; for the
// next test. The listener stays registered, unless it was removed.
void Reset();

} // namespace standin
