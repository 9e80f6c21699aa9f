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
    if (outcome == EOutcome::Ok && m_header.NamesClient()) {
        // The record names the client even when it is refused; the balancer's slot is the
        // connection's until the client has one.
        const sockaddr_storage& client = m_header.GetClient();
        const socklen_t length = client.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        m_address.SetAddress(reinterpret_cast<const sockaddr&>(client), length);
        m_record.SetClient(m_address.ToString());
        outcome = m_admit(m_peer, client);
        if (outcome == EOutcome::Ok)
            m_peer = client;
    }
    if (outcome != EOutcome::Ok)
        m_record.SetOutcome(outcome);
    return outcome == EOutcome::Ok;
}

} // namespace Proxy
} // namespace ZRT
