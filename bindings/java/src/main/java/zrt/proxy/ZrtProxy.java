package zrt.proxy;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.CodingErrorAction;
import java.nio.charset.StandardCharsets;
import java.util.Objects;

/**
 * A SOCKS5 and HTTP proxy on one local port, run by the native library {@code libzrtproxy}.
 *
 * <pre>{@code
 * try (ZrtProxy proxy = new ZrtProxy()) {
 *     proxy.setOption("listen", "127.0.0.1");
 *     proxy.setOption("port", "0");
 *     proxy.start();
 *     int port = proxy.port();
 *     ...
 * }
 * }</pre>
 *
 * <p>Settings and listeners apply at the next {@link #start()}; listeners can only be changed
 * while the proxy is stopped. {@link #port()} and {@link #stats()} may be called from any thread
 * at any time, listeners included; the other methods are serialized on this object and refuse to
 * run inside this proxy's own listeners (they would wait for the thread the listener runs on).
 * After {@link #close()} every method but {@code close} throws {@link IllegalStateException}.
 */
public final class ZrtProxy implements AutoCloseable {
    static {
        System.loadLibrary("zrtproxy_jni");
    }

    /** Counters since the proxy was created; they keep counting across stops and starts. */
    public static final class Stats {
        /** Clients served since creation. */
        public final long connections;
        /** Clients served now. */
        public final long activeConnections;
        /** Bytes passed on to destinations (negotiation not counted). */
        public final long bytesUp;
        /** Bytes received from destinations. */
        public final long bytesDown;
        public final long socks5Connections;
        public final long httpConnections;
        /** Malformed or unsupported requests. */
        public final long refusedBadRequest;
        /** No host, the proxy itself, a name that did not resolve. */
        public final long refusedNoDestination;
        /** Destinations that could not be connected, sockets the protector refused included. */
        public final long refusedUnreachable;
        public final long udpDatagramsUp;
        public final long udpDatagramsDown;
        /** Clients outside "allow", destinations that are the proxy. */
        public final long refusedNotAllowed;
        /** Clients without valid credentials. */
        public final long refusedAuthFailed;
        /** Clients closed at accept: "max-clients" reached. */
        public final long refusedOverLimit;
        /** Closed by "handshake-timeout" or "idle-timeout". */
        public final long timedOut;
        /** Destinations refused by "allow-destination" or "deny-destination". */
        public final long refusedDenied;
        /** Clients closed at accept: "max-clients-per-source" reached. */
        public final long refusedSourceLimit;
        /** Log lines lost because the listener was behind. */
        public final long logLinesDropped;
        /** Datagrams too large to relay whole. */
        public final long udpDatagramsDropped;
        /** Requests answered on persistent HTTP connections. */
        public final long httpRequests;
        /** Of those, sent on an idle origin connection. */
        public final long httpOriginReuses;

        // The order the native side fills them in.
        static final int FIELDS = 21;

        Stats(long[] v) {
            connections = v[0];
            activeConnections = v[1];
            bytesUp = v[2];
            bytesDown = v[3];
            socks5Connections = v[4];
            httpConnections = v[5];
            refusedBadRequest = v[6];
            refusedNoDestination = v[7];
            refusedUnreachable = v[8];
            udpDatagramsUp = v[9];
            udpDatagramsDown = v[10];
            refusedNotAllowed = v[11];
            refusedAuthFailed = v[12];
            refusedOverLimit = v[13];
            timedOut = v[14];
            refusedDenied = v[15];
            refusedSourceLimit = v[16];
            logLinesDropped = v[17];
            udpDatagramsDropped = v[18];
            httpRequests = v[19];
            httpOriginReuses = v[20];
        }

        @Override
        public String toString() {
            return "connections=" + connections + " active=" + activeConnections + " up=" + bytesUp + " down=" + bytesDown
                    + " unreachable=" + refusedUnreachable + " authFailed=" + refusedAuthFailed;
        }
    }

    // Guards the handle's lifetime against port() and stats(), which do not take this object's
    // lock (a listener may call them while stop() waits for it).
    private final Object handleLock = new Object();
    private volatile long handle;

    /** A stopped proxy with default settings. */
    public ZrtProxy() {
        handle = nativeCreate();
        if (handle == 0)
            throw new OutOfMemoryError("zrt_proxy_create failed");
    }

    /**
     * Sets a setting by name: the daemon's long options without the dashes ("listen", "port",
     * "auth", "log-level", ...), values as text (numbers in decimal, times in seconds). A null
     * value restores the default, or empties a list. While the proxy runs only live settings may
     * change.
     *
     * @throws ZrtProxyException UNKNOWN_OPTION, BAD_VALUE (also for text with a NUL character or
     *     an unpaired surrogate) or RUNNING
     */
    public void setOption(String name, String value) {
        Objects.requireNonNull(name, "name");
        refuseInsideListener();
        byte[] nameBytes = cString(name, name);
        byte[] valueBytes = value == null ? null : cString(value, name);
        synchronized (this) {
            check(nativeSetOption(handle(), nameBytes, valueBytes));
        }
    }

    /**
     * Starts listening and serving.
     *
     * @throws ZrtProxyException RUNNING when it runs already, START when it cannot (address in use,
     *     ...)
     */
    public void start() {
        refuseInsideListener();
        synchronized (this) {
            check(nativeStart(handle()));
        }
    }

    /**
     * Closes the port and every client connection. Returns once no thread of the proxy runs and no
     * listener can be called any more; the proxy may then be started again. Harmless when stopped.
     */
    public void stop() {
        refuseInsideListener();
        synchronized (this) {
            nativeStop(handle());
        }
    }

    /**
     * The device's network changed (Wi-Fi gave way to mobile data): forgets the names the proxy
     * cached and reads the device's own addresses again.
     *
     * @throws ZrtProxyException NOT_RUNNING when stopped
     */
    public void networkChanged() {
        refuseInsideListener();
        synchronized (this) {
            check(nativeNetworkChanged(handle()));
        }
    }

    /** The TCP port the proxy listens on (the one picked for "port" 0), or 0 when stopped. */
    public int port() {
        synchronized (handleLock) {
            return nativePort(handle());
        }
    }

    /** The counters now. */
    public Stats stats() {
        long[] values = new long[Stats.FIELDS];
        synchronized (handleLock) {
            int code = nativeStats(handle(), values);
            if (code != 0)
                throw new ZrtProxyException(code, "the library's counters do not match this binding");
        }
        return new Stats(values);
    }

    /**
     * Receives the log lines from the next start on; null turns logging off.
     *
     * @throws ZrtProxyException RUNNING while the proxy runs
     */
    public void setLogListener(LogListener listener) {
        refuseInsideListener();
        synchronized (this) {
            refuseWhileRunning("the log listener");
            nativeSetLogListener(handle, listener);
        }
    }

    /**
     * Sees the proxy's outgoing sockets from the next start on; null lets every socket through.
     *
     * @throws ZrtProxyException RUNNING while the proxy runs
     */
    public void setSocketProtector(SocketProtector protector) {
        refuseInsideListener();
        synchronized (this) {
            refuseWhileRunning("the socket protector");
            nativeSetSocketProtector(handle, protector);
        }
    }

    /** Stops the proxy and frees it. Harmless when closed already. */
    @Override
    public void close() {
        refuseInsideListener();
        synchronized (this) {
            if (handle == 0)
                return;
            nativeStop(handle);
            long closing;
            synchronized (handleLock) {
                closing = handle;
                handle = 0;
            }
            nativeDestroy(closing);
        }
    }

    private long handle() {
        long h = handle;
        if (h == 0)
            throw new IllegalStateException("the proxy is closed");
        return h;
    }

    private void check(int code) {
        if (code != 0)
            throw new ZrtProxyException(code, nativeLastError(handle));
    }

    private void refuseWhileRunning(String what) {
        if (nativePort(handle()) != 0)
            throw new ZrtProxyException(ZrtProxyException.RUNNING, what + " can only be set while the proxy is stopped");
    }

    private void refuseInsideListener() {
        long h = handle;
        if (h != 0 && nativeListenerHandle() == h)
            throw new IllegalStateException("not from inside the proxy's own listeners");
    }

    // The library takes NUL-terminated UTF-8: text it cannot carry as is is refused, not altered.
    private static byte[] cString(String text, String option) {
        if (text.indexOf('\0') >= 0)
            throw new ZrtProxyException(ZrtProxyException.BAD_VALUE, option + ": text with a NUL character");
        try {
            ByteBuffer encoded = StandardCharsets.UTF_8.newEncoder()
                    .onMalformedInput(CodingErrorAction.REPORT)
                    .onUnmappableCharacter(CodingErrorAction.REPORT)
                    .encode(CharBuffer.wrap(text));
            byte[] bytes = new byte[encoded.remaining()];
            encoded.get(bytes);
            return bytes;
        } catch (CharacterCodingException e) {
            throw new ZrtProxyException(ZrtProxyException.BAD_VALUE, option + ": text with an unpaired surrogate");
        }
    }

    private static native long nativeCreate();
    private static native void nativeDestroy(long handle);
    private static native int nativeSetOption(long handle, byte[] name, byte[] value);
    private static native int nativeStart(long handle);
    private static native void nativeStop(long handle);
    private static native int nativeNetworkChanged(long handle);
    private static native int nativePort(long handle);
    private static native String nativeLastError(long handle);
    private static native int nativeStats(long handle, long[] values);
    private static native void nativeSetLogListener(long handle, LogListener listener);
    private static native void nativeSetSocketProtector(long handle, SocketProtector protector);
    // The handle whose listener runs on this thread now, or 0.
    private static native long nativeListenerHandle();
}
