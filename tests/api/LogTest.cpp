// The log path of the C interface: escaping of client bytes, rate limiting of repeated warnings,
// the writer that keeps serving threads from waiting on a sink, and the relay that routes records.
#include <gtest/gtest.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "api/CAccessLog.h"
#include "api/CLogRateLimit.h"
#include "api/CLogRelay.h"
#include "api/CLogText.h"
#include "api/CLogWriter.h"
#include "fakes/Polling.h"
#include "proxy/core/CProxyStats.h"
#include "runtime/CThreadPool.h"
#include "zrtproxy/zrtproxy.h"

using ZRT::Api::CAccessLog;
using ZRT::Api::CLogRateLimit;
using ZRT::Api::CLogRelay;
using ZRT::Api::CLogText;
using ZRT::Api::CLogWriter;
using ZRT::Proxy::CProxyStats;

namespace {

std::string Escaped(const std::string& text, size_t limit = 1000)
{
    return CLogText::Escape(text, limit);
}

// An oracle apart from the code under test: glibc's converter refuses what is not UTF-8.
bool IsValidUtf8(const std::string& text)
{
    iconv_t converter = iconv_open("UTF-8", "UTF-8");
    std::string copy = text;
    std::vector<char> out(text.size() * 4 + 4);
    char* in = &copy[0];
    char* to = out.data();
    size_t inLeft = copy.size();
    size_t outLeft = out.size();
    const size_t result = iconv(converter, &in, &inLeft, &to, &outLeft);
    iconv_close(converter);
    return result != static_cast<size_t>(-1) && inLeft == 0;
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

std::string TempPath(const char* name)
{
    return std::string("/tmp/zrt-logtest-") + std::to_string(getpid()) + "-" + name;
}

} // namespace

TEST(LogText, ControlBytesDelAndNulBecomeEscapes)
{
    EXPECT_EQ(Escaped("a\nb\r\t\x1b[31m\x7f"), "a\\x0ab\\x0d\\x09\\x1b[31m\\x7f");
    EXPECT_EQ(Escaped(std::string("cut\0here", 8)), "cut\\x00here"); // a NUL cuts nothing
    for (int byte = 0; byte < 0x20; ++byte)
        EXPECT_EQ(Escaped(std::string(1, static_cast<char>(byte))).substr(0, 2), "\\x") << byte;
}

TEST(LogText, BackslashIsEscapedSoNoEscapeCanBeForged)
{
    EXPECT_EQ(Escaped("\\x0a"), "\\x5cx0a");
    EXPECT_EQ(Escaped("a\\...", 1000), "a\\x5c...");
}

TEST(LogText, ValidUtf8StaysAndEveryInvalidFormIsEscaped)
{
    // Edges of each length: U+00A0, U+07FF, U+0800, U+FFFF, U+10000, U+10FFFF; and a common mix.
    for (const char* kept : {"\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80",
                             "\xf4\x8f\xbf\xbf", "Zo\xc3\xab \xe2\x82\xac \xf0\x9d\x84\x9e"})
        EXPECT_EQ(Escaped(kept), kept);
    const std::pair<const char*, const char*> invalid[] = {
        {"\xc0\xaf", "\\xc0\\xaf"},                     // overlong '/'
        {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},            // overlong, three bytes
        {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},   // overlong, four bytes
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},            // a surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},   // beyond U+10FFFF
        {"\xe2\x82", "\\xe2\\x82"},                     // cut short at the end
        {"\xe2\x82" "A", "\\xe2\\x82A"},                // cut short before ASCII
        {"\x80 \xbf", "\\x80 \\xbf"},                   // stray continuation bytes
        {"\xf8\x88\x80\x80\x80 \xfe\xff", "\\xf8\\x88\\x80\\x80\\x80 \\xfe\\xff"},
        // Valid, but they break or reorder a line where it is shown: NEL, U+2028, U+202E.
        {"\xc2\x85", "\\xc2\\x85"},
        {"\xe2\x80\xa8", "\\xe2\\x80\\xa8"},
        {"\xe2\x80\xae", "\\xe2\\x80\\xae"},
    };
    for (const auto& entry : invalid)
        EXPECT_EQ(Escaped(entry.first), entry.second);
}

TEST(LogText, AnyBytesGiveValidUtf8WithoutControlCharacters)
{
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        std::string bytes(random() % 24, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random() % 2 ? random() % 256 : 0x80 + random() % 0x40);
        const std::string escaped = CLogText::Field(bytes, CLogText::USER_LIMIT);
        ASSERT_TRUE(IsValidUtf8(escaped)) << escaped;
        for (const char byte : escaped)
            ASSERT_TRUE(static_cast<unsigned char>(byte) > 0x20 && byte != 0x7f) << escaped;
    }
}

TEST(LogText, FieldsKeepTheirColumnsAndLengthBounds)
{
    EXPECT_EQ(CLogText::Field("two words", 100), "two\\x20words");
    EXPECT_EQ(CLogText::Field("", 100), "-");
    EXPECT_EQ(Escaped("two words"), "two words"); // spaces stay outside fields
    EXPECT_EQ(Escaped("abcd", 4), "abcd");
    EXPECT_EQ(Escaped("abcde", 4), std::string("abcd") + CLogText::CUT_MARKER);
    // Cut before a whole escape or character, never inside one.
    EXPECT_EQ(Escaped("aaa\n", 5), std::string("aaa") + CLogText::CUT_MARKER);
    EXPECT_EQ(Escaped("aa\xe2\x82\xac", 4), std::string("aa") + CLogText::CUT_MARKER);
    const std::string user = CLogText::Field(std::string(255, '\n'), CLogText::USER_LIMIT);
    EXPECT_LE(user.size(), CLogText::USER_LIMIT + std::string(CLogText::CUT_MARKER).size());
    EXPECT_EQ(user.substr(user.size() - 4), CLogText::CUT_MARKER);
}

TEST(LogRateLimit, FirstWarningGoesThenOneSummaryPerIntervalPerCauseAndAddress)
{
    CLogRateLimit limit;
    const int64_t start = 1000000;
    EXPECT_TRUE(limit.Admit("auth-failed", "192.0.2.7", start));
    for (int i = 1; i <= 5; ++i)
        EXPECT_FALSE(limit.Admit("auth-failed", "192.0.2.7", start + i));
    EXPECT_TRUE(limit.Admit("auth-failed", "192.0.2.8", start + 6)); // another address
    EXPECT_TRUE(limit.Admit("not-allowed", "192.0.2.7", start + 7)); // another cause
    EXPECT_EQ(limit.NextDue(), start + CLogRateLimit::INTERVAL_MS);
    EXPECT_TRUE(limit.Collect(start + CLogRateLimit::INTERVAL_MS - 1).empty());
    EXPECT_EQ(limit.Collect(start + CLogRateLimit::INTERVAL_MS),
              std::vector<std::string>{"... and 5 more auth-failed from 192.0.2.7"});
    // Held again within the new interval; quiet pairs are forgotten after a quiet interval.
    EXPECT_FALSE(limit.Admit("auth-failed", "192.0.2.7", start + CLogRateLimit::INTERVAL_MS + 1));
    EXPECT_EQ(limit.Collect(start + 2 * CLogRateLimit::INTERVAL_MS),
              std::vector<std::string>{"... and 1 more auth-failed from 192.0.2.7"});
    EXPECT_TRUE(limit.Collect(start + 3 * CLogRateLimit::INTERVAL_MS).empty());
    EXPECT_EQ(limit.NextDue(), -1);
    EXPECT_TRUE(limit.Admit("auth-failed", "192.0.2.7", start + 3 * CLogRateLimit::INTERVAL_MS));
}

TEST(LogRateLimit, AFloodFromManyAddressesSharesOnePairAndAFlushTellsAll)
{
    CLogRateLimit limit;
    for (size_t i = 0; i < CLogRateLimit::MAX_PAIRS; ++i)
        EXPECT_TRUE(limit.Admit("over-limit", "2001:db8::" + std::to_string(i), 5));
    EXPECT_TRUE(limit.Admit("over-limit", "198.51.100.1", 6)); // the first of the others
    for (int i = 2; i < 50; ++i)
        EXPECT_FALSE(limit.Admit("over-limit", "198.51.100." + std::to_string(i), 7));
    EXPECT_FALSE(limit.Admit("over-limit", "2001:db8::3", 8));
    const std::vector<std::string> lines = limit.Collect(9, true);
    EXPECT_EQ(lines, (std::vector<std::string>{"... and 1 more over-limit from 2001:db8::3",
                                               "... and 48 more over-limit from other addresses"}));
    EXPECT_EQ(limit.NextDue(), -1);
}

namespace {
// A log callback that collects lines, and can hold the writer inside it.
struct SCollector {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;
    bool hold = false;
    bool held = false;

    static void Take(void* context, int /*level*/, const char* line)
    {
        auto* self = static_cast<SCollector*>(context);
        std::unique_lock<std::mutex> lock(self->mutex);
        self->lines.push_back(line);
        self->held = self->hold;
        self->changed.notify_all();
        self->changed.wait(lock, [self] { return !self->hold; });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex);
        hold = false;
        changed.notify_all();
    }
    std::vector<std::string> Lines()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
};
} // namespace

TEST(LogWriter, AStuckCallbackCostsLinesNotThePusherAndTheLossIsReported)
{
    QOX::CThreadPool pool;
    CProxyStats stats;
    CLogRateLimit limit;
    CLogWriter writer(limit);
    SCollector collector;
    collector.hold = true;
    writer.SetCallback(&SCollector::Take, &collector);
    ASSERT_TRUE(writer.Start(&pool, stats));
    writer.Push(CLogWriter::EKind::Line, ZRT_LOG_INFO, "first");
    {
        std::unique_lock<std::mutex> lock(collector.mutex);
        ASSERT_TRUE(collector.changed.wait_for(lock, std::chrono::seconds(30), [&] { return collector.held; }));
    }
    // The writer is inside the callback: pushing goes on, and what is beyond the queue is dropped.
    for (size_t i = 0; i < CLogWriter::QUEUE_LIMIT + 100; ++i)
        writer.Push(CLogWriter::EKind::Line, ZRT_LOG_INFO, "line " + std::to_string(i));
    EXPECT_EQ(stats.Get(CProxyStats::LOG_LINES_DROPPED), 100u);
    collector.Release();
    writer.Stop();
    const std::vector<std::string> lines = collector.Lines();
    ASSERT_EQ(lines.size(), CLogWriter::QUEUE_LIMIT + 2);
    EXPECT_EQ(lines[1], "line 0");
    EXPECT_EQ(lines[CLogWriter::QUEUE_LIMIT], "line " + std::to_string(CLogWriter::QUEUE_LIMIT - 1));
    EXPECT_EQ(lines.back(), "100 log lines dropped");
}

TEST(LogWriter, AFileGetsEveryLineInOrderAndAFifoNobodyReadsCostsLinesNotTheStop)
{
    const std::string file = TempPath("access.log");
    const std::string fifo = TempPath("access.fifo");
    unlink(file.c_str());
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {file, fifo}) {
        QOX::CThreadPool pool;
        CProxyStats stats;
        CLogRateLimit limit;
        CLogWriter writer(limit);
        std::string error;
        std::shared_ptr<const CAccessLog> log = CAccessLog::Open(path, error); // no reader: it opens anyway
        ASSERT_TRUE(log) << error;
        writer.SetAccessLog(log);
        ASSERT_TRUE(writer.Start(&pool, stats));
        const std::string padding(90, 'x');
        const int count = 3000; // more than the pipe and the backlog hold
        for (int i = 0; i < count; ++i)
            writer.Push(CLogWriter::EKind::Access, 0, std::to_string(i) + " " + padding + "\n");
        writer.Stop();
        if (path == file) {
            const std::vector<std::string> lines = ReadLines(file);
            ASSERT_EQ(lines.size(), static_cast<size_t>(count));
            EXPECT_EQ(lines.back(), std::to_string(count - 1) + " " + padding);
            EXPECT_EQ(stats.Get(CProxyStats::LOG_LINES_DROPPED), 0u);
        } else {
            EXPECT_GT(stats.Get(CProxyStats::LOG_LINES_DROPPED), 0u);
            EXPECT_LT(stats.Get(CProxyStats::LOG_LINES_DROPPED), static_cast<uint64_t>(count));
        }
    }
    unlink(file.c_str());
    unlink(fifo.c_str());
}

TEST(LogRelay, RecordsAreEscapedAndWarningsRateLimitedWhileTheAccessLogKeepsEveryClient)
{
    const std::string path = TempPath("relay.log");
    unlink(path.c_str());
    QOX::CThreadPool pool;
    CProxyStats stats;
    SCollector collector;
    CLogRelay relay;
    relay.SetCallback(&SCollector::Take, &collector);
    std::string error;
    relay.SetAccessLog(CAccessLog::Open(path, error));
    ASSERT_TRUE(relay.Start(&pool, stats));

    ZRT::Proxy::SConnectionRecord record;
    record.client = "192.0.2.7:4000";
    record.protocol = "socks5";
    record.user = "eve\n2026-01-01T00:00:00.000Z 198.51.100.9:1 socks5 - - auth-failed 0 0 0";
    record.outcome = ZRT::Proxy::EOutcome::AuthFailed;
    for (int i = 0; i < 3; ++i)
        relay.OnConnectionFinished(record);
    record.client = "[2001:db8::8]:4001";
    relay.OnConnectionFinished(record); // another address: not held back
    ZRT::Proxy::SConnectionRecord refused;
    refused.client = "192.0.2.7:4002";
    for (const ZRT::Proxy::EOutcome outcome : {ZRT::Proxy::EOutcome::OverLimit, ZRT::Proxy::EOutcome::NotAllowed}) {
        refused.outcome = outcome;
        relay.OnConnectionFinished(refused);
        relay.OnConnectionFinished(refused);
    }
    refused.outcome = ZRT::Proxy::EOutcome::NoRequest;
    relay.OnConnectionFinished(refused); // not a warning: never held back
    relay.OnConnectionFinished(refused);
    relay.Stop();

    const std::string user = "eve\\x0a2026-01-01T00:00:00.000Z\\x20198.51.100.9:1\\x20socks5\\x20-\\x20-\\x20auth-"
                             "failed\\x200\\x200\\x200";
    EXPECT_EQ(collector.Lines(), (std::vector<std::string>{
                                     "192.0.2.7:4000 socks5 " + user + " - auth-failed 0 0 0 - -",
                                     "[2001:db8::8]:4001 socks5 " + user + " - auth-failed 0 0 0 - -",
                                     "192.0.2.7:4002 - - - over-limit 0 0 0 - -",
                                     "192.0.2.7:4002 - - - not-allowed 0 0 0 - -",
                                     "192.0.2.7:4002 - - - no-request 0 0 0 - -",
                                     "192.0.2.7:4002 - - - no-request 0 0 0 - -",
                                     "... and 2 more auth-failed from 192.0.2.7",
                                     "... and 1 more not-allowed from 192.0.2.7",
                                     "... and 1 more over-limit from 192.0.2.7",
                                 }));
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 10u);
    for (const std::string& line : lines)
        EXPECT_EQ(std::count(line.begin(), line.end(), ' '), 10) << line;
    EXPECT_NE(lines[0].find(" socks5 " + user + " - auth-failed "), std::string::npos) << lines[0];
    unlink(path.c_str());
}
