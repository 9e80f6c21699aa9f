#include "transport/CSocketHandle.h"

#include "transport/CSocketUtils.h"

namespace ZRT {

CSocketHandle::~CSocketHandle()
{
    Reset();
}

int CSocketHandle::Release()
{
    const int socket = m_socket;
    m_socket = -1;
    return socket;
}

void CSocketHandle::Reset(int socket)
{
    if (m_socket >= 0)
        CSocketUtils::CloseSocket(m_socket);
    m_socket = socket;
}

} // namespace ZRT
