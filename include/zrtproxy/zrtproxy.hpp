// ZRT Proxy for C++ hosts that bring services of their own: the proxy engine (CProxy), the
// interfaces of the four host services it reaches the outside through, the notifications it
// gives them, the observer of its events, and the direct host services on this machine's
// sockets (CDirectHost) to mix with them. Include this header, not those below it.
//
// ABI: within one SONAME no class or struct here changes its layout and no interface gains a
// virtual function; settings go by name (SetOption) and counters by number (GetCounter). A hook
// the engine gains is a new interface or a new callback, never a new slot in an old one. These
// classes pass std:: types (std::string, std::vector), so a program must use the C++ standard
// library the library was built with: this header refuses another at compile time. Programs
// built otherwise (clang++ -stdlib=libc++ against a libstdc++ build, or the reverse), and every
// other language, use the C interface (zrtproxy.h), which carries nothing of C++.
//
// Re-entry: from inside a callback of a proxy (an observer's, a service's notification, a thread
// hook, a CDirectHost socket hook), never call what waits for that proxy's threads: StopProxy,
// StartProxy, the CProxy or CDirectHost destructor. Unlike the C interface, which answers
// ZRT_E_REENTRANT, these classes do not check: the call would wait for its own thread for ever.
// The counters (GetCounter, GetListenPort, GetConnectionCount) may be read from anywhere.
#pragma once

#include <cstddef>

#include "zrtproxy/zrtproxy_stdlib.h"

#if (defined(_LIBCPP_VERSION) ? 1 : 0) != ZRT_BUILT_WITH_LIBCXX
#error "zrtproxy.hpp: this program uses another C++ standard library than libzrtproxy was built with (libc++ versus libstdc++); its C++ classes would crash. Use the C interface, zrtproxy/zrtproxy.h, or build with the library's standard library."
#elif !defined(_LIBCPP_VERSION) && defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI != ZRT_BUILT_WITH_CXX11_ABI
#error "zrtproxy.hpp: this program sets _GLIBCXX_USE_CXX11_ABI otherwise than libzrtproxy was built; its C++ classes would crash. Use the C interface, zrtproxy/zrtproxy.h, or build with the library's setting."
#endif

#include "host/CDirectHost.h"
#include "proxy/core/CProxy.h"
#include "proxy/core/IProxyObserver.h"
#include "runtime/CAtomicInt.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/Export.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IConnectionListener.h"
#include "transport/IConnectionReceiver.h"
#include "transport/IDatagramEndNotification.h"
#include "transport/IDatagramHandler.h"
#include "transport/IDatagramReceiver.h"
#include "transport/IResolveAddress.h"
#include "transport/IResolveAddressCompletedNotification.h"
#include "transport/IResolveAddressLifetimeNotification.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTConnectionClosedNotification.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"
#include "transport/IZRTMultiPointLayer.h"
#include "transport/IZRTNotification.h"
#include "zrtproxy/zrtproxy.h"
