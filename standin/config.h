// Groups and attributes of the configuration manager.
#pragma once

#include "standin/support.h"

#include <cstdint>
#include <string>

namespace standin
{

// The object type of an interface: "CfgGroup", "CfgIntAttribute" and so on,
// also with a bus name's prefix; 0 for any other name.
uint16_t ConfigType(const std::string &interfaceName);

// The groups and attributes whose keys begin with `prefix`, by key, a group
// before an attribute of the same key: an array of {"interface", "oid", "key",
// "path"}, with the "values" of an attribute.
Json DescribeConfig(const std::string &prefix);

// Remembers the value and brings the state file up to date.
void SetIntegerAttribute(const std::string &key, int value);

} // namespace standin
