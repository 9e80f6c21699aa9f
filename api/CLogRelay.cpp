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

void CLogRelay::OnConnectionFinished(const Proxy::SConnectionRecord& record)
{
    // A refused or failed exchange is worth a closer look than a served one.
    const int level = record.outcome == Proxy::EOutcome::Ok ? ZRT_LOG_INFO : ZRT_LOG_WARNING;
    Emit(level, Describe(record));
}

void CLogRelay::OnError(const std::string& text)
{
    Emit(ZRT_LOG_ERROR, text);
}

void CLogRelay::Emit(int level, const std::string& line) const
{
    if (m_callback)
        m_callback(m_context, level, line.c_str());
}

} // namespace Api
} // namespace ZRT
