#include "proxy/httpproxy/CHTTPReplies.h"

namespace ZRT {
namespace Proxy {

constexpr char CHTTPReplies::CONNECTION_ESTABLISHED[];
constexpr char CHTTPReplies::BAD_REQUEST[];
constexpr char CHTTPReplies::NOT_FOUND[];
constexpr char CHTTPReplies::FORBIDDEN[];
constexpr char CHTTPReplies::AUTHENTICATION_REQUIRED[];
constexpr char CHTTPReplies::BAD_GATEWAY[];

namespace {
struct SText {
    const char* status;
    const char* text;
};

SText TextOf(CHTTPReplies::EReply reply)
{
    using EReply = CHTTPReplies::EReply;
    switch (reply) {
    case EReply::BadRequest:
        return {"400 Bad Request", "The proxy could not read this request."};
    case EReply::Forbidden:
        return {"403 Forbidden", "The proxy does not reach this destination."};
    case EReply::NotFound:
        return {"404 Not Found", "The proxy found no destination for this request."};
    case EReply::AuthRequired:
        return {"407 Proxy Authentication Required", "The proxy needs a user name and password."};
    case EReply::BadGateway:
        return {"502 Bad Gateway", "The proxy could not get an answer from the destination."};
    case EReply::GatewayTimeout:
        return {"504 Gateway Timeout", "The destination did not answer in time."};
    case EReply::LoopDetected:
        return {"508 Loop Detected", "This request names the proxy itself."};
    }
    return {"502 Bad Gateway", ""};
}

const char* FixedReply(CHTTPReplies::EReply reply)
{
    using EReply = CHTTPReplies::EReply;
    switch (reply) {
    case EReply::BadRequest:
        return CHTTPReplies::BAD_REQUEST;
    case EReply::Forbidden:
        return CHTTPReplies::FORBIDDEN;
    case EReply::AuthRequired:
        return CHTTPReplies::AUTHENTICATION_REQUIRED;
    case EReply::BadGateway:
        return CHTTPReplies::BAD_GATEWAY;
    case EReply::NotFound:
    case EReply::GatewayTimeout:
    case EReply::LoopDetected:
        break;
    }
    return CHTTPReplies::NOT_FOUND;
}
} // namespace

std::string CHTTPReplies::Make(EReply reply, bool persistent, const std::string& why)
{
    if (!persistent)
        return FixedReply(reply);
    const SText text = TextOf(reply);
    const std::string body = (why.empty() ? std::string(text.text) : why) + "\n";
    std::string head = std::string("HTTP/1.1 ") + text.status + "\r\nContent-Type: text/plain; charset=utf-8\r\n";
    if (reply == EReply::AuthRequired)
        head += "Proxy-Authenticate: Basic realm=\"zrt-proxy\"\r\n";
    return head + "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

} // namespace Proxy
} // namespace ZRT
