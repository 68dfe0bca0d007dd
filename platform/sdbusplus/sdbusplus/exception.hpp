// Errors of the bus. See bus.hpp for what this folder is.
#pragma once

#include <systemd/sd-bus.h>

#include <exception>
#include <string>

namespace sdbusplus::exception
{

// A call of sd-bus failed. what() is the call, and behind it sd-bus's name and
// text for the errno.
class SdBusError final : public std::exception
{
  public:
    SdBusError(int error, const char *call) : text_(call)
    {
        sd_bus_error description = {};
        sd_bus_error_set_errno(&description, error);
        text_ +=
            std::string(": ") + description.name + ": " + description.message;
        sd_bus_error_free(&description);
    }

    const char *what() const noexcept override
    {
        return text_.c_str();
    }

  private:
    std::string text_;
};

} // namespace sdbusplus::exception
