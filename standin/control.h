// The control socket.
#pragma once

namespace standin
{

// Serves commands at a Unix stream socket, each client on a thread of its own:
// a JSON object per line in, one per line out, until the client closes or
// sends a line of more than 16 MiB. Takes the place of a socket that an
// earlier process left behind. Tells on standard error when it can't.
void ServeControl(const char *path);

} // namespace standin
