#pragma once

namespace ZRT {
namespace Proxy {

// What a proxy request asks for: an answer, a tunnel (CONNECT), or an answer that may switch
// protocols (an upgrade, which the origin accepts with 101 and which then is a tunnel too).
enum class EHTTPRequestKind { Ordinary, Connect, Upgrade };

} // namespace Proxy
} // namespace ZRT
