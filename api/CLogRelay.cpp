#include "api/CLogRelay.h"

#include <chrono>

#include "api/CLogText.h"
#include "transport/CSocketUtils.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Api {

namespace {
using Proxy::EOutcome;

// Who was turned away matters to an operator (fail2ban reads these); a destination that failed is
// the client's business.
int LevelOf(EOutcome outcome)
{
    const bool turnedAway =
        outcome == EOutcome::AuthFailed || outcome == EOutcome::NotAllowed || outcome == EOutcome::OverLimit;
    return turnedAway ? ZRT_LOG_WARNING : ZRT_LOG_INFO;
}

// "192.0.2.7:5000" or "[2001:db8::7]:5000": the address without the port.
std::string AddressOf(const std::string& client)
{
    const size_t colon = client.rfind(':');
    return CSocketUtils::StripBrackets(colon == std::string::npos ? client : client.substr(0, colon));
}
} // namespace

std::string CLogRelay::Describe(const Proxy::SConnectionRecord& record)
{
    return CLogText::Field(record.client, CLogText::TEXT_LIMIT) + " " +
           CLogText::Field(record.protocol, CLogText::TEXT_LIMIT) + " " +
           CLogText::Field(record.user, CLogText::USER_LIMIT) + " " +
           CLogText::Field(record.destination, CLogText::DESTINATION_LIMIT) + " " + Proxy::OutcomeText(record.outcome) +
           " " + std::to_string(record.bytesClientToHost) + " " + std::to_string(record.bytesHostToClient) + " " +
           std::to_string(record.durationMs) + " " + CLogText::Field(record.method, CLogText::TEXT_LIMIT) + " " +
           (record.status > 0 ? std::to_string(record.status) : std::string("-"));
}

void CLogRelay::OnStarted(const std::string& address, int port)
{
    Emit(ZRT_LOG_INFO, "listening on " + CSocketUtils::FormatEndpoint(address, port));
}

void CLogRelay::OnStopped()
{
    Emit(ZRT_LOG_INFO, "stopped");
}

void CLogRelay::OnConnectionFinished(const Proxy::SConnectionRecord& record)
{
    if (m_writer.HasAccessLog())
        m_writer.Push(CLogWriter::EKind::Access, 0,
                      CAccessLog::FormatLine(record, std::chrono::system_clock::now()));
    const int level = LevelOf(record.outcome);
    if (!m_writer.Wants(level))
        return;
    if (level == ZRT_LOG_WARNING &&
        !m_limit.Admit(Proxy::OutcomeText(record.outcome), AddressOf(record.client), CLogRateLimit::Now()))
        return;
    m_writer.Push(CLogWriter::EKind::Line, level, Describe(record));
}

void CLogRelay::OnError(const std::string& text)
{
    Emit(ZRT_LOG_ERROR, text);
}

void CLogRelay::Emit(int level, const std::string& line)
{
    if (m_writer.Wants(level))
        m_writer.Push(CLogWriter::EKind::Line, level, CLogText::Escape(line, CLogText::TEXT_LIMIT));
}

} // namespace Api
} // namespace ZRT
