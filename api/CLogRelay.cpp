#include "api/CLogRelay.h"

#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Api {

std::string CLogRelay::Describe(const Proxy::SConnectionRecord& record)
{
    return record.client + " " + record.protocol + " " + record.user + " " + record.destination + " " +
           Proxy::OutcomeText(record.outcome) + " " + std::to_string(record.bytesClientToHost) + " " +
           std::to_string(record.bytesHostToClient) + " " + std::to_string(record.durationMs);
}

void CLogRelay::OnStarted(const std::string& address, int port)
{
    const bool ipv6 = address.find(':') != std::string::npos;
    Emit(ZRT_LOG_INFO, "listening on " + (ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port));
}

void CLogRelay::OnStopped()
{
    Emit(ZRT_LOG_INFO, "stopped");
}

void CLogRelay::SetAccessLog(std::shared_ptr<const CAccessLog> log)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_accessLog = std::move(log);
}

void CLogRelay::OnConnectionFinished(const Proxy::SConnectionRecord& record)
{
    std::shared_ptr<const CAccessLog> accessLog;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        accessLog = m_accessLog;
    }
    if (accessLog)
        accessLog->Write(record);
    // Who was turned away (a wrong password, an address outside the allow list) matters to an
    // operator (fail2ban reads these); a destination that failed is the client's business.
    const bool turnedAway = record.outcome == Proxy::EOutcome::AuthFailed || record.outcome == Proxy::EOutcome::NotAllowed;
    const int level = turnedAway ? ZRT_LOG_WARNING : ZRT_LOG_INFO;
    Emit(level, Describe(record));
}

void CLogRelay::OnError(const std::string& text)
{
    Emit(ZRT_LOG_ERROR, text);
}

void CLogRelay::Emit(int level, const std::string& line) const
{
    if (m_callback && level <= m_level.load(std::memory_order_relaxed))
        m_callback(m_context, level, line.c_str());
}

} // namespace Api
} // namespace ZRT
