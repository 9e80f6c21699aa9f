#pragma once

#include <cstdint>
#include <string>

namespace ZRT {
namespace Proxy {

// How an exchange with a client ended, as the handler judged it.
// NotAllowed: the client, or a destination that is the proxy itself; Denied: a destination that
// the destination rules refuse; OverLimit: closed at accept by a client limit; NoRequest: the
// client went (or timed out) before it sent a whole request.
enum class EOutcome { Ok, BadRequest, NoDestination, Unreachable, NotAllowed, AuthFailed, Timeout, Denied, OverLimit, NoRequest };

// One finished connection (or UDP association): what the access log and the host's log hear.
struct SConnectionRecord {
    std::string client;            // address:port
    std::string protocol = "-";    // socks5, http, connect, udp, bind; "-" when none was chosen
    std::string user = "-";        // "-" without authentication
    std::string destination = "-"; // host:port as the client named it; "-" when none
    EOutcome outcome = EOutcome::Ok;
    uint64_t bytesClientToHost = 0;
    uint64_t bytesHostToClient = 0;
    uint64_t durationMs = 0;
    // One HTTP request of a persistent connection: its method and the status it was answered
    // with ("-" and 0 for a whole connection).
    std::string method = "-";
    int status = 0;
};

// Told of a proxy's events by the engine, on whatever thread they happen, never with a lock of
// the engine held. The observer must outlive the proxy's run (StopProxy).
class IProxyObserver {
public:
    virtual ~IProxyObserver() = default;
    virtual void OnStarted(const std::string& address, int port) = 0;
    virtual void OnStopped() = 0;
    virtual void OnConnectionFinished(const SConnectionRecord& record) = 0;
    // One request of a persistent HTTP connection was answered; such a connection then gets no
    // record of its own at its end.
    virtual void OnRequestFinished(const SConnectionRecord& record) { OnConnectionFinished(record); }
    virtual void OnError(const std::string& text) = 0;
};

// The text an outcome has in logs: ok, bad-request, refused, unreachable, not-allowed, ...
inline const char* OutcomeText(EOutcome outcome)
{
    switch (outcome) {
    case EOutcome::Ok:
        return "ok";
    case EOutcome::BadRequest:
        return "bad-request";
    case EOutcome::NoDestination:
        return "refused";
    case EOutcome::Unreachable:
        return "unreachable";
    case EOutcome::NotAllowed:
        return "not-allowed";
    case EOutcome::AuthFailed:
        return "auth-failed";
    case EOutcome::Timeout:
        return "timeout";
    case EOutcome::Denied:
        return "denied";
    case EOutcome::OverLimit:
        return "over-limit";
    case EOutcome::NoRequest:
        return "no-request";
    }
    return "ok";
}

} // namespace Proxy
} // namespace ZRT
