#pragma once

#include <optional>
#include <string>

#include "proxy/address/CNameLookup.h"
#include "proxy/auth/CLoginCheck.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
#include "proxy/httpproxy/CHTTPBody.h"
#include "proxy/httpproxy/CHTTPReplies.h"
#include "proxy/httpproxy/CHTTPRoute.h"
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
// One state machine on the connection's thread:
//
//   ReadHead -> [Login] -> [Resolve] -> [Connect] -> Exchange -> ReadHead (persistent) | Closing
//                                                \-> Tunnel (CONNECT, 101)
//   any state -> Closing (a refusal, the last answer); Terminate stops everything
//
// DoLoop runs the current state's step until it has to wait. The waits end through the
// connection's calls: HandleRequest (client bytes), HandleResponse (origin bytes: the answer is
// read as it comes, in Exchange), Resume (a name or a password hash answered), OnHostConnected,
// OnTimer (a slowed login's turn, the lookup's limit, the idle time between requests), and the
// relay fast path (OnRequestRelayed, OnResponseRelayed) for the bytes of a framed body.
class ZRT_EXPORT CConnectionProtocol_HTTP : public IConnectionProtocol {
public:
    enum class EState { ReadHead, Login, Resolve, Connect, Exchange, Tunnel, Closing, Closed };

    // Splits a Set-Cookie value that joins several cookies with commas into one field each; a
    // comma followed by a space (as in an Expires date) does not split.
    class ZRT_EXPORT CProxyHTTPResponse : public CHTTPResponse {
    public:
        void AddHeader(const std::string& name, const std::string& value) override;
    };

    class ZRT_EXPORT CProxyHTTPResponseParser : public CHTTPResponseParser {
    public:
        ~CProxyHTTPResponseParser() override;
        CHTTPPacket* CreatePacket() const override;
    };

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
    // Where the answer to the request under way stands.
    enum class EResponse { Head, Body, Done };

    void DoLoop();
    EState DoReadHead();
    EState DoLogin();
    EState DoResolve();
    EState DoConnect();
    EState DoExchange();
    EState DoTunnel();

    EState StartRequest();
    EState StartLogin(const std::string& authorization);
    EState FindDestination();
    EState UseDestination(const AddressPtr& destination);
    EState SendRequest();
    EState FinishExchange();
    // The client gets reply (unless an answer to it began already) and the connection ends.
    EState Fail(CHTTPReplies::EReply reply, EOutcome outcome, const std::string& why = std::string());
    // An origin that closed before its answer: a new connection when the request allows it.
    EState OriginLost();

    // Client bytes of the request's body, as many as belong to it; false when its chunked
    // framing is malformed.
    bool ForwardBody(const char* data, size_t length, size_t& taken);
    void ReadResponse(const char* data, size_t length);
    // The answer's head is complete: interim, upgrade, or the final one and its body's framing.
    void StartResponse();
    void FaultResponse(const std::string& why);
    bool Persistent() const { return m_keepAliveMs > 0; }
    // The origin connection goes back to the pool when it answered cleanly, else it is closed.
    void LetGoOfOrigin(bool reusable);

    IProxyConnection& m_connection;
    const int m_keepAliveMs;
    EState m_state = EState::ReadHead;
    bool m_terminated = false;
    CHTTPRequestParser m_requestParser;
    CProxyHTTPResponseParser m_responseParser;
    CNameLookup m_lookup;
    CLoginCheck m_login;
    // Client bytes not handled yet: the rest of a request behind its head, the next requests.
    std::string m_input;
    bool m_clientEnded = false;

    // The request under way.
    QOX::CRefCountPtr<CHTTPRequest> m_request;
    std::string m_method;
    CHTTPRoute m_route;
    bool m_tunnel = false;           // CONNECT
    bool m_upgrade = false;          // asks to switch protocols (kept only with keep-alive)
    bool m_clientHttp10 = false;
    bool m_clientPersistent = false; // the client lets the connection carry another request
    CHTTPBody m_requestBody;
    AddressPtr m_destination;
    std::string m_originKey;         // the destination's address and port, for the pool
    bool m_parked = false;           // its origin connection stays attached, idle, for the next request
    bool m_reusedOrigin = false;
    bool m_retried = false;
    std::optional<bool> m_connected; // OnHostConnected's news, taken by DoConnect

    // The answer.
    EResponse m_response = EResponse::Head;
    CHTTPBody m_responseBody;
    int m_status = 0;
    bool m_responseStarted = false;  // bytes of the answer reached the client
    bool m_originReusable = false;
    bool m_closeAfter = false;       // the client connection ends with this answer
    bool m_upgraded = false;         // the origin switched protocols: a tunnel from now on
    bool m_originLost = false;       // the origin closed before its answer was complete
    bool m_endPassedOn = false;      // the client's end went on to the origin
    std::string m_responseFault;     // why the answer cannot be passed on, when it cannot
};

} // namespace Proxy
} // namespace ZRT
