// The daemon's configuration: the file format, which source wins, and what a reload may change.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/CCommandLine.h"
#include "daemon/CConfigFile.h"
#include "daemon/CDaemonOptions.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Daemon {
namespace {

using Entries = CDaemonOptions::Entries;

// A file with these lines, removed again at the end of the test.
class TempFile {
public:
    explicit TempFile(const std::string& text)
    {
        char name[] = "/tmp/zrt-daemon-test-XXXXXX";
        const int fd = mkstemp(name);
        m_path = name;
        close(fd);
        std::ofstream(m_path) << text;
    }
    ~TempFile() { std::remove(m_path.c_str()); }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

std::vector<std::string> Pairs(const Entries& entries)
{
    std::vector<std::string> pairs;
    for (const auto& entry : entries)
        pairs.push_back(entry.name + "=" + entry.value);
    return pairs;
}

TEST(ConfigFileTest, ReadsNameValueLinesWithCommentsSpacesAndLineNumbers)
{
    TempFile file("# a comment\n\n  port   1080  \nauth alice:pass with spaces\r\n\t# indented comment\nallow ::1\n");
    Entries entries;
    std::string error;
    ASSERT_TRUE(CConfigFile::Read(file.Path(), entries, error)) << error;
    EXPECT_EQ(Pairs(entries), (std::vector<std::string>{"port=1080", "auth=alice:pass with spaces", "allow=::1"}));
    EXPECT_EQ(entries[1].origin, file.Path() + ":4");
}

TEST(ConfigFileTest, ALineWithoutValueOrAMissingFileIsAnErrorWithItsPlace)
{
    TempFile file("port 1\nlisten\n");
    Entries entries;
    std::string error;
    EXPECT_FALSE(CConfigFile::Read(file.Path(), entries, error));
    EXPECT_EQ(error.rfind(file.Path() + ":2: ", 0), 0u) << error;
    EXPECT_FALSE(CConfigFile::Read("/nonexistent/zrt.conf", entries, error));
    EXPECT_NE(error.find("/nonexistent/zrt.conf"), std::string::npos);
}

TEST(DaemonOptionsTest, LaterSourcesReplaceEveryValueOfANameAndKeepTheRest)
{
    const Entries defaults = {{"handshake-timeout", "30", "default"}, {"log-level", "warning", "default"}};
    const Entries file = {{"allow", "10.0.0.0/8", "f:1"}, {"allow", "::1", "f:2"}, {"log-level", "info", "f:3"},
                          {"port", "1", "f:4"}};
    const Entries commandLine = {{"allow", "192.0.2.0/24", "--allow"}, {"port", "0", "--port"}};
    EXPECT_EQ(Pairs(CDaemonOptions::Merge(defaults, file, commandLine)),
              (std::vector<std::string>{"handshake-timeout=30", "log-level=info", "allow=192.0.2.0/24", "port=0"}));
}

TEST(DaemonOptionsTest, DefaultClientLimitLeavesDescriptorsForEverythingElse)
{
    const auto limitFor = [](long descriptors) {
        return CDaemonOptions::ValueOf(CDaemonOptions::Defaults(descriptors), "max-clients", "");
    };
    EXPECT_EQ(limitFor(1024), std::to_string((1024 - CDaemonOptions::DESCRIPTORS_RESERVED) /
                                             CDaemonOptions::DESCRIPTORS_PER_CLIENT));
    EXPECT_EQ(limitFor(10), "1");
}

TEST(DaemonOptionsTest, ErrorsNameWhereTheBadSettingCameFrom)
{
    zrt_proxy_t* proxy = zrt_proxy_create();
    std::string error;
    EXPECT_FALSE(CDaemonOptions::Apply(proxy, {{"port", "0", "a.conf:1"}, {"colour", "blue", "a.conf:2"}}, error));
    EXPECT_EQ(error, "a.conf:2: unknown option 'colour'");
    EXPECT_FALSE(CDaemonOptions::Apply(proxy, {{"port", "0", "a.conf:1"}, {"port", "99999", "a.conf:7"}}, error));
    EXPECT_EQ(error.rfind("a.conf:7: port: ", 0), 0u) << error;
    zrt_proxy_destroy(proxy);
}

TEST(DaemonOptionsTest, ReloadChangesLiveSettingsAndNamesTheOthers)
{
    zrt_proxy_t* proxy = zrt_proxy_create();
    const Entries current = {{"port", "0", "c"}, {"auth", "alice:one", "c"}, {"idle-timeout", "60", "c"}};
    std::string error;
    ASSERT_TRUE(CDaemonOptions::Apply(proxy, current, error)) << error;
    ASSERT_EQ(zrt_proxy_start(proxy), ZRT_OK);
    // idle-timeout left the file (back to its default), auth changed, port and listen cannot.
    const Entries next = {{"port", "1", "n"}, {"listen", "::1", "n"}, {"auth", "bob:two", "n"}};
    std::vector<std::string> restartOnly;
    ASSERT_TRUE(CDaemonOptions::ApplyLive(proxy, current, next, restartOnly, error)) << error;
    EXPECT_EQ(restartOnly, (std::vector<std::string>{"listen", "port"}));
    EXPECT_EQ(zrt_proxy_reload(proxy), ZRT_OK);
    // A bad live value stops the reload with its place.
    EXPECT_FALSE(CDaemonOptions::ApplyLive(proxy, next, {{"allow", "nonsense", "n:9"}}, restartOnly, error));
    EXPECT_EQ(error.rfind("n:9: ", 0), 0u) << error;
    zrt_proxy_destroy(proxy);
}

TEST(CommandLineTest, TakesLibraryOptionsInBothFormsAndTheConfigFile)
{
    const char* argv[] = {"zrt-proxy", "--port=0", "--auth", "a:b", "--config", "/etc/x.conf", "--allow=::1"};
    CCommandLine options;
    ASSERT_TRUE(options.Parse(7, argv)) << options.GetError();
    EXPECT_EQ(Pairs(options.GetSettings()), (std::vector<std::string>{"port=0", "auth=a:b", "allow=::1"}));
    EXPECT_EQ(options.GetConfigFile(), "/etc/x.conf");
    const char* unknown[] = {"zrt-proxy", "--colour", "blue"};
    EXPECT_FALSE(CCommandLine().Parse(3, unknown));
    const char* missing[] = {"zrt-proxy", "--port"};
    CCommandLine incomplete;
    EXPECT_FALSE(incomplete.Parse(2, missing));
    EXPECT_NE(incomplete.GetError().find("needs a value"), std::string::npos);
    // Every library option is in the help text.
    for (int i = 0; const char* name = zrt_option_name(i); ++i)
        EXPECT_NE(CCommandLine::Usage().find(std::string("--") + name + " "), std::string::npos) << name;
}

} // namespace
} // namespace Daemon
} // namespace ZRT
