// ZRT Proxy for C++ hosts that bring services of their own: the proxy engine (CProxy), the
// interfaces of the four host services it reaches the outside through, and the direct host
// services on this machine's sockets (CDirectHost) to mix with them. Hosts content with the
// direct services use the C interface (zrtproxy.h) instead: it does not tie them to this
// library's C++ standard library.
#pragma once

#include "host/CDirectHost.h"
#include "proxy/core/CProxy.h"
#include "transport/CTCPIPAddress.h"
#include "zrtproxy/zrtproxy.h"
