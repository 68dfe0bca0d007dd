// Groups and attributes of the configuration manager.
#pragma once

#include <cstdint>
#include <string>

namespace standin
{

// The object type of an interface: "CfgGroup", "CfgIntAttribute" and so on,
// also with a bus name's prefix; 0 for any other name.
uint16_t ConfigType(const std::string &interfaceName);

// The object path of a group or an attribute.
std::string ConfigPath(const std::string &key);

// Remembers the value and brings the state file up to date.
void SetIntegerAttribute(const std::string &key, int value);

} // namespace standin
