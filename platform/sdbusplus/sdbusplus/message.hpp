// Messages and the reading of their bodies. See bus.hpp for what this folder
// is.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <sdbusplus/exception.hpp>
#include <string>
#include <utility>
#include <variant>

namespace sdbusplus::message
{

// An object path; another type than a text on the bus.
struct object_path
{
    std::string str;
};

namespace details
{

// Throws when a call of sd-bus returned an error; its result otherwise.
inline int Check(int result, const char *call)
{
    if (result < 0)
    {
        throw exception::SdBusError(-result, call);
    }
    return result;
}

inline std::string ReadText(sd_bus_message *message, char type)
{
    const char *text = nullptr;
    Check(sd_bus_message_read_basic(message, type, &text),
          "sd_bus_message_read_basic string");
    return text == nullptr ? "" : text;
}

// The type of a value as the bus spells it; only the pointer's type counts.
inline std::string Signature(const std::string * /*type*/)
{
    return "s";
}

inline std::string Signature(const uint32_t * /*type*/)
{
    return "u";
}

template <typename T>
std::string Signature(const std::variant<T> * /*type*/)
{
    return "v";
}

template <typename Value>
std::string Signature(const std::map<std::string, Value> * /*type*/)
{
    return std::string("a{s")
        .append(Signature(static_cast<const Value *>(nullptr)))
        .append("}");
}

inline void Read(sd_bus_message *message, std::string &value)
{
    value = ReadText(message, SD_BUS_TYPE_STRING);
}

inline void Read(sd_bus_message *message, object_path &value)
{
    value.str = ReadText(message, SD_BUS_TYPE_OBJECT_PATH);
}

inline void Read(sd_bus_message *message, uint32_t &value)
{
    Check(sd_bus_message_read_basic(message, SD_BUS_TYPE_UINT32, &value),
          "sd_bus_message_read_basic fundamental");
}

// A variant of another type than T leaves the value as it was.
template <typename T>
void Read(sd_bus_message *message, std::variant<T> &value)
{
    T content = {};
    const std::string type = Signature(&content);
    if (Check(sd_bus_message_verify_type(message, SD_BUS_TYPE_VARIANT,
                                         type.c_str()),
              "sd_bus_message_verify_type variant") == 0)
    {
        Check(sd_bus_message_skip(message, "v"), "sd_bus_message_skip variant");
        return;
    }
    Check(sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT,
                                         type.c_str()),
          "sd_bus_message_enter_container variant");
    Read(message, content);
    value = std::move(content);
    Check(sd_bus_message_exit_container(message),
          "sd_bus_message_exit_container variant");
}

// The first of two entries with one key counts.
template <typename Value>
void Read(sd_bus_message *message, std::map<std::string, Value> &values)
{
    const std::string element = Signature(&values).substr(1);
    const std::string entry = element.substr(1, element.size() - 2);
    Check(sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY,
                                         element.c_str()),
          "sd_bus_message_enter_container emplace_container");
    while (Check(sd_bus_message_at_end(message, 0),
                 "sd_bus_message_at_end emplace_container") == 0)
    {
        std::pair<std::string, Value> pair;
        Check(sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY,
                                             entry.c_str()),
              "sd_bus_message_enter_container pair");
        Read(message, pair.first);
        Read(message, pair.second);
        Check(sd_bus_message_exit_container(message),
              "sd_bus_message_exit_container pair");
        values.insert(std::move(pair));
    }
    Check(sd_bus_message_exit_container(message),
          "sd_bus_message_exit_container emplace_container");
}

} // namespace details

// A reference to a message.
class message
{
  public:
    explicit message(sd_bus_message *borrowed)
        : message_(sd_bus_message_ref(borrowed))
    {
    }
    ~message()
    {
        sd_bus_message_unref(message_);
    }
    message(const message &) = delete;
    message &operator=(const message &) = delete;

    // Reads the next values of the body: texts, uint32s, object paths,
    // variants of one of these, and maps from texts to any of them. Throws
    // SdBusError at the first that isn't there or has another type.
    template <typename... Values>
    void read(Values &...values)
    {
        (details::Read(message_, values), ...);
    }

    // Header fields; NULL when the message has none.
    const char *get_path() const
    {
        return sd_bus_message_get_path(message_);
    }
    const char *get_interface() const
    {
        return sd_bus_message_get_interface(message_);
    }
    const char *get_member() const
    {
        return sd_bus_message_get_member(message_);
    }

  private:
    sd_bus_message *message_;
};

} // namespace sdbusplus::message

namespace sdbusplus
{
using message_t = message::message;
} // namespace sdbusplus
