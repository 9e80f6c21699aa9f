#include "proxy/core/CAcceptor.h"

#include "proxy/core/CProxyServer.h"

namespace ZRT {
namespace Proxy {

bool CAcceptor::Launch(CProxyServer& server)
{
    auto* acceptor = new CAcceptor(server);
    acceptor->SetThreadPool(server.GetThreadPool());
    if (acceptor->StartThread(false))
        return true;
    delete acceptor;
    return false;
}

int CAcceptor::Run()
{
    m_server.AcceptAndServe();
    return 0;
}

int CAcceptor::ThreadFunc()
{
    const int result = CThread::ThreadFunc();
    // Last: the server may be gone once its count of acceptors reached zero.
    m_server.OnAcceptorEnded();
    delete this; // on its own thread: the thread finishes on its shared block alone
    return result;
}

} // namespace Proxy
} // namespace ZRT
