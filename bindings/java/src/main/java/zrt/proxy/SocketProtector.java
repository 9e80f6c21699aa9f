package zrt.proxy;

/**
 * Sees every socket the proxy opens towards the outside (TCP to destinations, UDP for datagrams
 * and name lookups) before it connects or sends, on the proxy thread that opens it; several may
 * run at once. The shape of Android's {@code VpnService.protect(int)}, so
 * {@code proxy.setSocketProtector(vpnService::protect)} keeps the proxy's own traffic out of the
 * tunnel.
 */
@FunctionalInterface
public interface SocketProtector {
    /**
     * @param fd the socket's file descriptor; it stays the proxy's, do not close it
     * @return true to let the proxy use the socket; false refuses it, and the destination counts
     *     as unreachable (an exception thrown here refuses it too)
     */
    boolean protect(int fd);
}
