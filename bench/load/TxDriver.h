#pragma once
// Closed-loop transactions for many clients at once on one event thread: each client connects,
// runs the path's handshake, sends GET /bytes/N, reads the answer (and, for read-until-close
// transactions, the close), closes and starts again. An epoll loop instead of a thread per
// client, so the load generator spends little CPU of its own and the proxies' differences show.
#include <vector>

#include "ProxyClient.h"

namespace ZRT::Bench {

struct STxResult {
  std::vector<double> latenciesMs;  // one per completed transaction
  long failures = 0;
};

class CTxDriver {
 public:
  CTxDriver(const SProxyTarget& target, EPath path, const SEndpoint& dest, uint64_t bytes, bool untilClose)
      : m_target(target), m_path(path), m_dest(dest), m_bytes(bytes), m_untilClose(untilClose) {}

  // Keeps `clients` transactions under way for `length`; each gives up after `timeout`.
  STxResult Run(int clients, Clock::duration length, Clock::duration timeout) const;

 private:
  const SProxyTarget& m_target;
  EPath m_path;
  SEndpoint m_dest;
  uint64_t m_bytes;
  bool m_untilClose;
};

}  // namespace ZRT::Bench
