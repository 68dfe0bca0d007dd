// Raw data files as the texts that attributes hold.
//
// A path may name anything: only what has a size is opened, and opening never
// waits, so that neither a pipe nor a device can hold a thread. A file is read
// whole; twice its size is needed for one that is encoded.
#pragma once

#include "core/platform_ptr.h"

namespace qdb
{

// A text that readFile or EncodeBase64 made.
using RawText = std::unique_ptr<char, CFree>;

// Reads a file, as base64 if `encode`. Returns 0 and sets *ppBuffer to a text
// for free(); bytes that aren't encoded may hold zeros, and whoever takes them
// for a text sees those before the first. Returns 1, with *ppBuffer untouched,
// when the path can't be opened or has no bytes, when they are more than an int
// can count or memory can hold, or when they can't all be read.
int readFile(const char *path, char **ppBuffer, bool encode);

// The base64 text of `length` bytes for free(), with a newline after every 64
// characters and none at the end. NULL when there is nothing to encode or no
// memory.
char *EncodeBase64(const char *data, int length);

// The value that a file gives the attribute of a key: base64 if the key holds
// "AppRawData" in whatever case. *pValue stays NULL when the file can't be
// read. A path without a file, or an empty file, clears the value as well,
// except `onLoad`: then nothing is to be imported, and the result is false.
bool LoadRawValue(const char *filePath, const char *key, bool onLoad,
                  RawText *pValue);

} // namespace qdb
