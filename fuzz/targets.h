// The fuzz targets: what takes bytes from outside, and what each is held to.
//
// A target runs one input through real code, with the stand-in as platform and
// a database in memory, and leaves the process as it found it, so that an input
// does the same wherever it comes. Not thread-safe. It throws std::logic_error,
// which says what was expected, when the code breaks a promise; the sanitizers
// see the rest.
//
// To add a target: its function here and in a file of its own, its name in
// fuzz/meson.build and in tests/fuzz_test.cpp, its inputs in fuzz/corpus/NAME.
#pragma once

#include <cstdint>
#include <span>

namespace qdb::fuzz
{

using Bytes = std::span<const uint8_t>;

// Two objects of a row: created, refreshed and deleted. What is announced of
// them is what Jansson makes of their rows.
void RunObjects(Bytes input);

// Texts of rows: what is taken as plain is announced as Jansson does.
void RunRowText(Bytes input);

// Event records, and objects for them, through listener and worker.
void RunEvents(Bytes input);

// Signals of other services: bodies of any types, and bodies of any bytes
// behind a sound header.
void RunBusMessages(Bytes input);

// Keys and files of raw data: the row holds what the file does.
void RunRawData(Bytes input);

// The bytes of the telemetry pipe, as its reader cuts them.
void RunPipeRecords(Bytes input);

} // namespace qdb::fuzz
