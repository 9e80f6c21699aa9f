#pragma once

#include <string>

#include "proxy/address/CNameLookup.h"
#include "proxy/auth/CLoginCheck.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// The HTTP proxy side of one client. A CONNECT request opens a tunnel; any other request has its
// target reduced to origin form, its version forced to HTTP/1.0 and its hop-by-hop headers
// dropped, and goes to the host with the body bytes that came with it. Only the first request and
// the first response of a connection are parsed; everything after them is relayed unchanged.
//
// Runs on the connection's thread. The destination is looked up and connected without waiting
// on the thread: the steps continue in Resume (the lookup answered), OnHostConnected and OnTimer
// (the lookup's limit). Client bytes that arrive meanwhile are held, as the request backlog, and
// handled once the request is (they travel behind it, or are dropped with a refusal).
//
// A destination that is this machine's name or address (by its text), or that resolves to the
// proxy's own listening address (by its value), is refused: it would loop through the proxy.
class ZRT_EXPORT CConnectionProtocol_HTTP : public IConnectionProtocol {
public:
    // Drops the hop-by-hop headers "proxy-connection", "connection" and "keep-alive", so the host
    // sees a request that asks it to close after answering. Proxy-Authorization is the proxy's
    // alone: kept aside for the check, never forwarded.
    class ZRT_EXPORT CProxyHTTPRequest : public CHTTPRequest {
    public:
        void AddHeader(const std::string& name, const std::string& value) override;
        const std::string& GetProxyAuthorization() const { return m_proxyAuthorization; }

    private:
        std::string m_proxyAuthorization;
    };

    // Splits a Set-Cookie value that joins several cookies with commas into one header each.
    // A comma followed by a space (as in an Expires date) does not split.
    class ZRT_EXPORT CProxyHTTPResponse : public CHTTPResponse {
    public:
        void AddHeader(const std::string& name, const std::string& value) override;
    };

    class ZRT_EXPORT CProxyHTTPRequestParser : public CHTTPRequestParser {
    public:
        ~CProxyHTTPRequestParser() override;
        CHTTPPacket* CreatePacket() const override;
    };

    class ZRT_EXPORT CProxyHTTPResponseParser : public CHTTPResponseParser {
    public:
        ~CProxyHTTPResponseParser() override;
        CHTTPPacket* CreatePacket() const override;
    };

    // Replies sent to the client; the array sizes include the terminating NUL, never sent.
    static constexpr char REPLY_CONNECTION_ESTABLISHED[] = "HTTP/1.0 200 Connection established\r\n\r\n";
    static constexpr char REPLY_BAD_REQUEST[] = "HTTP/1.0 400 Bad Request\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    static constexpr char REPLY_NOT_FOUND[] = "HTTP/1.0 404 Not Found\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    // Sent when the destination rules refuse the destination.
    static constexpr char REPLY_FORBIDDEN[] =
        "HTTP/1.0 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    // Sent when the proxy has users and the request did not name one of them.
    static constexpr char REPLY_AUTHENTICATION_REQUIRED[] =
        "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"zrt-proxy\"\r\n"
        "Content-Length: 0\r\nConnection: close\r\n\r\n";
    static constexpr int REPLY_CONNECTION_ESTABLISHED_LENGTH = 39;

    // The version written into the forwarded request and the first response.
    static const std::string ms_httpVersion;

    explicit CConnectionProtocol_HTTP(IProxyConnection& connection);
    ~CConnectionProtocol_HTTP() override;
    CConnectionProtocol_HTTP(const CConnectionProtocol_HTTP&) = delete;
    CConnectionProtocol_HTTP& operator=(const CConnectionProtocol_HTTP&) = delete;

    void Init() override;
    void Terminate() override;
    void HandleRequest(const char* data, int length) override;
    void HandleResponse(const char* data, int length) override;
    unsigned int GetRequestBacklog() const override { return static_cast<unsigned int>(m_held.size()); }
    bool PassesResponsesThrough() const override { return m_responsePassThrough; }
    bool PassesRequestsThrough() const override { return m_requestPassThrough && m_connection.IsConnectedToHost(); }
    bool HandleClientEnd() override;
    bool HandleHostEnd() override;
    void OnHostConnected(bool connected) override;
    void Resume() override;
    void OnTimer() override;
    const char* GetFamily() const override { return "http"; }

protected:
    void ProcessHTTPRequest(const char* data, int length);
    void ProcessHTTPResponse(const char* data, int length);
    // Sends the reply (the 400 reply when null) and drops the client, unless it is gone already.
    void SendErrorToClient(const char* reply);
    // Starts finding the request's destination, or answers the request itself (400 for a host
    // that cannot be a name); false when it has none (no host, or this machine). The answer
    // comes to UseDestination, at once or from Resume.
    bool GetDestination(const QOX::CRefCountPtr<CHTTPRequest>& request);
    // "host:port" from the Host header, else the target; the port defaults to 80.
    bool ExtractAddress(const QOX::CRefCountPtr<CHTTPRequest>& request, std::string& address);

private:
    // Where the first request stands while its login is checked and its destination is found
    // and connected.
    enum class EWait { None, Login, Lookup, Connect };

    void UseDestination(const QOX::CRefCountPtr<IZRTConnectionAddress>& destination);
    // The 404 reply, with how the exchange ended.
    void Refuse(EOutcome outcome);
    void ForwardRequest(CHTTPRequest& request);
    // With users: true when the request names one with the right password (Basic) and the
    // answer is known now; false when the 407 reply went out (and the client is closed) or the
    // answer is awaited (EWait::Login).
    bool StartLogin(const CHTTPRequest& request);
    // The awaited answer, if it came: as StartLogin.
    bool TakeLogin();
    bool FinishLogin(bool valid);
    // Finds the request's destination (or refuses it).
    void Route();

    CProxyHTTPRequestParser m_requestParser;
    CProxyHTTPResponseParser m_responseParser;
    IProxyConnection& m_connection;
    bool m_requestPassThrough = false;
    bool m_responsePassThrough = false;
    EWait m_wait = EWait::None;
    QOX::CRefCountPtr<CHTTPRequest> m_request;
    CNameLookup m_lookup;
    CLoginCheck m_login;
    // Client bytes that came while the request waited, and whether the client ended meanwhile.
    std::string m_held;
    bool m_clientEnded = false;
};

} // namespace Proxy
} // namespace ZRT
