#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "proxy/core/IProxyConnection.h"
#include "proxy/httpproxy/CHTTPBody.h"
#include "proxy/httpproxy/CProxyHTTPResponse.h"
#include "proxy/httpproxy/EHTTPRequestKind.h"
#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// The origin's answer to one proxy request on its way to the client: its head read and checked
// (an answer whose length is not certain, a 407, a 101 nobody asked for are not passed on), its
// fields meant for one connection dropped, then its body as framed (for an HTTP/1.0 client a
// chunked body loses its chunks and ends with the connection). It also tells whether the origin
// connection stays in step for another request and whether the client connection ends with it.
//
//   Head -> Body -> Done          (interim answers pass on and leave it in Head)
//   Head -> Done                  (no body)
//   Head -> Upgraded              (101 to an upgrade: every later byte is the tunnel's)
//   Head | Body | Upgraded -> Lost (the origin closed before the end of its answer)
//   Head | Body -> Faulted        (an answer that cannot be passed on)
//
// Every operation is called on the connection's thread, by its HTTP handler: Begin when a
// request's head was read, Expect when it went to an origin, Read for the origin's bytes,
// OnOriginEnd for its close, Relayed for body bytes moved by the connection's fast path.
class ZRT_EXPORT CHTTPAnswer {
public:
    enum class EState { Head, Body, Done, Upgraded, Lost, Faulted };

    // persistent: the proxy keeps client connections (it speaks HTTP/1.1 to them, else 1.0).
    CHTTPAnswer(IProxyConnection& connection, bool persistent);

    // A new request; nothing of the previous answer carries over. clientPersistent: the client
    // lets its connection carry another request.
    void Begin(const std::string& method, EHTTPRequestKind kind, bool clientHttp10, bool clientPersistent);
    // The answer was recorded: until the next Begin nothing of it has reached the client.
    void Forget() { m_status = 0; }
    // The request went to an origin connection (once more, when a kept one was lost).
    void Expect();
    // Bytes from the origin. requestOpen: the request's body is not all sent yet or the client
    // finished sending; either way the client connection ends with this answer.
    void Read(const char* data, size_t length, bool requestOpen);
    void OnOriginEnd();
    // Bytes of the body that may pass unchanged, and those that did; true when that ended it.
    uint64_t GetRelayAllowance() const;
    bool Relayed(uint64_t count);
    // The origin connection heard more than the request (the client's end): no other request
    // may use it.
    void LeaveOriginOutOfStep() { m_originInStep = false; }

    EState GetState() const { return m_state; }
    // The status the client got from the origin, 0 before an answer began to reach it.
    int GetStatus() const { return m_status; }
    bool HasStarted() const { return m_status != 0; }
    bool EndsClient() const { return m_endsClient; }
    bool KeepsOriginInStep() const { return m_originInStep; }
    const std::string& GetFault() const { return m_fault; }

private:
    // Each takes the bytes it used from the front of data; false: nothing more to read now.
    bool ReadHead(const char*& data, size_t& length, std::string& carried, bool requestOpen);
    bool ReadBody(const char*& data, size_t& length);
    void StartResponse(bool requestOpen);
    void SwitchProtocols(CHTTPResponse& response, int status);
    void PassInterim(CHTTPResponse& response);
    void StartFinal(CHTTPResponse& response, int status, bool requestOpen);
    void SendHead(const CHTTPResponse& response, const char* version, int status);
    void Fault(const std::string& why);

    IProxyConnection& m_connection;
    const char* const m_version; // what the proxy speaks to its client
    CProxyHTTPResponse::CParser m_parser;
    EState m_state = EState::Head;
    std::string m_method;
    EHTTPRequestKind m_kind = EHTTPRequestKind::Ordinary;
    bool m_clientHttp10 = false;
    bool m_endsClient = false;   // the client connection ends with this answer
    bool m_originInStep = false; // the origin said and framed no more than its answer
    int m_status = 0;
    CHTTPBody m_body;
    std::string m_fault;         // why the answer cannot be passed on (Faulted)
};

} // namespace Proxy
} // namespace ZRT
