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
    std::vector<std::string> problems;
    ASSERT_TRUE(CConfigFile::Read(file.Path(), entries, problems)) << problems[0];
    EXPECT_EQ(Pairs(entries), (std::vector<std::string>{"port=1080", "auth=alice:pass with spaces", "allow=::1"}));
    EXPECT_EQ(entries[1].origin, file.Path() + ":4");
}

TEST(ConfigFileTest, CommentsFollowWhiteSpaceAndQuotesKeepEverything)
{
    const std::pair<const char*, const char*> values[] = {
        {"trail:pw # old", "trail:pw"},          {"trail:pw\t# old", "trail:pw"},
        {"pw#1", "pw#1"},                         {"a:b#c # d", "a:b#c"},
        {"\"quoted:pw\"", "quoted:pw"},           {"\"a:# not a comment \" # one", "a:# not a comment "},
        {"\" lead:trail \"", " lead:trail "},     {R"("say \"hi\" \\o/")", R"(say "hi" \o/)"},
        {"\"\"", ""},                             {"mid\"quote", "mid\"quote"},
    };
    for (const auto& [text, expected] : values) {
        std::string value;
        std::string reason;
        EXPECT_TRUE(CConfigFile::ParseValue(std::string(" ") + text, value, reason)) << text << ": " << reason;
        EXPECT_EQ(value, expected) << text;
    }
    for (const char* text : {"\"open", R"("bad \n escape")", "\"a\"b", "\"a\"#b", "", "  # only a comment"}) {
        std::string value;
        std::string reason;
        EXPECT_FALSE(CConfigFile::ParseValue(text, value, reason)) << text << " gave " << value;
        EXPECT_FALSE(reason.empty()) << text;
    }
}

TEST(ConfigFileTest, EveryBadLineIsReportedWithItsPlaceAndOnlyRegularFilesAreRead)
{
    TempFile file("port 1\nlisten\nauth \"open\nallow ::1\nauth \"a\" b\n");
    Entries entries;
    std::vector<std::string> problems;
    EXPECT_FALSE(CConfigFile::Read(file.Path(), entries, problems));
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0].rfind(file.Path() + ":2: listen: ", 0), 0u) << problems[0];
    EXPECT_EQ(problems[1].rfind(file.Path() + ":3: auth: ", 0), 0u) << problems[1];
    EXPECT_EQ(problems[2].rfind(file.Path() + ":5: auth: ", 0), 0u) << problems[2];
    EXPECT_EQ(Pairs(entries), (std::vector<std::string>{"port=1", "allow=::1"})); // checked further by the caller
    for (const char* path : {"/nonexistent/zrt.conf", "/tmp", "/dev/null"}) {
        problems.clear();
        EXPECT_FALSE(CConfigFile::Read(path, entries, problems)) << path;
        ASSERT_EQ(problems.size(), 1u) << path;
        EXPECT_EQ(problems[0].rfind(std::string(path) + ": ", 0), 0u) << problems[0];
    }
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

TEST(DaemonOptionsTest, DefaultLimitsFollowTheDescriptorLimitAndTheClientLimitGiven)
{
    const auto defaults = CDaemonOptions::Defaults(1024);
    EXPECT_EQ(CDaemonOptions::ValueOf(defaults, "max-clients", ""), "120"); // (1024 - 64) / 8
    EXPECT_EQ(CDaemonOptions::ValueOf(defaults, "max-clients-per-source", ""), "30");
    EXPECT_EQ(CDaemonOptions::ValueOf(defaults, "idle-timeout", ""), "3600");
    EXPECT_EQ(CDaemonOptions::ValueOf(CDaemonOptions::Defaults(10), "max-clients", ""), "1");
    EXPECT_EQ(CDaemonOptions::ValueOf(CDaemonOptions::Defaults(10), "max-clients-per-source", ""), "8");
    const auto perSource = [&](const Entries& given) {
        return CDaemonOptions::ValueOf(CDaemonOptions::Merge(defaults, {}, given), "max-clients-per-source", "");
    };
    const ZRT::Daemon::CConfigFile::SEntry beyond{"listen", "192.0.2.1", "--listen"};
    EXPECT_EQ(perSource({beyond, {"max-clients", "1000", "--max-clients"}}), "250");
    EXPECT_EQ(perSource({beyond, {"max-clients", "0", "--max-clients"}}), "0");
    EXPECT_EQ(perSource({beyond, {"max-clients", "1000", "--max-clients"}, {"max-clients-per-source", "5", "--m"}}), "5");
    // On loopback alone every client is this machine's one address: no default limit per source,
    // unless one is given; one listen address beyond loopback brings it back.
    EXPECT_EQ(perSource({}), "0");
    EXPECT_EQ(perSource({{"listen", "127.0.0.1", "-l"}, {"listen", "[::1]", "-l"}, {"listen", "127.9.9.9", "-l"}}), "0");
    EXPECT_EQ(perSource({{"listen", "::1", "-l"}, {"max-clients-per-source", "5", "--m"}}), "5");
    EXPECT_EQ(perSource({{"listen", "127.0.0.1", "-l"}, beyond}), "30");
    EXPECT_EQ(perSource({{"listen", "::", "-l"}}), "30");
    EXPECT_EQ(perSource({{"listen", "localhost", "-l"}}), "30") << "not an address: the safer default";
    EXPECT_EQ(perSource({{"proxy-protocol-from", "127.0.0.1/32", "--p"}}), "30") << "clients named by a balancer";
    // A reload judges by the listeners that still serve, not by a listen edited for the next start.
    const auto reloaded = [&](const Entries& running, const Entries& file) {
        return CDaemonOptions::ValueOf(CDaemonOptions::Merge(defaults, file, {}, &running), "max-clients-per-source", "");
    };
    EXPECT_EQ(reloaded({beyond}, {{"listen", "127.0.0.1", "f:1"}}), "30");
    EXPECT_EQ(reloaded({{"listen", "127.0.0.1", "-l"}}, {beyond}), "0");
    const std::string limits = CDaemonOptions::DescribeLimits(defaults, 1024);
    for (const char* part : {"max-clients 120,", "max-clients-per-source 30,", "handshake-timeout 30 s,",
                             "idle-timeout 3600 s,", "linger-timeout 30 s", "descriptor limit 1024"})
        EXPECT_NE(limits.find(part), std::string::npos) << limits;
}

TEST(DaemonOptionsTest, CheckReportsEveryProblemWithItsPlace)
{
    TempFile comments("# nobody yet\n\n");
    const Entries entries = {{"port", "0", "a.conf:1"},         {"colour", "blue", "a.conf:2"},
                             {"port", "99999", "a.conf:3"},     {"auth-file", comments.Path(), "a.conf:4"},
                             {"auth", "none", "a.conf:5"},      {"auth", "alice:one", "a.conf:6"},
                             {"listen", "::1", "a.conf:7"},     {"listen", "[::1]", "a.conf:8"},
                             {"listen", "::1/128", "a.conf:9"}};
    const std::vector<std::string> problems = CDaemonOptions::Check(entries);
    const std::vector<std::string> places = {"a.conf:2: unknown option", "a.conf:3: 'port' is given more",
                                             "a.conf:3: port: ", "a.conf:4: auth-file: " + comments.Path() + ": no user",
                                             "a.conf:6: auth: ", "a.conf:9: listen: "};
    ASSERT_EQ(problems.size(), places.size()) << ::testing::PrintToString(problems);
    for (size_t i = 0; i < places.size(); ++i)
        EXPECT_EQ(problems[i].rfind(places[i], 0), 0u) << problems[i];
    EXPECT_TRUE(CDaemonOptions::Check(CDaemonOptions::Defaults(1024)).empty());
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
    TempFile users("bob:two\n");
    zrt_proxy_t* proxy = zrt_proxy_create();
    const Entries current = {{"port", "0", "c"}, {"auth", "alice:one", "c"}, {"auth-file", users.Path(), "c"},
                             {"idle-timeout", "60", "c"}};
    std::string error;
    ASSERT_TRUE(CDaemonOptions::Apply(proxy, current, error)) << error;
    ASSERT_EQ(zrt_proxy_start(proxy), ZRT_OK);
    // idle-timeout left the file (back to its default), auth changed, port and listen cannot.
    const Entries next = {{"port", "1", "n"}, {"listen", "::1", "n"}, {"auth", "bob:two", "n"}};
    std::vector<std::string> restartOnly;
    ASSERT_TRUE(CDaemonOptions::ApplyLive(proxy, current, next, restartOnly, error)) << error;
    EXPECT_EQ(restartOnly, (std::vector<std::string>{"listen", "port"}));
    EXPECT_EQ(zrt_proxy_reload(proxy), ZRT_OK);
    // Every live setting is cleared before any is set: "auth none" does not meet the users file
    // that it replaces.
    ASSERT_TRUE(CDaemonOptions::ApplyLive(proxy, current, {{"auth", "none", "n"}}, restartOnly, error)) << error;
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
    const char* flags[] = {"zrt-proxy", "--check-config", "--hash-password"};
    CCommandLine modes;
    ASSERT_TRUE(modes.Parse(3, flags));
    EXPECT_TRUE(modes.WantsCheck() && modes.WantsHash());
}

TEST(CommandLineTest, HelpNamesEveryOptionAndStatesEachDefaultOnceAsTheDaemonHasIt)
{
    const Entries defaults = CDaemonOptions::Defaults(1024);
    const std::string usage = CCommandLine::Usage(defaults);
    for (int i = 0; const char* name = zrt_option_name(i); ++i) {
        const std::string start = std::string("  --") + name + " ";
        const size_t at = usage.find(start);
        ASSERT_NE(at, std::string::npos) << name;
        const std::string line = usage.substr(at, usage.find('\n', at) - at);
        const size_t first = line.find("(default");
        EXPECT_TRUE(first == std::string::npos || line.find("(default", first + 1) == std::string::npos) << line;
        const std::string own = CDaemonOptions::ValueOf(defaults, name, "");
        EXPECT_TRUE(own.empty() || line.find("(default " + own) != std::string::npos) << line;
    }
    // Said nowhere else, so nothing contradicts the lines.
    const std::string tail = usage.substr(usage.find("  --help"));
    EXPECT_EQ(tail.find("default"), std::string::npos) << tail;
    EXPECT_NE(usage.find("visible to every user of this machine"), std::string::npos);
}

} // namespace
} // namespace Daemon
} // namespace ZRT
