#include "proxy/core/CCarriedClient.h"

#include <netinet/in.h>

namespace ZRT {
namespace Proxy {

std::optional<bool> CCarriedClient::Read(int socket, std::optional<Clock::time_point> deadline)
{
    const CProxyHeader::EState state = m_header.Take(socket);
    if (state == CProxyHeader::EState::Incomplete && (!deadline || Clock::now() < *deadline))
        return std::nullopt;
    EOutcome outcome = state == CProxyHeader::EState::Done ? EOutcome::Ok : EOutcome::BadRequest;
    if (outcome == EOutcome::Ok && m_header.NamesClient())
        outcome = m_admit(m_peer, m_header.GetClient());
    if (outcome != EOutcome::Ok) {
        m_record.SetOutcome(outcome);
        return false;
    }
    if (m_header.NamesClient()) {
        const sockaddr_storage& client = m_header.GetClient();
        const socklen_t length = client.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        m_address.SetAddress(reinterpret_cast<const sockaddr&>(client), length);
        m_peer = client;
        m_record.SetClient(m_address.ToString());
    }
    return true;
}

} // namespace Proxy
} // namespace ZRT
