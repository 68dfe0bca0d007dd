// The floor: what SQLite, Jansson and sd-bus alone cost.
//
// One thread makes the calls that an operation can't do without, with nothing
// around them: no locks, no log, no queue, no telemetry, no Data Manager. The
// statements are the service's, in the service's order, each made on its own;
// all are prepared once. This is the yardstick: a way to make the service
// faster doesn't belong here.
#pragma once

#include "bench/scratch.h"
#include "bench/subscriber.h"
#include "bench/workload.h"
#include "core/json.h"
#include "db/statement.h"
#include "objects/object_view.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <span>

namespace qdb::bench
{

class Floor
{
  public:
    // The subscriber outlives the floor. Throws std::runtime_error when the
    // database or the bus can't be had. Not while a Service lives.
    explicit Floor(Subscriber &subscriber);

    // Runs the operation on each of the stand-in's objects in turn, and
    // measures to the arrival of the last signal; without signals, to the end
    // of the last call. The objects are fetched before. Throws
    // std::runtime_error when a call fails or a signal is lost.
    Outcome Run(Operation operation, std::span<const uint32_t> oids);

  private:
    struct CloseBus
    {
        void operator()(sd_bus *bus) const
        {
            sd_bus_flush_close_unref(bus);
        }
    };

    // `object` isn't looked at for a delete.
    void RunOne(Operation operation, uint32_t oid, const DataObjHeader *object);
    void Create(uint32_t oid, const ObjectView &object);
    void Refresh(uint32_t oid, const ObjectView &object);
    void Delete(uint32_t oid);

    void LookUpType(uint32_t oid);
    void InsertRow(const ObjectView &object);
    void UpdateRow(uint32_t oid, const ObjectView &object);
    JsonPtr ReadRow(uint32_t oid);
    void TouchTag();

    // `changed` is NULL for a row that came or went.
    void Announce(int kind, JsonPtr row, JsonPtr changed);
    void Send(int kind, const char *text);

    Subscriber &subscriber_;
    Scratch scratch_; // before the statements, which it outlives
    const ObjTypeRow &row_;
    StatementPtr typeOf_;
    StatementPtr map_;
    StatementPtr insert_;
    StatementPtr update_;
    StatementPtr select_;
    StatementPtr touchTag_;
    StatementPtr linkParent_;
    StatementPtr unmap_;
    std::unique_ptr<sd_bus, CloseBus> bus_;
};

} // namespace qdb::bench
