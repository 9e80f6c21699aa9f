#pragma once

#include <string>

#include "proxy/address/CNameLookup.h"
#include "proxy/auth/CLoginCheck.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/httpproxy/CHTTPAnswer.h"
#include "proxy/httpproxy/CHTTPBody.h"
#include "proxy/httpproxy/CHTTPOriginLink.h"
#include "proxy/httpproxy/CHTTPReplies.h"
#include "proxy/httpproxy/CHTTPRoute.h"
#include "proxy/httpproxy/EHTTPRequestKind.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// The HTTP proxy side of one client connection. Every request is read, checked (its framing, the
// user, the destination rules) and routed on its own; nothing a client sends after a request is
// relayed raw. A CONNECT request (or an upgrade that the origin accepts with 101) turns the
// connection into a tunnel.
//
// With http-keep-alive the connection serves request after request (pipelined ones in order)
// and waits up to that long between them; requests go on as HTTP/1.1 over origin connections
// that the proxy keeps for the next request to the same destination (COriginPool). Without it,
// a connection serves one request, forwarded as HTTP/1.0 in origin form, and its answer carries
// "Connection: close". Bodies are framed by their heads (Content-Length or chunked; a response
// may also run until its origin closes): a request whose length is not certain is refused (400)
// and an origin whose answer is not is not believed (502). Fields meant for one connection
// (Connection and what it names, Proxy-Authorization, Proxy-Authenticate, ...) never pass.
//
// One state machine, run by DoLoop alone: each step returns the next state, and DoLoop runs steps
// until one has to wait. Every operation is called on the connection's thread. The entry points
// record what happened and run the loop, whose step for the current state takes it:
// HandleRequest (client bytes, held until a step takes them; a body in full flow goes on at
// once), HandleResponse (origin bytes, read by the answer as they come, in Exchange),
// HandleClientEnd and HandleHostEnd, Resume (a name or a password hash answered),
// OnHostConnected, OnTimer (a slowed login's turn, the lookup's limit, the idle time between
// requests), the relay fast path (OnRequestRelayed, OnResponseRelayed) for the bytes of a framed
// body, and Terminate (the connection's end). Its parts: CHTTPAnswer (the answer under way) and
// CHTTPOriginLink (the origin connection, kept between requests).
//
//   ReadHead -> [Login] -> [Resolve] -> [Connect] -> Exchange -> ReadHead (persistent) | Closing
//                                                \-> Tunnel (CONNECT)          \-> Tunnel (101)
//   Exchange -> Connect (a reused origin connection lost before any answer, once)
//   any state -> Closing (a refusal, the last answer; the connection is asked to end)
//   any state -> Closed (Terminate)
class ZRT_EXPORT CConnectionProtocol_HTTP : public IConnectionProtocol {
public:
    enum class EState { ReadHead, Login, Resolve, Connect, Exchange, Tunnel, Closing, Closed };

    explicit CConnectionProtocol_HTTP(IProxyConnection& connection);
    ~CConnectionProtocol_HTTP() override;
    CConnectionProtocol_HTTP(const CConnectionProtocol_HTTP&) = delete;
    CConnectionProtocol_HTTP& operator=(const CConnectionProtocol_HTTP&) = delete;

    void Init() override;
    void Terminate() override;
    void HandleRequest(const char* data, int length) override;
    void HandleResponse(const char* data, int length) override;
    unsigned int GetRequestBacklog() const override { return static_cast<unsigned int>(m_input.size()); }
    bool PassesResponsesThrough() const override { return m_state == EState::Tunnel; }
    bool PassesRequestsThrough() const override { return m_state == EState::Tunnel && m_input.empty(); }
    unsigned long long GetResponseRelayAllowance() const override;
    void OnResponseRelayed(unsigned long long count) override;
    unsigned long long GetRequestRelayAllowance() const override;
    void OnRequestRelayed(unsigned long long count) override;
    bool HandleClientEnd() override;
    bool HandleHostEnd() override;
    void OnHostConnected(bool connected) override;
    void Resume() override;
    void OnTimer() override;
    const char* GetFamily() const override { return "http"; }

    EState GetState() const { return m_state; }

private:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;
    // What an entry point hands to the step of the current state.
    enum class EEvent { None, Connected, ConnectFailed, Timer, MalformedBody, Terminated };
    // The client's end of sending: it goes on to the origin once the request's body is sent.
    enum class EClientEnd { Sending, Ended, PassedOn };

    void DoLoop(EEvent event = EEvent::None);
    EState DoStep(EState state, EEvent event);
    EState DoReadHead(EEvent event);
    EState DoLogin();
    EState DoResolve();
    EState DoConnect(EEvent event);
    EState DoExchange(EEvent event);
    EState DoTunnel();

    EState StartRequest();
    EState RouteRequest(const std::string& authorization);
    EState StartLogin(const std::string& authorization);
    EState FindDestination();
    EState UseDestination(const AddressPtr& destination);
    EState SendRequest();
    // The held client bytes of the request's body go on; false when its chunked framing is
    // malformed.
    bool ForwardHeldBody();
    // A client that finished with its request: the origin hears the end too (some answer only
    // then), and its connection serves nobody else afterwards.
    void PassClientEnd();
    EState FinishExchange();
    // The client gets reply (unless an answer to it began already) and the connection ends.
    EState Fail(CHTTPReplies::EReply reply, EOutcome outcome, const std::string& why = std::string());
    // An origin that closed before its answer: a new connection when the request allows it.
    EState OriginLost();

    // Client bytes of the request's body, as many as belong to it; false when its chunked
    // framing is malformed.
    bool ForwardBody(const char* data, size_t length, size_t& taken);
    bool Persistent() const { return m_keepAliveMs > 0; }
    // The origin connection goes back to the pool when it answered cleanly, else it is closed.
    void LetGoOfOrigin(bool reusable);

    IProxyConnection& m_connection;
    const int m_keepAliveMs;
    EState m_state = EState::ReadHead;
    EClientEnd m_clientEnd = EClientEnd::Sending;
    CHTTPRequestParser m_requestParser;
    CNameLookup m_lookup;
    CLoginCheck m_login;
    // Client bytes not handled yet: the rest of a request behind its head, the next requests.
    std::string m_input;

    // The request under way.
    QOX::CRefCountPtr<CHTTPRequest> m_request;
    std::string m_method;
    EHTTPRequestKind m_kind = EHTTPRequestKind::Ordinary;
    CHTTPRoute m_route;
    CHTTPBody m_requestBody;
    CHTTPOriginLink m_origin;
    CHTTPAnswer m_answer;
};

} // namespace Proxy
} // namespace ZRT
