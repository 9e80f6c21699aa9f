#include "api/CLogWriter.h"

#include <poll.h>

#include <algorithm>
#include <climits>

#include "runtime/CThreadPool.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Api {

CLogWriter::~CLogWriter()
{
    Stop();
}

void CLogWriter::SetAccessLog(std::shared_ptr<const CAccessLog> log)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_path = log ? log->GetPath() : std::string();
        m_hasAccessLog = log != nullptr;
        m_nextLog = std::move(log);
        m_logChanged = true;
    }
    m_wake.SignalEvent();
}

std::string CLogWriter::GetAccessLogPath() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_path;
}

bool CLogWriter::Start(QOX::CThreadPool* pool, Proxy::CProxyStats& stats)
{
    m_stats = &stats;
    m_lastReport = -1;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_running = true;
    }
    SetThreadPool(pool);
    if (StartThread(false))
        return true;
    std::lock_guard<std::mutex> hold(m_mutex);
    m_running = false;
    return false;
}

void CLogWriter::Stop()
{
    const int status = GetThreadStatus();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING)
        StopThread(-1);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_running = false;
        m_queue.clear();
    }
    // The writer has ended: what it held is the controlling thread's now.
    m_accessLog.reset();
    m_backlog.clear();
}

void CLogWriter::Push(EKind kind, int level, std::string text)
{
    bool queued = false;
    bool first = false;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_running)
            return;
        queued = m_queue.size() < QUEUE_LIMIT;
        first = m_queue.empty();
        if (queued)
            m_queue.push_back(SEntry{kind, level, std::move(text)});
    }
    if (!queued)
        Dropped(1);
    else if (first)
        m_wake.SignalEvent(); // behind others, the writer is awake already
}

int CLogWriter::Run()
{
    for (;;) {
        // A stop seen here comes after every line pushed before it: this round delivers them.
        const bool stopping = m_stopEvent.IsSignalled();
        m_wake.ResetEvent(); // before the take, so a push after it wakes the next wait
        for (const SEntry& entry : Take())
            Deliver(entry);
        Flush();
        if (stopping)
            DropBacklog();
        const int64_t now = CLogRateLimit::Now();
        Summarize(now, stopping);
        ReportDrops(now, stopping);
        if (stopping)
            return 0;
        Wait(now);
    }
}

std::deque<CLogWriter::SEntry> CLogWriter::Take()
{
    std::deque<SEntry> batch;
    std::shared_ptr<const CAccessLog> next;
    bool changed = false;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        batch.swap(m_queue);
        changed = m_logChanged;
        m_logChanged = false;
        next = std::move(m_nextLog);
    }
    if (changed) {
        // What the old log would not take now is lost with it: waiting could take for ever.
        Flush();
        DropBacklog();
        m_accessLog = std::move(next);
    }
    return batch;
}

void CLogWriter::Deliver(const SEntry& entry)
{
    if (entry.kind == EKind::Line)
        Tell(entry.level, entry.text);
    else if (m_accessLog)
        Append(entry.text);
}

void CLogWriter::Append(const std::string& line)
{
    if (m_backlog.size() + line.size() > BACKLOG_LIMIT)
        Flush();
    if (m_backlog.size() + line.size() > BACKLOG_LIMIT) {
        Dropped(1);
        return;
    }
    m_backlog += line;
}

void CLogWriter::Flush()
{
    size_t done = 0;
    while (m_accessLog && done < m_backlog.size()) {
        const ssize_t wrote = m_accessLog->Write(m_backlog.data() + done, m_backlog.size() - done);
        if (wrote == 0)
            break;
        if (wrote < 0) {
            Dropped(static_cast<uint64_t>(std::count(m_backlog.begin() + static_cast<std::ptrdiff_t>(done),
                                                     m_backlog.end(), '\n')));
            done = m_backlog.size();
            break;
        }
        done += static_cast<size_t>(wrote);
    }
    m_backlog.erase(0, done);
}

void CLogWriter::DropBacklog()
{
    if (m_backlog.empty())
        return;
    Dropped(static_cast<uint64_t>(std::count(m_backlog.begin(), m_backlog.end(), '\n')));
    m_backlog.clear();
}

void CLogWriter::Dropped(uint64_t lines)
{
    if (lines == 0)
        return;
    m_stats->Add(Proxy::CProxyStats::LOG_LINES_DROPPED, lines);
    m_unreported.fetch_add(lines, std::memory_order_relaxed);
}

void CLogWriter::Tell(int level, const std::string& line) const
{
    const Callback callback = m_callback;
    if (callback && level <= m_level.load(std::memory_order_relaxed))
        callback(m_context, level, line.c_str());
}

void CLogWriter::Summarize(int64_t now, bool flush)
{
    for (const std::string& line : m_limit.Collect(now, flush))
        Tell(ZRT_LOG_WARNING, line);
}

void CLogWriter::ReportDrops(int64_t now, bool flush)
{
    if (m_unreported.load(std::memory_order_relaxed) == 0)
        return;
    if (!flush) {
        if (m_lastReport >= 0 && now - m_lastReport < CLogRateLimit::INTERVAL_MS)
            return;
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_queue.empty())
            return; // not caught up yet
    }
    const uint64_t lost = m_unreported.exchange(0);
    m_lastReport = now;
    Tell(ZRT_LOG_WARNING, std::to_string(lost) + " log lines dropped");
}

void CLogWriter::Wait(int64_t now)
{
    int64_t due = m_limit.NextDue();
    if (m_unreported.load(std::memory_order_relaxed) > 0 && m_lastReport >= 0) {
        const int64_t report = m_lastReport + CLogRateLimit::INTERVAL_MS;
        due = due < 0 ? report : std::min(due, report);
    }
    const int timeout = due < 0 ? -1 : static_cast<int>(std::min<int64_t>(std::max<int64_t>(due - now, 0), INT_MAX));
    pollfd entries[3] = {{m_stopEvent.GetWaitHandle(), POLLIN, 0}, {m_wake.GetWaitHandle(), POLLIN, 0}, {-1, 0, 0}};
    nfds_t count = 2;
    if (m_accessLog && !m_backlog.empty())
        entries[count++] = pollfd{m_accessLog->GetDescriptor(), POLLOUT, 0};
    poll(entries, count, timeout);
}

} // namespace Api
} // namespace ZRT
