#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "api/CAccessLog.h"
#include "api/CLogRateLimit.h"
#include "proxy/core/CProxyStats.h"
#include "runtime/CEvent.h"
#include "runtime/CThread.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Api {

// The one thread that writes a proxy's log lines, so that no thread serving clients ever waits
// for a sink: Push only queues a line made elsewhere (at most QUEUE_LIMIT; beyond that the line
// is dropped and counted in LOG_LINES_DROPPED). The writer hands log lines to the host's callback
// and appends access-log lines to the access log without blocking, keeping at most BACKLOG_LIMIT
// bytes that the log would not take yet (more is dropped and counted, as is what a failing log
// loses). It writes the rate limiter's summaries when they are due, and "N log lines dropped"
// once it has caught up (at most once per CLogRateLimit::INTERVAL_MS).
//
// A stop delivers what was queued before it, tries the access log once more and ends: it never
// waits for a sink, and the callback must not block either.
//
// Threads: SetCallback on any thread at any time (a line being delivered may still reach the old
// callback; give a new context only with a new callback, or keep it valid); Start and Stop on
// the controlling thread; SetAccessLog and
// GetAccessLogPath on the controlling thread at any time; SetLevel, Wants, HasAccessLog and Push on
// any thread; the rest on the writer's own thread (from the pool given to Start, so the host's
// thread hooks run on it).
class CLogWriter : private QOX::CThread {
public:
    using Callback = void (*)(void* context, int level, const char* line);
    enum class EKind { Line, Access };

    static constexpr size_t QUEUE_LIMIT = 4096;
    static constexpr size_t BACKLOG_LIMIT = 64 * 1024;

    explicit CLogWriter(CLogRateLimit& limit) : m_limit(limit) {}
    ~CLogWriter() override;
    CLogWriter(const CLogWriter&) = delete;
    CLogWriter& operator=(const CLogWriter&) = delete;

    void SetCallback(Callback callback, void* context)
    {
        m_context = context;
        m_callback = callback;
    }
    // Lines above the level are not wanted by the callback.
    void SetLevel(int level) { m_level = level; }
    bool Wants(int level) const { return m_callback && level <= m_level.load(std::memory_order_relaxed); }
    // Swapped in by the writer before it writes the next access-log line; null for none.
    void SetAccessLog(std::shared_ptr<const CAccessLog> log);
    bool HasAccessLog() const { return m_hasAccessLog.load(std::memory_order_relaxed); }
    // The path of the access log now in use, "" for none.
    std::string GetAccessLogPath() const;

    bool Start(QOX::CThreadPool* pool, Proxy::CProxyStats& stats);
    void Stop();
    // A line without its end of line (the callback's) or with it (the access log's).
    void Push(EKind kind, int level, std::string text);

protected:
    int Run() override;

private:
    struct SEntry {
        EKind kind;
        int level;
        std::string text;
    };

    std::deque<SEntry> Take();
    void Deliver(const SEntry& entry);
    void Append(const std::string& line);
    void Flush();
    void DropBacklog();
    void Dropped(uint64_t lines);
    void Tell(int level, const std::string& line) const;
    void Summarize(int64_t now, bool flush);
    void ReportDrops(int64_t now, bool flush);
    void Wait(int64_t now);

    CLogRateLimit& m_limit;
    std::atomic<Callback> m_callback{nullptr};
    std::atomic<void*> m_context{nullptr};
    std::atomic<int> m_level{4};
    std::atomic<bool> m_hasAccessLog{false};
    Proxy::CProxyStats* m_stats = nullptr;
    QOX::CEvent m_wake; // the queue went from empty to not, or the access log changed

    // Guards m_queue, m_running, m_nextLog, m_logChanged and m_path.
    mutable std::mutex m_mutex;
    std::deque<SEntry> m_queue;
    bool m_running = false;
    std::shared_ptr<const CAccessLog> m_nextLog;
    bool m_logChanged = false;
    std::string m_path;

    // Lines dropped since the last report, by any thread.
    std::atomic<uint64_t> m_unreported{0};
    // The writer's own.
    std::shared_ptr<const CAccessLog> m_accessLog;
    std::string m_backlog;
    int64_t m_lastReport = -1;
};

} // namespace Api
} // namespace ZRT
