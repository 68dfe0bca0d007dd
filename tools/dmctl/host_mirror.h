// Keeps the stand-in's objects equal to this machine's.
//
// Compares each look at the machine with the last and sends only differences:
// new objects, changed columns, removals, all of one look in one request.
#pragma once

#include "tools/dmctl/client.h"
#include "tools/dmctl/host.h"

#include <map>
#include <string>
#include <vector>

namespace qdb
{

class HostMirror
{
  public:
    // Removes what an earlier run has left behind. The client must outlive the
    // mirror. Throws what the client throws.
    explicit HostMirror(Client &client);

    // Brings the stand-in to the given state. Returns the stand-in's own words
    // for each operation that it refused; an object that could not be changed
    // is made anew by the next call. Throws what the client throws.
    std::vector<std::string> Update(const std::vector<HostObject> &objects);

  private:
    Client &mClient;
    std::map<uint32_t, Json> mKnown; // values by OID
};

} // namespace qdb
