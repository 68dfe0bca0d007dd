#include "tests/support/bus_sender.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

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

std::string RandomText(std::mt19937 &engine)
{
    const char *const texts[] = {"", "oid", "com.vexo.tarnu.CfgMgr", "%s%n",
                                 "com.vexo.tarnu.Config.CfgIntAttribute"};
    const auto choice = engine() % 6;
    return choice < 5 ? texts[choice] : std::string(engine() % 3000, 'x');
}

// A complete type, nested at most `depth` deep.
std::string RandomType(std::mt19937 &engine, int depth)
{
    const auto one = [&]
    {
        return std::string(1, "ybnqiuxtdsog"[engine() % 12]);
    };
    switch (depth == 0 ? 0 : engine() % 7)
    {
    case 1:
        return "v";
    case 2:
        return "a" + RandomType(engine, depth - 1);
    case 3:
        return "a{" + one() + RandomType(engine, depth - 1) + "}";
    case 4:
        return "(" + RandomType(engine, depth - 1) + one() + ")";
    case 5:
        return "a{sa{sv}}";
    default:
        return one();
    }
}

size_t LengthOfFirst(const std::string &types)
{
    size_t at = 0;
    while (types[at] == 'a')
    {
        ++at;
    }
    int open = 0;
    do
    {
        open += types[at] == '(' || types[at] == '{' ? 1 : 0;
        open -= types[at] == ')' || types[at] == '}' ? 1 : 0;
        ++at;
    } while (open > 0);
    return at;
}

void AppendBasic(sd_bus_message *message, char type, std::mt19937 &engine)
{
    if (type == 's')
    {
        sd_bus_message_append_basic(message, type, RandomText(engine).c_str());
    }
    else if (type == 'o' || type == 'g')
    {
        sd_bus_message_append_basic(message, type,
                                    type == 'o' ? "/o" : "a{sv}");
    }
    else if (type == 'b')
    {
        const int value = static_cast<int>(engine() % 2);
        sd_bus_message_append_basic(message, type, &value);
    }
    else
    {
        const uint64_t value = uint64_t{engine()} << (engine() % 33);
        sd_bus_message_append_basic(message, type, &value);
    }
}

// Appends values of the types; every array has `length` elements.
void Append(sd_bus_message *message, std::string types, std::mt19937 &engine,
            int depth, size_t length)
{
    while (!types.empty())
    {
        const std::string first = types.substr(0, LengthOfFirst(types));
        types.erase(0, first.size());
        const std::string inner =
            first.size() < 3 ? "" : first.substr(1, first.size() - 2);
        switch (first[0])
        {
        case 'a':
            sd_bus_message_open_container(message, 'a', first.c_str() + 1);
            for (size_t i = 0; i < length; ++i)
            {
                Append(message, first.substr(1), engine, depth, length);
            }
            sd_bus_message_close_container(message);
            break;
        case 'v':
        {
            const std::string content =
                depth == 0 ? "u" : RandomType(engine, depth - 1);
            sd_bus_message_open_container(message, 'v', content.c_str());
            Append(message, content, engine, depth - 1, length);
            sd_bus_message_close_container(message);
            break;
        }
        case '(':
        case '{':
            sd_bus_message_open_container(message, first[0] == '(' ? 'r' : 'e',
                                          inner.c_str());
            Append(message, inner, engine, depth, length);
            sd_bus_message_close_container(message);
            break;
        default:
            AppendBasic(message, first[0], engine);
        }
    }
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

void BusSender::EmitRandom(const char *member, const char *interface,
                           std::mt19937 &engine) const
{
    const char *const likely[] = {"oa{sa{sv}}", "us", "sa{sv}as",
                                  "ss",         "o",  "u"};
    const bool resembles = engine() % 2 == 0;
    std::string types = resembles ? likely[engine() % 6] : "";
    for (size_t i = engine() % 4; i > 0 && (!resembles || i == 3); --i)
    {
        types += RandomType(engine, 3);
    }
    // PropertiesChanged has to have its first argument to be heard at all.
    const bool changed = std::string_view(member) == "PropertiesChanged";
    sd_bus_message *message = NewSignal(
        bus_, kPath, changed ? "org.freedesktop.DBus.Properties" : interface,
        member);
    if (changed)
    {
        sd_bus_message_append(message, "s", interface);
    }
    Append(message, types, engine, 3, engine() % 3);
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

sd_bus_message *BusSender::Empty(const char *types)
{
    sd_bus_message *message = NewSignal(bus_, kPath, "i.i", "m");
    std::mt19937 engine(1);
    Append(message, types, engine, 0, 0);
    return Seal(message);
}

sd_bus_message *BusSender::Unsent(const char *types, ...)
{
    sd_bus_message *message = NewSignal(bus_, kPath, "i.i", "m");
    va_list arguments;
    va_start(arguments, types);
    EXPECT_GE(sd_bus_message_appendv(message, types, arguments), 0);
    va_end(arguments);
    return Seal(message);
}

sd_bus_message *BusSender::Seal(sd_bus_message *message)
{
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
