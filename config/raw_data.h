// Files whose content becomes the value of a string attribute.
#pragma once

namespace qdb
{

// Imports the raw data directory. Called once by `main`, after population.
void OnLoadRawObjectsUpdate();

} // namespace qdb
