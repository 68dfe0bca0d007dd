// What the signal thread listens to: thirteen rules and their handlers.
//
// Only the first rule names a sender and none a path: whoever announces an
// object is heard, and the interface is judged when the record is handled.
#pragma once

#include "busintake/bus_api.h"

#include <array>
#include <string>

namespace qdb
{

// "arg<index>='<value>',", "arg" being an argument of the signal.
std::string BuildArgNMatch(unsigned index, const std::string &value);

// A name that had no owner gets one; its departure doesn't match.
std::string BuildNameOwnerChangedMatch(const std::string &name);

// PropertiesChanged of an interface.
std::string BuildPropertiesChangedMatch(const std::string &interface);

struct MatchRule
{
    std::string rule;
    int (*handler)(sdbusplus::message_t &message);
};

// In the order in which the matches are made.
std::array<MatchRule, 13> MatchRules();

} // namespace qdb
