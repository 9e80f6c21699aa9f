#include "proxy/socks4/CConnectionProtocol_SOCKS4.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/socks5/CSocksAddress.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

namespace {
const unsigned char SOCKS_VERSION = 4;
// VN CD DSTPORT DSTIP: the fixed part before the user id.
const size_t HEADER_LENGTH = 8;

enum ECommand { CMD_CONNECT = 1, CMD_BIND = 2 };
enum EReply { REP_GRANTED = 90, REP_REJECTED = 91 };

// 0.0.0.x with x not 0: the client left the name to the proxy (4A).
bool NamesHost(const unsigned char* ip)
{
    return ip[0] == 0 && ip[1] == 0 && ip[2] == 0 && ip[3] != 0;
}

// The offset of the first NUL in [from, from + limit], or 0 while none is there; `overflow` when
// the limit passed without one.
size_t FindEnd(const unsigned char* bytes, size_t size, size_t from, size_t limit, bool& overflow)
{
    const size_t stop = std::min(size, from + limit + 1);
    for (size_t i = from; i < stop; ++i) {
        if (bytes[i] == 0)
            return i;
    }
    overflow = size > from + limit;
    return 0;
}
} // namespace

// ---- life cycle ----

CConnectionProtocol_SOCKS4::CConnectionProtocol_SOCKS4(IProxyConnection& connection)
    : CSocksHandler(connection, EState::Request),
      m_lookup([&connection] { connection.WakeHandler(); }, connection.GetSettings().lookupLimitMs)
{
}

CConnectionProtocol_SOCKS4::~CConnectionProtocol_SOCKS4()
{
    CConnectionProtocol_SOCKS4::Terminate(); // no dynamic dispatch from a destructor
}

void CConnectionProtocol_SOCKS4::Terminate()
{
    Run(ESocksEvent::Terminated);
    m_input.Clear();
    m_lookup.Cancel();
    if (m_bind)
        m_bind->Stop();
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::Refuse(EOutcome outcome)
{
    m_connection.SetOutcome(outcome);
    SendReply(REP_REJECTED, nullptr);
    return EState::Closed;
}

// ---- the state machine ----

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoStep(EState state, ESocksEvent event)
{
    switch (state) {
    case EState::Request:
        return DoRequest();
    case EState::Resolve:
        return DoResolveComplete(); // a timer or an answer: the lookup says which
    case EState::Connect:
        return DoConnectOutcome(event);
    case EState::BindAccept:
        return DoBindAccept(event);
    case EState::Relay:
        // What the client sent while the command was under way goes first.
        return m_input.Release() ? EState::Relay : EState::Closed;
    case EState::Closed:
        break;
    }
    return state;
}

CConnectionProtocol_SOCKS4::EParse CConnectionProtocol_SOCKS4::ParseRequest(SRequestLayout& layout) const
{
    const unsigned char* data = m_input.Data();
    const size_t size = m_input.Size();
    if (size < HEADER_LENGTH)
        return EParse::Incomplete;
    bool overflow = false;
    layout.userEnd = FindEnd(data, size, HEADER_LENGTH, MAX_FIELD_LENGTH, overflow);
    if (layout.userEnd == 0)
        return overflow ? EParse::Malformed : EParse::Incomplete;
    if (!NamesHost(data + 4))
        return EParse::Whole;
    layout.nameEnd = FindEnd(data, size, layout.userEnd + 1, MAX_FIELD_LENGTH, overflow);
    if (layout.nameEnd == 0)
        return overflow ? EParse::Malformed : EParse::Incomplete;
    return EParse::Whole;
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoRequest()
{
    const unsigned char* data = m_input.Data();
    if (m_input.Size() > 0 && data[0] != SOCKS_VERSION) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        return EState::Closed;
    }
    // An unknown command is refused at once: what follows it may never end.
    if (m_input.Size() >= 2 && data[1] != CMD_CONNECT && data[1] != CMD_BIND)
        return Refuse(EOutcome::BadRequest);
    SRequestLayout layout;
    const EParse parsed = ParseRequest(layout);
    if (parsed == EParse::Incomplete)
        return EState::Request;
    if (parsed == EParse::Malformed)
        return Refuse(EOutcome::BadRequest);
    const SDestination destination = TakeRequest(layout);

    // No password comes with SOCKS4: with users it is let in only when the settings say so.
    const SProxySettings& settings = m_connection.GetSettings();
    if (!settings.users.empty() && !settings.socks4WithUsers)
        return Refuse(EOutcome::AuthFailed);
    if (!destination.named)
        return DoCommand(AddressPtr(destination.numeric.Clone()));
    if (!CAddressManager::IsPlausibleHostName(destination.name))
        return Refuse(EOutcome::BadRequest);
    m_lookup.Start(m_connection.GetAddressManager(), destination.key);
    return DoResolveComplete();
}

CConnectionProtocol_SOCKS4::SDestination CConnectionProtocol_SOCKS4::TakeRequest(const SRequestLayout& layout)
{
    const unsigned char* data = m_input.Data();
    m_command = data[1];
    const unsigned int port = static_cast<unsigned int>(data[2]) << 8 | data[3];
    const bool named = layout.nameEnd != 0;
    SDestination destination{CTCPIPAddress(data[4], data[5], data[6], data[7], port), named, {}, {}};
    const std::string user(reinterpret_cast<const char*>(data + HEADER_LENGTH), layout.userEnd - HEADER_LENGTH);
    if (named)
        destination.name.assign(reinterpret_cast<const char*>(data + layout.userEnd + 1), layout.nameEnd - layout.userEnd - 1);
    destination.key = named ? destination.name + ":" + std::to_string(port) : destination.numeric.ToString();
    m_input.Consume(static_cast<unsigned int>((named ? layout.nameEnd : layout.userEnd) + 1));
    m_connection.MarkRequestComplete();
    m_connection.SetUser(user);
    m_connection.DescribeExchange(m_command == CMD_BIND ? "bind" : named ? "socks4a" : "socks4", destination.key);
    return destination;
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoResolveComplete()
{
    AddressPtr address;
    const CNameLookup::EResult result = m_lookup.Take(address);
    // Back when the answer comes (Resume), or by the lookup's limit.
    m_connection.SetHandlerTimer(m_lookup.GetWakeDelay());
    if (result == CNameLookup::EResult::Waiting)
        return EState::Resolve;
    // A name that is not answered in time does not resolve either.
    return DoCommand(address);
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoCommand(const AddressPtr& destination)
{
    if (!destination)
        return Refuse(EOutcome::NoDestination);
    return m_command == CMD_BIND ? DoBind(destination) : DoConnect(destination);
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoConnect(const AddressPtr& destination)
{
    // A tunnel back into the proxy would loop until the descriptors run out.
    if (m_connection.GetAddressManager().IsProxyItself(*destination))
        return Refuse(EOutcome::NotAllowed);
    if (!m_connection.IsDestinationAllowed(*destination))
        return Refuse(EOutcome::Denied);
    if (!m_connection.BeginConnectToHost(destination))
        return Refuse(EOutcome::Unreachable);
    return EState::Connect;
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoConnectOutcome(ESocksEvent event)
{
    if (event == ESocksEvent::ConnectFailed)
        return Refuse(EOutcome::Unreachable);
    if (event != ESocksEvent::Connected)
        return EState::Connect;
    // The address fields of a CONNECT's reply mean nothing to the client.
    SendReply(REP_GRANTED, nullptr);
    return EState::Relay;
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoBind(const AddressPtr& destination)
{
    IConnectionListener* listener = m_connection.GetConnectionListener();
    if (!listener)
        return Refuse(EOutcome::BadRequest);
    // 0.0.0.0 takes a peer from anywhere; any other address is judged as a destination.
    const std::string expected = CSocksAddress::HostKey(*destination);
    const bool anyPeer = expected.find_first_not_of('\0') == std::string::npos;
    if (!anyPeer && !m_connection.IsDestinationAllowed(*destination))
        return Refuse(EOutcome::Denied);
    m_bind.reset(new CSocks5Bind(m_connection));
    const AddressPtr listening = m_bind->Start(*listener, *destination);
    if (!listening)
        return Refuse(EOutcome::Unreachable);
    SendReply(REP_GRANTED, listening.Get());
    m_connection.SetHandlerTimer(m_connection.GetSettings().bindWaitMs);
    return EState::BindAccept;
}

CConnectionProtocol_SOCKS4::EState CConnectionProtocol_SOCKS4::DoBindAccept(ESocksEvent event)
{
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    AddressPtr peer;
    if (!m_bind || !m_bind->TakePeer(stream, peer))
        return event == ESocksEvent::Timer ? Refuse(EOutcome::Timeout) : EState::BindAccept;
    m_connection.SetHandlerTimer(-1);
    // A BIND completes once: nobody else is awaited.
    m_bind->Stop();
    if (!peer || !m_connection.AdoptHostLink(stream)) {
        stream->Disconnect();
        return Refuse(EOutcome::Unreachable);
    }
    SendReply(REP_GRANTED, peer.Get());
    return EState::Relay;
}

// ---- replies ----

void CConnectionProtocol_SOCKS4::SendReply(int code, const IZRTConnectionAddress* address)
{
    unsigned char reply[HEADER_LENGTH] = {0, static_cast<unsigned char>(code), 0, 0, 0, 0, 0, 0};
    if (address) {
        const unsigned int port = address->GetPortNumber();
        reply[2] = static_cast<unsigned char>(port >> 8);
        reply[3] = static_cast<unsigned char>(port & 0xFF);
        // An IPv6 address does not fit; 0.0.0.0 tells a BIND's client to use the proxy's own.
        const std::string host = CSocksAddress::HostKey(*address);
        if (host.size() == 4)
            std::memcpy(reply + 4, host.data(), 4);
    }
    m_connection.SendToClient(reinterpret_cast<const char*>(reply), static_cast<int>(sizeof(reply)));
}

} // namespace Proxy
} // namespace ZRT
