// qdb-watch: shows the changes of the mirror as they happen.
//
// Follows the service's change signals on the system bus and, if asked, takes
// the telemetry service's place at the end of its pipe. Prints what it saw of a
// change, never more: it doesn't look into the database.
#include "tools/watch/watcher.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <string>

namespace qdb::watch
{
namespace
{

constexpr const char *kMatch =
    "type='signal',path='/com/vexo/tarnu/qdb/changeeventnotify',"
    "interface='com.vexo.tarnu.qdb.changeeventnotify'";

struct UnrefBus
{
    void operator()(sd_bus *bus) const
    {
        sd_bus_flush_close_unref(bus);
    }
};
struct UnrefEvent
{
    void operator()(sd_event *event) const
    {
        sd_event_unref(event);
    }
};
using BusPtr = std::unique_ptr<sd_bus, UnrefBus>;
using EventPtr = std::unique_ptr<sd_event, UnrefEvent>;

void Complain(const std::string &text)
{
    std::fprintf(stderr, "qdb-watch: %s\n", text.c_str());
}

// Whether a call that gives a negative errno on failure worked; a line on
// standard error if not.
bool Worked(int result, const char *what)
{
    if (result < 0)
    {
        Complain(std::string(what) + ": " + std::strerror(-result));
    }
    return result >= 0;
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

// Everything that the handlers of the event loop need.
struct Session
{
    Watcher watcher;
    sd_event *event; // borrowed
    bool failed = false;
};

// Ends the loop with status 1, for a reason that was told.
void Fail(Session &session)
{
    session.failed = true;
    sd_event_exit(session.event, 1);
}

// Ends the loop with status 1 when standard output takes no more.
void Print(Session &session, const Output &output)
{
    for (const std::string &error : output.errors)
    {
        Complain(error);
    }
    if (std::fputs(output.lines.c_str(), stdout) == EOF ||
        std::fflush(stdout) == EOF)
    {
        Complain(std::string("standard output: ") + std::strerror(errno));
        Fail(session);
    }
}

int OnSignal(sd_bus_message *message, void *userData, sd_bus_error *)
{
    Session &session = *static_cast<Session *>(userData);
    const char *member = sd_bus_message_get_member(message);
    const auto kind = KindOfMember(member ? member : "");
    const char *text = nullptr;
    if (!kind)
    {
        return 0;
    }
    if (sd_bus_message_read(message, "s", &text) < 0)
    {
        Complain(std::string("malformed ") + member + ": not one text");
        return 0;
    }
    Print(session, session.watcher.OnSignal(*kind, text, ClockText()));
    return 0;
}

// The bus daemon's answer to the match.
int OnMatched(sd_bus_message *reply, void *userData, sd_bus_error *)
{
    if (const sd_bus_error *error = sd_bus_message_get_error(reply))
    {
        Complain(std::string("the bus refuses the match: ") + error->name);
        Fail(*static_cast<Session *>(userData));
        return 0;
    }
    // Whoever starts the watcher can wait for this line: nothing that happens
    // from here on is missed.
    Complain("watching");
    return 0;
}

int OnPipeReadable(sd_event_source *, int fd, uint32_t, void *userData)
{
    Session &session = *static_cast<Session *>(userData);
    std::array<char, 4096> buffer;
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count > 0)
    {
        const std::string_view bytes(buffer.data(), static_cast<size_t>(count));
        Print(session, session.watcher.OnPipe(bytes, ClockText()));
    }
    else if (count < 0 && errno != EAGAIN && errno != EINTR)
    {
        Complain(std::string("pipe: ") + std::strerror(errno));
        Fail(session);
    }
    return 0;
}

// The reading end of the pipe, made if it isn't there; -1 and a line on
// standard error on failure. Reads don't block and never see an end, however
// the writers come and go. Open as long as the program runs.
int OpenPipe(const std::string &path)
{
    int end = -1;
    struct stat file = {};
    if (mkfifo(path.c_str(), 0660) == 0 || errno == EEXIST)
    {
        if (stat(path.c_str(), &file) == 0 && !S_ISFIFO(file.st_mode))
        {
            Complain(path + ": not a named pipe");
            return -1;
        }
        // With this process as a writer, too, the pipe never ends.
        end = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    return Worked(end < 0 ? -errno : 0, path.c_str()) ? end : -1;
}

// Has the loop read the pipe; false and a line on standard error on failure.
bool AddPipe(Session &session, const std::string &path)
{
    const int end = OpenPipe(path);
    return end >= 0 &&
           Worked(sd_event_add_io(session.event, nullptr, end, EPOLLIN,
                                  OnPipeReadable, &session),
                  path.c_str());
}

// SIGINT and SIGTERM end the loop with status 0.
bool HandleSignals(sd_event *event)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return Worked(sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr),
                  "SIGINT") &&
           Worked(
               sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr),
               "SIGTERM");
}

// The connection, attached to the session's loop; NULL and a line on standard
// error on failure. The match is asked for without waiting for the answer, so
// that a bus that doesn't answer can be interrupted.
BusPtr ConnectBus(Session &session)
{
    sd_bus *opened = nullptr;
    const int status = sd_bus_default_system(&opened);
    BusPtr bus(opened);
    if (!Worked(status, "can't reach the system bus") ||
        !Worked(sd_bus_set_exit_on_disconnect(bus.get(), 1), "system bus") ||
        !Worked(sd_bus_attach_event(bus.get(), session.event, 0),
                "system bus") ||
        !Worked(sd_bus_add_match_async(bus.get(), nullptr, kMatch, OnSignal,
                                       OnMatched, &session),
                "system bus"))
    {
        bus.reset();
    }
    return bus;
}

// Follows the bus, and the pipe if there is a path, until told to end. Returns
// the exit status.
int Watch(const Options &options, const std::string &pipePath)
{
    sd_event *newEvent = nullptr;
    const int made = sd_event_new(&newEvent);
    const EventPtr event(newEvent);
    if (!Worked(made, "event loop") || !HandleSignals(event.get()))
    {
        return 1;
    }

    Session session = {.watcher = Watcher(options), .event = event.get()};
    if (!pipePath.empty() && !AddPipe(session, pipePath))
    {
        return 1;
    }
    const BusPtr bus = ConnectBus(session);
    if (!bus)
    {
        return 1;
    }

    const int status = sd_event_loop(event.get());
    if (status > 0 && !session.failed)
    {
        Complain("the system bus is gone");
    }
    return Worked(status, "event loop") ? status : 1;
}

int Run(int argc, char **argv)
{
    CLI::App app("Shows the changes of QuillonDB's mirror as they happen.",
                 "qdb-watch");
    Options options;
    std::string pipePath;
    app.add_flag("--json", options.json, "one JSON object per line");
    app.add_option("--table", options.table, "changes of this table only");
    app.add_option("--pipe", pipePath,
                   "show the records of this telemetry pipe, too");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        return app.exit(error) == 0 ? 0 : 1;
    }
    options.colour = !options.json && isatty(STDOUT_FILENO) == 1;
    return Watch(options, pipePath);
}

} // namespace
} // namespace qdb::watch

int main(int argc, char **argv)
{
    try
    {
        return qdb::watch::Run(argc, argv);
    }
    catch (const std::exception &error)
    {
        std::fprintf(stderr, "qdb-watch: %s\n", error.what());
        return 1;
    }
}
