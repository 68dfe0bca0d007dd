#include "tests/support/bus_sender.h"

#include <gtest/gtest.h>

#include <cstdarg>

namespace qdb::test
{
namespace
{

constexpr char kPath[] = "/com/vexo/tarnu/x";

sd_bus_message *NewSignal(sd_bus *bus, const char *path, const char *interface,
                          const char *member)
{
    sd_bus_message *message = nullptr;
    EXPECT_GE(sd_bus_message_new_signal(bus, &message, path, interface, member),
              0);
    return message;
}

void Send(sd_bus *bus, sd_bus_message *message)
{
    EXPECT_GE(sd_bus_send(bus, message, nullptr), 0);
    EXPECT_GE(sd_bus_flush(bus), 0);
    sd_bus_message_unref(message);
}

} // namespace

BusSender::BusSender()
{
    EXPECT_GE(sd_bus_open_system(&bus_), 0);
}

BusSender::~BusSender()
{
    sd_bus_message_unref(unsent_);
    sd_bus_flush_close_unref(bus_);
}

void BusSender::Emit(const char *path, const char *interface,
                     const char *member, const char *types, ...) const
{
    sd_bus_message *message = NewSignal(bus_, path, interface, member);
    va_list arguments;
    va_start(arguments, types);
    EXPECT_GE(sd_bus_message_appendv(message, types, arguments), 0);
    va_end(arguments);
    Send(bus_, message);
}

void BusSender::Call(const char *path, const char *interface,
                     const char *member) const
{
    sd_bus_message *message = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &message,
                                             "org.freedesktop.DBus", path,
                                             interface, member),
              0);
    Send(bus_, message);
}

sd_bus_message *BusSender::Unsent(const char *types, ...)
{
    sd_bus_message *message = NewSignal(bus_, kPath, "i.i", "m");
    va_list arguments;
    va_start(arguments, types);
    EXPECT_GE(sd_bus_message_appendv(message, types, arguments), 0);
    va_end(arguments);
    sd_bus_message_unref(unsent_);
    unsent_ = message;
    EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0);
    EXPECT_GE(sd_bus_message_rewind(message, 1), 0);
    return message;
}

void BusSender::Own(const char *name) const
{
    EXPECT_GE(sd_bus_request_name(bus_, name, 0), 0);
}

void BusSender::Disown(const char *name) const
{
    EXPECT_GE(sd_bus_release_name(bus_, name), 0);
}

} // namespace qdb::test
