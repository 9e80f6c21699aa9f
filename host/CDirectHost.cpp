#include "host/CDirectHost.h"

namespace ZRT {
namespace Host {

// Members go in reverse order: the services stop their sockets while the loops still run.
CDirectHost::CDirectHost(int transportThreads, const std::string& bindIPv4, const std::string& bindIPv6)
    : m_loops(transportThreads), m_multiPointLayer(m_loops), m_datagramHandler(m_loops),
      m_connectionListener(m_loops, bindIPv4, bindIPv6)
{
}

CDirectHost::~CDirectHost() = default;

} // namespace Host
} // namespace ZRT
