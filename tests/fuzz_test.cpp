// The fuzz targets on their corpora: all inputs that were ever of interest,
// with those that once broke something.
#include "fuzz/targets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qdb::fuzz
{
namespace
{

const struct Target
{
    const char *name; // its folder's, too
    void (*run)(Bytes input);
} kTargets[] = {
    {"bus_messages", RunBusMessages}, {"events", RunEvents},
    {"objects", RunObjects},          {"pipe_records", RunPipeRecords},
    {"raw_data", RunRawData},         {"row_text", RunRowText},
};

std::vector<std::filesystem::path> FilesOf(const Target &target)
{
    const char *source = std::getenv("QDB_TEST_SOURCE");
    const std::filesystem::path folder =
        std::filesystem::path(source == nullptr ? "." : source) /
        "fuzz/corpus" / target.name;
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
    {
        files.push_back(entry.path());
    }
    std::ranges::sort(files);
    return files;
}

void Replay(const Target &target, const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> input{std::istreambuf_iterator<char>(file),
                                     std::istreambuf_iterator<char>()};
    try
    {
        target.run(input);
    }
    catch (const std::exception &broken)
    {
        ADD_FAILURE() << path << ": " << broken.what();
    }
}

class Corpus : public testing::TestWithParam<Target>
{
};

TEST_P(Corpus, KeepsEachPromise)
{
    const std::vector<std::filesystem::path> files = FilesOf(GetParam());
    EXPECT_GT(files.size(), 10u);
    for (const std::filesystem::path &file : files)
    {
        Replay(GetParam(), file);
    }
}

std::string NameOf(const testing::TestParamInfo<Target> &target)
{
    return target.param.name;
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Corpus, testing::ValuesIn(kTargets), NameOf);

} // namespace
} // namespace qdb::fuzz
