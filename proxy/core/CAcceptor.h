#pragma once

#include "runtime/CThread.h"

namespace ZRT {
namespace Proxy {

class CProxyServer;

// One thread of a server's: it waits for a client in accept and then serves that client itself,
// so a new client costs no hand-off to another thread. The server keeps a few of them waiting;
// one that has served its client waits for the next unless enough others do. It deletes itself
// when its work ends.
class CAcceptor : private QOX::CThread {
public:
    // Starts a new acceptor for server on a thread of its pool; false when no thread could be had.
    static bool Launch(CProxyServer& server);

protected:
    int Run() override;
    int ThreadFunc() override;

private:
    explicit CAcceptor(CProxyServer& server) : m_server(server) {}

    CProxyServer& m_server;
};

} // namespace Proxy
} // namespace ZRT
