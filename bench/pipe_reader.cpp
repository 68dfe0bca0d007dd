#include "bench/pipe_reader.h"

#include "bench/wait.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

// The pipe's; more than any burst of records while the reader has to wait.
constexpr int kPipeSize = 1 << 20;

constexpr char kFence[] = "||";

// Of "||database|table|rowid|operation||".
std::string TableOf(const std::string &record)
{
    const size_t begin = record.find('|', sizeof(kFence) - 1) + 1;
    return record.substr(begin, record.find('|', begin) - begin);
}

} // namespace

PipeReader::PipeReader(const std::string &path,
                       const std::set<std::string> &tables)
    : process_(
          [&]
          {
              Read(path, tables);
              return 1;
          })
{
    Await("the reader of " + path,
          [this]
          {
              return count_->open.load();
          });
}

// Opened for writing as well, so that the pipe never ends.
void PipeReader::Read(const std::string &path,
                      const std::set<std::string> &tables) const
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0 || fcntl(fd, F_SETPIPE_SZ, kPipeSize) < 0)
    {
        throw std::runtime_error("can't open " + path);
    }
    count_->open = true;
    std::string text;
    char block[65536];
    for (;;)
    {
        const ssize_t length = read(fd, block, sizeof(block));
        if (length < 0 && errno != EINTR)
        {
            throw std::runtime_error("can't read " + path);
        }
        text.append(block, static_cast<size_t>(length < 0 ? 0 : length));
        TakeRecords(tables, &text);
    }
}

// Leaves what isn't whole yet.
void PipeReader::TakeRecords(const std::set<std::string> &tables,
                             std::string *pText) const
{
    const int64_t now = Now();
    constexpr size_t kFenceSize = sizeof(kFence) - 1;
    size_t begin = 0;
    for (size_t end = pText->find(kFence, kFenceSize); end != std::string::npos;
         end = pText->find(kFence, begin + kFenceSize))
    {
        const std::string table = TableOf(pText->substr(begin, end - begin));
        begin = end + kFenceSize;
        count_->lastOfAll = now;
        ++count_->all;
        if (tables.contains(table))
        {
            count_->last = now;
            ++count_->ofTables;
        }
    }
    pText->erase(0, begin);
}

int64_t PipeReader::ExpectAny(uint64_t records)
{
    Await("the telemetry records",
          [&]
          {
              return count_->all >= records;
          });
    expected_ = count_->ofTables;
    return count_->lastOfAll;
}

int64_t PipeReader::Expect(uint64_t records)
{
    expected_ += records;
    Await("the telemetry records",
          [this]
          {
              return count_->ofTables >= expected_;
          });
    if (count_->ofTables > expected_)
    {
        throw std::runtime_error("more telemetry records than operations");
    }
    return count_->last;
}

} // namespace qdb::bench
