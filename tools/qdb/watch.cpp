// qdb watch: shows changes as they happen, until SIGINT, SIGTERM or the end of
// whoever reads them.
#include "core/descriptor.h"
#include "tools/qdb/command.h"
#include "tools/qdb/value.h"
#include "tools/qdb/watcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <vector>

namespace qdb::tool
{
namespace
{

struct Options
{
    std::string database;
    std::string bus;
    std::vector<std::string> tables;
    bool isAll = false;
    bool isJson = false;
    std::string pipe; // "": none
};

Failure SystemError(const std::string &what)
{
    return Failure(what + ": " + std::strerror(errno));
}

// Local time of day with milliseconds.
std::string ClockText()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    localtime_r(&now.tv_sec, &parts);
    std::array<char, 16> text;
    const size_t length =
        std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03d",
                  static_cast<int>(now.tv_nsec / 1'000'000));
    return text.data();
}

// --- The library's callbacks; `user` is the Watcher ------------------------

void OnRow(void *user, const qdb_row *row)
{
    static_cast<Watcher *>(user)->OnRow(qdb_row_table(row), qdb_row_oid(row),
                                        qdb_row_key(row), RowValue(row),
                                        ClockText());
}

void OnChange(void *user, const qdb_change *change)
{
    OnRow(user, qdb_change_row(change));
}

void OnRemoved(void *user, const qdb_row *row)
{
    static_cast<Watcher *>(user)->OnRemoved(qdb_row_table(row),
                                            qdb_row_oid(row), ClockText());
}

void OnReady(void *user, int isReady)
{
    static_cast<Watcher *>(user)->OnReady(isReady == 1);
}

void OnResynced(void *user, qdb_reason reason, size_t added, size_t changed,
                size_t removed)
{
    static_cast<Watcher *>(user)->OnResynced(reason, added, changed, removed,
                                             ClockText());
}

// --- Descriptors -----------------------------------------------------------

// Readable when SIGINT or SIGTERM has come.
int OpenSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    return fd >= 0 ? fd : throw SystemError("signals");
}

// The reading end of the pipe, made if it isn't there. Reads don't block and
// never see an end, however the writers come and go: with this process as a
// writer, too, the pipe never ends.
int OpenPipe(const std::string &path)
{
    struct stat file = {};
    if (mkfifo(path.c_str(), 0660) != 0 && errno != EEXIST)
    {
        throw SystemError(path);
    }
    if (stat(path.c_str(), &file) == 0 && !S_ISFIFO(file.st_mode))
    {
        throw Failure(path + ": not a named pipe");
    }
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return fd >= 0 ? fd : throw SystemError(path);
}

void ReadPipe(int fd, Watcher &watcher)
{
    std::array<char, 4096> buffer;
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count > 0)
    {
        watcher.OnPipe({buffer.data(), static_cast<size_t>(count)},
                       ClockText());
    }
    else if (count < 0 && errno != EAGAIN && errno != EINTR)
    {
        throw SystemError("pipe");
    }
}

// --- The command -----------------------------------------------------------

MirrorPtr Follow(const Options &options, Watcher &watcher)
{
    std::vector<const char *> tables;
    for (const std::string &table : options.tables)
    {
        tables.push_back(table.c_str());
    }
    tables.push_back(nullptr);
    qdb_options given = QDB_OPTIONS_INIT;
    given.database = options.database.c_str();
    given.bus = options.bus.empty() ? nullptr : options.bus.c_str();
    given.tables = options.tables.empty() ? nullptr : tables.data();
    given.user = &watcher;
    given.row_added = OnRow;
    given.row_changed = OnChange;
    given.row_removed = OnRemoved;
    given.ready = OnReady;
    given.resynced = OnResynced;
    MirrorPtr mirror = OpenMirror(given);
    for (const std::string &table : options.tables)
    {
        CheckTable(mirror.get(), table, options.database);
    }
    return mirror;
}

// Errors first: "watching" stands before what is seen from then on.
void Show(Watcher &watcher)
{
    std::string notes = watcher.TakeNotes();
    for (size_t end = notes.find('\n'); end != std::string::npos;
         end = notes.find('\n'))
    {
        Complain(notes.substr(0, end));
        notes.erase(0, end + 1);
    }
    const std::string lines = watcher.TakeLines();
    if (!lines.empty())
    {
        Print(lines);
    }
}

int Watch(const Options &options)
{
    const Descriptor signals(OpenSignals());
    const Descriptor pipe(options.pipe.empty() ? -1 : OpenPipe(options.pipe));
    Watcher watcher({options.isJson,
                     IsColoured() && !options.isJson,
                     options.isAll,
                     {options.tables.begin(), options.tables.end()}});
    const MirrorPtr mirror = Follow(options, watcher);
    Complain("waiting for the mirror");
    // poll() leaves out those below 0. A reader of standard output that has
    // gone is an error of it, for which nobody has to ask.
    pollfd entries[] = {{signals, POLLIN, 0},
                        {STDOUT_FILENO, 0, 0},
                        {pipe, POLLIN, 0},
                        {qdb_mirror_fd(mirror.get()), POLLIN, 0}};
    const auto &[hasSignal, output, hasRecords, hasChange] = entries;
    while (hasSignal.revents == 0 &&
           (output.revents & (POLLERR | POLLHUP)) == 0)
    {
        const bool isMore = qdb_mirror_process(mirror.get()) == 1;
        if (hasRecords.revents != 0)
        {
            ReadPipe(pipe, watcher);
        }
        Show(watcher);
        if (poll(entries, std::size(entries), isMore ? 0 : -1) < 0 &&
            errno != EINTR)
        {
            throw SystemError("poll");
        }
    }
    return kFine;
}

} // namespace

void AddWatchCommand(CLI::App &app, Work *pWork)
{
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand(
        "watch", "changes as they happen, with old and new values");
    AddDatabaseOption(*command, &options->database);
    AddBusOption(*command, &options->bus);
    command->add_option("TABLE", options->tables,
                        "of these tables only; otherwise of all");
    command->add_flag("--all", options->isAll,
                      "begin with the rows that are there");
    command->add_flag("--json", options->isJson, "a JSON object per line");
    command
        ->add_option("--pipe", options->pipe,
                     "show the records of this telemetry pipe, too, and take "
                     "them from it")
        ->type_name("PATH");
    command->callback(
        [options, pWork]
        {
            *pWork = [options]
            {
                return Watch(*options);
            };
        });
}

} // namespace qdb::tool
