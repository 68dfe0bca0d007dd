// Repeating what the database refused.
#pragma once

namespace qdb
{

// Takes as many nodes off the fail queue as its count says, which leaves the
// newest, and repeats the operation of each once. An object that the Data
// Manager no longer has is forgotten; a repetition that fails comes back only
// if its handler puts it on the queue again. Runs on the NC thread alone, with
// no lock held.
void DrainFailQueue();

} // namespace qdb
