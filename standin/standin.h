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
//   QDB_STANDIN_SCENARIO  JSON file whose objects, attributes, faults and
//                         delays exist at first
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

#include <climits>
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
    std::vector<uint32_t> parents = {};
    json_t *values = nullptr; // borrowed; NULL: none
    std::string key = {};     // "": the type's Key column, else made from OID
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

// An ObjList record (types 3, 7, 8) for the given OIDs. Returns when it may be
// delivered, in nanoseconds of the steady clock.
int64_t SendObjectList(uint16_t eventType, std::span<const uint32_t> oids);

// A record of its own for each object, each when it is due. Returns when the
// last has been delivered; *pDelivered gets the times at which the listener was
// called, in nanoseconds of the steady clock. An error when nobody listens.
Error AnnounceAtRate(uint16_t eventType, std::span<const uint32_t> oids,
                     double perSecond, std::vector<int64_t> *pDelivered);

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

// --- Delays --------------------------------------------------------------

// For microseconds: until the delay is removed.
inline constexpr unsigned kHang = UINT_MAX;

struct Delay
{
    unsigned microseconds = 0;
    bool random = false; // 0 to `microseconds`, each as likely
    bool late = false;   // sleep with the answer in hand, else before it
    uint32_t oid = 0;    // only calls about that object; 0: all
    int skip = 0;        // after so many calls that don't sleep
    int times = -1;      // so many calls; -1: all
    // For vexoprintf: only lines whose format has it, or whose first thousand
    // characters as they are written; lines that the level drops, too.
    std::string text = {};
};

// Lets calls of a platform function sleep on the thread that calls. A function
// may have several delays: one per oid, late and text, which takes the place
// of an earlier one; microseconds 0 removes it. A call that several are meant
// for sleeps for the sum.
Error SetDelay(const std::string &call, const Delay &delay);

// Removes all delays: what hangs goes on.
void ReleaseDelays();

// How many calls of a platform function hang now.
int HangingCalls(const std::string &call);

// --- Cost ----------------------------------------------------------------

// Begins or ends to measure what object calls cost: Cfg..._get_object,
// client_get_obj..., ZOILGetObj..., ZOILList..., ZOILDOGetObjKeyUTF8. To be
// called while no event is delivered.
void MeasureCost(bool isOn);

// Sums that never go back: what a workload cost is the difference of two. All
// but the first are parts of the process's processor time that aren't its own.
struct CallCost
{
    uint64_t calls = 0;           // that were measured
    int64_t cpuNanoseconds = 0;   // in them
    int64_t clockNanoseconds = 0; // in the measuring of them
    // In the stand-in's own threads (events, control socket), but for the
    // listener's callbacks while the cost is measured.
    int64_t ownThreadNanoseconds = 0;
};
CallCost Cost();

// --- Log -----------------------------------------------------------------

// Gets every line that passes the level, formatted, on the thread that logs,
// with whatever newline its format has. NULL: standard error, where each line
// ends in one newline. Level 0 drops all lines before they are formatted.
using LogSink = void (*)(int level, const char *line);
void SetLog(int level, LogSink sink);

// Forgets all objects, attributes, faults, delays, counts and queued events;
// for the next test. The listener stays registered, unless it was removed.
void Reset();

} // namespace standin
