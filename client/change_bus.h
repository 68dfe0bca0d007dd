// The service's signals, and whether one is missing.
//
// Nothing but change signals leaves on the service's connection, so that the
// serials of its messages follow each other: a gap is a loss. A new sender is a
// new life of the service.
#pragma once

#include "client/follower.h"

#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

namespace qdb::client
{

class ChangeBus
{
  public:
    // "": the system bus.
    explicit ChangeBus(std::string address);

    // Begins to connect and to subscribe, unless that is under way or done.
    // False when the bus can't be reached.
    bool Connect();

    // Takes what has come, at most so many messages. False when the bus is
    // gone; *pIsMore: there may be more to take.
    bool Process(int most, bool *pIsMore);

    // Subscribed: from here on nothing is missed unnoticed.
    bool IsSubscribed() const
    {
        return isSubscribed_;
    }

    // The signals since the last call.
    std::vector<RawSignal> TakeSignals();

    // What went wrong with them since the last call, as a qdb_reason; 0:
    // nothing.
    int TakeReason();

    // Who sent the last signal is still there.
    bool IsServiceHere() const
    {
        return !sender_.empty() && !isServiceGone_;
    }

    // Who sent the last signal has left, and no other has spoken.
    bool IsServiceGone() const
    {
        return isServiceGone_;
    }

    // To be called now and then. Asks the bus whether who sent the last signal
    // is still there, once it has been silent for so long: its leaving may have
    // been dropped with what a slow reader had no room for.
    void CheckService();

    // As if none had ever spoken.
    void ForgetService();

    // For epoll: -1 without a connection; what to wait for (EPOLLIN, EPOLLOUT);
    // until when, in microseconds of the monotonic clock, UINT64_MAX: for ever.
    int Descriptor() const;
    uint32_t Events() const;
    uint64_t Deadline() const;

  private:
    struct Close
    {
        void operator()(sd_bus *bus) const
        {
            sd_bus_close_unref(bus);
        }
    };

    static int OnChange(sd_bus_message *message, void *self, sd_bus_error *);
    static int OnSubscribed(sd_bus_message *reply, void *self, sd_bus_error *);
    static int OnOwner(sd_bus_message *message, void *self, sd_bus_error *);
    static int OnHasOwner(sd_bus_message *reply, void *self, sd_bus_error *);
    void Take(sd_bus_message *message, SignalKind kind);
    void NoteSender(const char *sender, uint64_t serial);
    bool Subscribe();

    const std::string address_;
    std::unique_ptr<sd_bus, Close> bus_;
    bool isSubscribed_ = false;
    bool isServiceGone_ = false;
    std::string sender_; // of the last signal; "": none yet
    uint64_t serial_ = 0;
    bool hasSpoken_ = false; // since the last check
    bool isUnchecked_ = false;
    std::string asked_; // the sender that the bus was asked about
    int reason_ = 0;
    std::vector<RawSignal> signals_;
};

} // namespace qdb::client
