// What qdb prints in a terminal: colours, a limited width, no control
// characters of anybody else.
#include "tests/support/program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

namespace qdb::test
{
namespace
{

// Both ends of a terminal that leaves lines as they are.
class Terminal
{
  public:
    explicit Terminal(unsigned short columns)
        : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        EXPECT_EQ(grantpt(master_), 0);
        EXPECT_EQ(unlockpt(master_), 0);
        slave_ = open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios mode = {};
        EXPECT_EQ(tcgetattr(slave_, &mode), 0);
        cfmakeraw(&mode);
        EXPECT_EQ(tcsetattr(slave_, TCSANOW, &mode), 0);
        winsize size = {};
        size.ws_col = columns;
        EXPECT_EQ(ioctl(slave_, TIOCSWINSZ, &size), 0);
    }
    ~Terminal()
    {
        close(slave_);
        close(master_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    int Slave() const
    {
        return slave_;
    }

    // What programs that have ended have written to it. A terminal hands it on
    // in pieces, but in order.
    std::string Shown() const
    {
        constexpr std::string_view kEnd = "(end)";
        EXPECT_EQ(write(slave_, kEnd.data(), kEnd.size()),
                  static_cast<ssize_t>(kEnd.size()));
        std::string text;
        char block[4096];
        ssize_t size = 1;
        while (size > 0 && !text.ends_with(kEnd))
        {
            size = read(master_, block, sizeof(block));
            text.append(block, static_cast<size_t>(size < 0 ? 0 : size));
        }
        EXPECT_GT(size, 0);
        return text.substr(0, text.rfind(kEnd));
    }

  private:
    int master_;
    int slave_ = -1;
};

TEST(QdbTerminal, IsGivenWhatItCanShow)
{
    const TempRoot root;
    root.MakeDatabase();
    const std::string sql = "SELECT 'a' AS name, char(27, 155) AS text";
    const struct
    {
        const char *what;
        std::vector<std::string> more;
        const char *noColor; // the environment's NO_COLOR; NULL: none
        unsigned short columns;
        const char *expected;
    } cases[] = {
        // clang-format off
        {"in colour", {}, nullptr, 80, "\x1b[1mname  text\x1b[0m\na     \\u001b\\u009b\n"},
        {"NO_COLOR is empty", {}, "", 80, "\x1b[1mname  text\x1b[0m\na     \\u001b\\u009b\n"},
        {"NO_COLOR", {}, "1", 80, "name  text\na     \\u001b\\u009b\n"},
        {"narrow", {}, "1", 17, "name  a\ntext  \\u001b\\u009b\n"},
        {"CSV", {"--csv"}, nullptr, 17, "name,text\na,\\u001b\\u009b\n"},
        {"JSON", {"--json"}, nullptr, 17, "{\"name\": \"a\", \"text\": \"\\u001B\\u009b\"}\n"},
        // clang-format on
    };
    for (const auto &item : cases)
    {
        unsetenv("NO_COLOR");
        if (item.noColor != nullptr)
        {
            setenv("NO_COLOR", item.noColor, 1);
        }
        std::vector<std::string> arguments = {"sql", sql, "--database",
                                              root.Database()};
        arguments.insert(arguments.end(), item.more.begin(), item.more.end());
        const Terminal terminal(item.columns);
        Program tool = StartQdb(arguments, terminal.Slave());
        EXPECT_EQ(tool.End(0), 0) << item.what << tool.Output();
        EXPECT_EQ(terminal.Shown(), item.expected) << item.what;
    }
    unsetenv("NO_COLOR");
}

} // namespace
} // namespace qdb::test
