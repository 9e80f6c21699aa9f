#include "proxy/http/CChunkedBody.h"

#include "proxy/http/CHTTPSyntax.h"
#include "transport/CHexDigit.h"

namespace ZRT {
namespace Proxy {

CChunkedBody::SRun CChunkedBody::Next(const unsigned char* data, size_t len)
{
    if (m_state == EState::Data) {
        const size_t run = m_size < len ? static_cast<size_t>(m_size) : len;
        SkipData(run);
        return {EPart::Data, run};
    }
    size_t run = 0;
    while (run < len && m_state != EState::Data && m_state != EState::Done && m_state != EState::Failed) {
        if (!Step(data[run])) {
            m_state = EState::Failed;
            break;
        }
        ++run;
    }
    return {EPart::Framing, run};
}

uint64_t CChunkedBody::GetDataLeft() const
{
    return m_state == EState::Data ? m_size : 0;
}

void CChunkedBody::SkipData(uint64_t count)
{
    if (m_state != EState::Data || count > m_size) {
        m_state = EState::Failed;
        return;
    }
    m_size -= count;
    if (m_size == 0)
        m_state = EState::DataCR;
}

void CChunkedBody::Reset()
{
    m_state = EState::SizeStart;
    m_size = 0;
    m_digits = 0;
    m_lineBytes = 0;
    m_trailerBytes = 0;
}

bool CChunkedBody::Step(unsigned char c)
{
    if (++m_lineBytes > MAX_LINE)
        return false;
    switch (m_state) {
    case EState::DataCR:
        m_state = EState::DataLF;
        return c == '\r';
    case EState::DataLF:
        EndLine(EState::SizeStart);
        return c == '\n';
    case EState::TrailerStart:
    case EState::TrailerName:
    case EState::TrailerValue:
    case EState::TrailerLF:
    case EState::EndLF:
        return StepTrailer(c);
    default:
        return StepSizeLine(c);
    }
}

bool CChunkedBody::StepSizeLine(unsigned char c)
{
    const int digit = CHexDigit::Value(c);
    switch (m_state) {
    case EState::SizeStart:
    case EState::Size:
        if (digit >= 0) {
            if (++m_digits > MAX_SIZE_DIGITS)
                return false;
            m_size = m_size * 16 + static_cast<uint64_t>(digit);
            m_state = EState::Size;
            return true;
        }
        if (m_state == EState::SizeStart)
            return false;
        if (c == '\r')
            m_state = EState::SizeLF;
        else if (c == ';')
            m_state = EState::Extension;
        else if (CHTTPSyntax::IsBlank(c))
            m_state = EState::SizeBlank;
        else
            return false;
        return true;
    case EState::SizeBlank:
        if (c == ';')
            m_state = EState::Extension;
        return c == ';' || CHTTPSyntax::IsBlank(c);
    case EState::Extension:
        if (c == '\r')
            m_state = EState::SizeLF;
        return c == '\r' || CHTTPSyntax::IsTextChar(c);
    case EState::SizeLF:
        EndLine(m_size > 0 ? EState::Data : EState::TrailerStart);
        return c == '\n';
    default:
        return false;
    }
}

bool CChunkedBody::StepTrailer(unsigned char c)
{
    if (++m_trailerBytes > MAX_TRAILERS)
        return false;
    switch (m_state) {
    case EState::TrailerStart:
        if (c == '\r') {
            m_state = EState::EndLF;
            return true;
        }
        m_state = EState::TrailerName;
        return CHTTPSyntax::IsTokenChar(c);
    case EState::TrailerName:
        if (c == ':')
            m_state = EState::TrailerValue;
        return c == ':' || CHTTPSyntax::IsTokenChar(c);
    case EState::TrailerValue:
        if (c == '\r')
            m_state = EState::TrailerLF;
        return c == '\r' || CHTTPSyntax::IsTextChar(c);
    case EState::TrailerLF:
        EndLine(EState::TrailerStart);
        return c == '\n';
    case EState::EndLF:
        EndLine(EState::Done);
        return c == '\n';
    default:
        return false;
    }
}

void CChunkedBody::EndLine(EState next)
{
    m_state = next;
    m_lineBytes = 0;
    m_digits = 0;
}

} // namespace Proxy
} // namespace ZRT
