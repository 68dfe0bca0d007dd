// All that the bus intake uses of sdbusplus; the one place to look at when the
// installed library takes the place of platform/sdbusplus/.
//
//   sdbusplus::bus::new_default_system()     this thread's own connection
//   sdbusplus::bus_t                         process_discard(), wait(uint64_t)
//   sdbusplus::bus::match_t                  (bus, rule, handler)
//   sdbusplus::message_t                     read(...), get_path(),
//                                            get_interface(), get_member()
//   sdbusplus::message::object_path          str
//   sdbusplus::exception::SdBusError         thrown by read() and
//                                            process_discard(); caught as
//                                            std::exception
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/bus/match.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
