#include "tests/support/service_process.h"

#include "tests/support/text.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

namespace qdb::test
{
namespace
{

// Sends the line and returns the answer's; "" when there is none.
std::string Ask(int fd, const std::string &line)
{
    std::string reply;
    char block[65536];
    ssize_t n = send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    while (n > 0 && reply.find('\n') == std::string::npos)
    {
        n = read(fd, block, sizeof(block));
        reply.append(block, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    return n > 0 ? reply : "";
}

} // namespace

std::string Server(int count, const std::string &more,
                   const std::string &objects)
{
    const std::string n = std::to_string(count);
    return "{" + more + R"("objects":[)" + objects +
           R"({"type":"0xE1","oid":{"base":4096,"step":1},"parents":[1],)"
           R"("values":{"Key":"DIMM{i}"},"repeat":)" +
           n +
           R"(},{"type":"0x16","oid":{"base":65536,"step":1},)"
           R"("values":{"probeReading":20,"Key":"Probe{i}"},"repeat":)" +
           n + "}]}";
}

ServiceProcess::ServiceProcess(ServiceOptions options)
    : options_(std::move(options))
{
    std::ofstream(root_.Path() + "/scenario.json")
        << (options_.scenario.empty() ? "{}" : options_.scenario);
    if (options_.database)
    {
        root_.MakeDatabase();
    }
    if (options_.pipe)
    {
        root_.MakePipe();
    }
}

// What a failure can't be understood without.
ServiceProcess::~ServiceProcess()
{
    Signal(SIGKILL);
    WaitExit();
    if (testing::Test::HasFailure())
    {
        constexpr size_t kShown = 4096;
        const std::string log = Log();
        std::fprintf(
            stderr, "the service's last lines:\n%s\n",
            log.substr(log.size() - std::min(log.size(), kShown)).c_str());
    }
}

void ServiceProcess::Start()
{
    const std::string &root = root_.Path();
    const std::string bus = options_.busAddress.empty()
                                ? Variable("DBUS_SYSTEM_BUS_ADDRESS")
                                : options_.busAddress;
    std::vector<std::string> variables = options_.variables;
    variables.insert(variables.end(),
                     {"QDB_TEST_ROOT=" + root,
                      "QDB_STANDIN_SCENARIO=" + root + "/scenario.json",
                      "QDB_STANDIN_SOCKET=" + root + "/control",
                      "QDB_STANDIN_STATE=" + root + "/state.json",
                      "QDB_STANDIN_LOG=" + std::to_string(options_.logLevel),
                      "DBUS_SYSTEM_BUS_ADDRESS=" + bus});
    Child::Start({Variable("QDB_TEST_SERVICE")}, root + "/log", variables);
}

std::string ServiceProcess::Log() const
{
    return FileText(root_.Path() + "/log");
}

bool ServiceProcess::WaitForLog(const std::string &text) const
{
    return WaitUntil(
        [&]
        {
            return Log().find(text) != std::string::npos;
        });
}

bool ServiceProcess::WaitReady() const
{
    return WaitUntil(
        [this]
        {
            return ReadyAttribute() == 1;
        });
}

int ServiceProcess::Stop()
{
    Signal(SIGTERM);
    return WaitExit(kStopLimitMs);
}

int ServiceProcess::ReadyAttribute() const
{
    const std::string state = FileText(root_.Path() + "/state.json");
    const std::string key = "IsQuillonDBReady\":";
    const size_t at = state.find(key);
    return at == std::string::npos ? -1
                                   : std::atoi(state.c_str() + at + key.size());
}

std::string ServiceProcess::Command(const std::string &json) const
{
    return CommandAt(root_.Path() + "/control", json);
}

std::string CommandAt(const std::string &path, const std::string &json)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(fd, reinterpret_cast<sockaddr *>(&address),
                                   sizeof(address)) == 0;
    const std::string reply = connected ? Ask(fd, json + "\n") : "";
    close(fd);
    return reply;
}

void ServiceProcess::SetSpeed(int speed) const
{
    Command(R"({"op":"set","oid":4096,"values":{"Speed":)" +
            std::to_string(speed) + "}}");
}

bool ServiceProcess::WaitForSpeed(int speed) const
{
    return WaitUntil(
        [&]
        {
            return QueryValue(root_.Database(),
                              "SELECT Speed FROM TblMemoryInfo WHERE OID = "
                              "4096") == std::to_string(speed);
        });
}

void Live(const std::vector<Life> &lives)
{
    std::vector<std::unique_ptr<ServiceProcess>> services;
    for (const Life &life : lives)
    {
        services.push_back(std::make_unique<ServiceProcess>(life.options));
        if (life.begin)
        {
            life.begin(services.back()->Root());
        }
        services.back()->Start();
    }
    for (size_t i = 0; i < lives.size(); ++i)
    {
        SCOPED_TRACE(lives[i].name);
        lives[i].happening(*services[i]);
    }
    // Many at once keep the machine busy.
    const int patienceMs = kStopLimitMs + (lives.size() == 1 ? 0 : 5000);
    for (size_t i = 0; i < lives.size(); ++i)
    {
        SCOPED_TRACE(lives[i].name);
        EXPECT_EQ(services[i]->WaitExit(patienceMs), lives[i].status);
        EXPECT_EQ(services[i]->ReadyAttribute(), lives[i].attribute);
        const std::string log = services[i]->Log();
        size_t at = 0;
        for (const std::string &line : lives[i].lines)
        {
            at = log.find(line, at);
            ASSERT_NE(at, std::string::npos)
                << line << "\nin\n"
                << log.substr(log.size() - std::min<size_t>(log.size(), 6000));
        }
    }
}

void Serve(ServiceProcess &service)
{
    EXPECT_TRUE(service.WaitReady());
    service.SetSpeed(2933);
    EXPECT_TRUE(service.WaitForSpeed(2933));
    service.Signal(SIGTERM);
}

} // namespace qdb::test
