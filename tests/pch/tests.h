// Precompiled for all tests: headers that most of them need and none changes.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>
