// A database on a disk that is too small for it.

#include "tests/support/audited.h"
#include "tests/support/service_process.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

namespace qdb::test
{
namespace
{

// A file system in memory, of so many bytes, in a directory's place; for this
// process and its children alone.
class SmallDisk
{
  public:
    explicit SmallDisk(const std::string &directory) : directory_(directory)
    {
    }
    ~SmallDisk()
    {
        umount2(directory_.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    // 0, or the error.
    int Mount(uintmax_t bytes) const
    {
        static const bool isOwn =
            unshare(CLONE_NEWNS) == 0 &&
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        return isOwn && mount("tmpfs", directory_.c_str(), "tmpfs", 0,
                              Size(bytes).c_str()) == 0
                   ? 0
                   : errno;
    }

    void Grow(uintmax_t bytes) const
    {
        EXPECT_EQ(mount("tmpfs", directory_.c_str(), "tmpfs", MS_REMOUNT,
                        Size(bytes).c_str()),
                  0)
            << std::strerror(errno);
    }

  private:
    static std::string Size(uintmax_t bytes)
    {
        return "size=" + std::to_string(bytes);
    }

    std::string directory_;
};

audit::Report AuditOf(const ServiceProcess &service)
{
    const JsonPtr dump(
        json_loads(service.Command(R"({"op":"dump"})").c_str(), 0, nullptr));
    const ConnectionPtr database = OpenDatabase(service.Root().Database());
    sqlite3_busy_timeout(database.get(), kDeadlineMs);
    return audit::Compare(audit::ParseContent(dump.get()),
                          audit::ReadSnapshot(database.get()));
}

// What happens on a disk with room for four pages more than the empty database.
// Without a journal, a statement that finds no room can't be undone: the file
// is torn, and the service ends as with any corrupt one, to be started with a
// new file.
struct Filling
{
    const char *name;
    int begin; // memory modules and probes, each, that are there at the start
    int more;  // objects that come later
    int status;
};
constexpr Filling kFillings[] = {
    {"at work", 20, 300, 0},
    {"population", 400, 0, 1},
};

void Work(const ServiceProcess &service, int more)
{
    EXPECT_TRUE(service.WaitReady());
    EXPECT_EQ(audit::Summary(AuditOf(service)).substr(0, 14), "0 differences ");
    service.Command(R"({"op":"generate","count":)" + std::to_string(more) +
                    "}");
}

TEST(FullDisk, CostsNothingThatANewStartDoesNotBringBack)
{
    constexpr size_t kRoom = 4 * 4096;
    constexpr size_t kEnough = 64 << 20;
    for (const Filling &filling : kFillings)
    {
        SCOPED_TRACE(filling.name);
        ServiceProcess service({.scenario = Server(filling.begin)});
        const std::filesystem::path path = service.Root().Database();
        const SmallDisk disk(path.parent_path());
        if (const int error = disk.Mount(file_size(path) + kRoom))
        {
            GTEST_SKIP() << "no file system can be mounted: "
                         << std::strerror(error);
        }
        service.Root().MakeDatabase();
        service.Start();
        if (filling.more > 0)
        {
            Work(service, filling.more);
        }
        EXPECT_EQ(service.WaitExit(), filling.status);
        EXPECT_EQ(service.ReadyAttribute(), 0);
        const std::string log = service.Log();
        const size_t at = log.find("retval = 13");
        EXPECT_NE(log.find("retval = 11", at), std::string::npos);

        disk.Grow(kEnough);
        service.Root().MakeDatabase();
        service.Start();
        Work(service, filling.more);
        service.Command(R"({"op":"wait"})");
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return AuditOf(service).differences.empty();
            }));
        EXPECT_EQ(service.Stop(), 0);
    }
}

} // namespace
} // namespace qdb::test
