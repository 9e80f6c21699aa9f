/* ZRT Proxy: a SOCKS and HTTP proxy on one local port, as a library.
 *
 * The C interface: an opaque handle, settings by name, plain integer results. Nothing of C++
 * crosses it, so C, JNI, Swift, Rust or a C++ program built with another standard library can
 * use it. See the README's "Embedding" section for the rules on threads and lifetimes.
 *
 *   zrt_proxy_t* proxy = zrt_proxy_create();
 *   zrt_proxy_set_option(proxy, "listen", "127.0.0.1");
 *   zrt_proxy_set_option(proxy, "port", "0");
 *   if (zrt_proxy_start(proxy) != ZRT_OK)
 *       fprintf(stderr, "%s\n", zrt_proxy_last_error(proxy));
 *   printf("port %d\n", zrt_proxy_port(proxy));
 *   ...
 *   zrt_proxy_destroy(proxy); // stops first
 *
 * Threads: one thread at a time controls a handle (create, set_option, the set_ functions,
 * start, stop, destroy, last_error). zrt_proxy_port, zrt_proxy_listen_count,
 * zrt_proxy_listen_port, zrt_proxy_get_stats, zrt_proxy_count_dropped_log_lines and the setters
 * of the log callback, the socket hooks and the accept hook may be called from any thread at any
 * time, callbacks included. Callbacks (log callback, thread hooks, socket hooks, resolver hook,
 * accept hook) run on the library's threads, several at once, never with a lock of the library
 * held.
 *
 * Re-entry: from inside a callback of a proxy, every call on that proxy that controls it or
 * would wait for its threads (set_option, start, start_on_socket, stop, destroy, reload,
 * reopen_logs, network_changed, set_thread_hooks, set_resolver) does nothing and returns
 * ZRT_E_REENTRANT at once; zrt_proxy_stop and zrt_proxy_destroy, which return nothing, leave the
 * proxy as it is (the handle stays valid) and log the reason (once per start). Inside that
 * callback zrt_proxy_last_error tells the reason of the calls made from it. The calls allowed
 * anywhere (above) and zrt_lookup_answer stay allowed. Another proxy's handle may be used.
 */
#ifndef ZRTPROXY_ZRTPROXY_H
#define ZRTPROXY_ZRTPROXY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#if defined(__GNUC__)
#define ZRT_API __attribute__((visibility("default")))
#else
#define ZRT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Results: 0 for success, a negative code otherwise; zrt_proxy_last_error tells why. */
#define ZRT_OK 0
#define ZRT_E_INVALID (-1)        /* a null handle or argument */
#define ZRT_E_UNKNOWN_OPTION (-2) /* no setting of that name */
#define ZRT_E_BAD_VALUE (-3)      /* the value does not suit the setting */
#define ZRT_E_RUNNING (-4)        /* not while the proxy runs (start twice, or a setting that needs a stop) */
#define ZRT_E_START (-5)          /* the proxy could not start (address in use, no threads, ...) */
#define ZRT_E_NOT_RUNNING (-6)    /* only while the proxy runs */
#define ZRT_E_REENTRANT (-7)      /* called from inside a callback of the same proxy (see Re-entry above) */

/* What zrt_option_flags tells of a setting. */
#define ZRT_OPTION_REPEATABLE 1 /* each value adds to a list; a NULL value empties it */
#define ZRT_OPTION_LIVE 2       /* may change while the proxy runs (see zrt_proxy_reload) */

/* Levels of log lines. */
#define ZRT_LOG_ERROR 1
#define ZRT_LOG_WARNING 2
#define ZRT_LOG_INFO 3
#define ZRT_LOG_DEBUG 4

typedef struct zrt_proxy zrt_proxy_t;

/* One name lookup handed to a resolver hook; answered once with zrt_lookup_answer. */
typedef struct zrt_lookup zrt_lookup_t;

/* Counters since the proxy was created. The caller sets size to sizeof(zrt_proxy_stats_t) as it
 * knows it; the library fills at most that many bytes and writes back in size how many it filled
 * (the smaller of the caller's size and its own), so the struct may grow at its end and a caller
 * sees which fields an older library left untouched. */
typedef struct zrt_proxy_stats {
    size_t size;
    uint64_t connections_active;
    uint64_t connections_total;
    uint64_t socks5_total;
    uint64_t http_total;
    uint64_t refused_bad_request;    /* malformed or unsupported requests */
    uint64_t refused_no_destination; /* no host, the proxy itself, a name that did not resolve */
    uint64_t refused_unreachable;    /* the destination could not be connected */
    uint64_t bytes_client_to_host;   /* passed on to destinations (negotiation not counted) */
    uint64_t bytes_host_to_client;   /* received from destinations */
    uint64_t udp_datagrams_client_to_host;
    uint64_t udp_datagrams_host_to_client;
    uint64_t refused_not_allowed;    /* clients outside "allow", destinations that are the proxy */
    uint64_t refused_auth_failed;    /* clients without valid credentials */
    uint64_t refused_over_limit;     /* clients closed at accept: "max-clients" reached */
    uint64_t timed_out;              /* closed by "handshake-timeout" or "idle-timeout" */
    uint64_t refused_denied;         /* destinations refused by "allow-destination"/"deny-destination" */
    uint64_t refused_source_limit;   /* clients closed at accept: "max-clients-per-source" reached */
    uint64_t log_lines_dropped;      /* log lines lost because the log callback or file was behind */
    uint64_t udp_datagrams_dropped;  /* datagrams too large to relay whole */
    uint64_t http_requests;          /* requests answered on persistent HTTP connections */
    uint64_t http_origin_reuses;     /* of those, sent on an idle origin connection */
    uint64_t socks4_total;           /* clients that spoke SOCKS4 or 4A */
} zrt_proxy_stats_t;

/* A stopped proxy with default settings, or NULL when out of memory. */
ZRT_API zrt_proxy_t* zrt_proxy_create(void);
/* Stops the proxy if it runs, then frees it. */
ZRT_API void zrt_proxy_destroy(zrt_proxy_t* proxy);

/* A setting by name: the daemon's long options without the dashes ("listen", "port", "auth",
 * "allow", ...; zrt_option_name lists them). Values are text: numbers in decimal, times in
 * seconds. A NULL value puts the default back (or empties a list). Settings apply at the next
 * start. While the proxy runs, a live setting (ZRT_OPTION_LIVE) is kept for zrt_proxy_reload;
 * any other gives ZRT_E_RUNNING. */
ZRT_API int zrt_proxy_set_option(zrt_proxy_t* proxy, const char* name, const char* value);

/* The settings zrt_proxy_set_option knows, for help texts and configuration checks: the name of
 * the index-th (from 0), or NULL past the last. */
ZRT_API const char* zrt_option_name(int index);
/* What a setting's value looks like ("ADDR", "N", "SECONDS", ...), or NULL for no such name. */
ZRT_API const char* zrt_option_value(const char* name);
/* One line on what a setting does, with its default, or NULL for no such name. */
ZRT_API const char* zrt_option_description(const char* name);
/* ZRT_OPTION_REPEATABLE and ZRT_OPTION_LIVE as they apply to a setting; 0 for none (or no such
 * name). */
ZRT_API int zrt_option_flags(const char* name);

/* Starts listening and serving; a second start while running is ZRT_E_RUNNING. */
ZRT_API int zrt_proxy_start(zrt_proxy_t* proxy);
/* Starts serving on a TCP socket the host made, bound and listening (an app handed a socket by
 * its system, a port chosen elsewhere): "listen" and "port" are not used, the proxy does not
 * bind. On ZRT_OK the socket is the proxy's: the host must not use or close it; the proxy closes
 * it at stop (a later zrt_proxy_start listens by the settings again). On an error it stays the
 * host's. ZRT_E_INVALID when listening_fd is not a listening TCP socket; otherwise the results of
 * zrt_proxy_start. */
ZRT_API int zrt_proxy_start_on_socket(zrt_proxy_t* proxy, int listening_fd);
/* Applies the live settings changed since the start (or the last reload) to the connections
 * accepted from now on, reads "auth-file" again and reopens "access-log" (after a rotation).
 * Either all of it takes effect or, on an error, none: ZRT_E_BAD_VALUE (an unreadable users
 * file, an access log that cannot be opened) with the reason in zrt_proxy_last_error.
 * ZRT_E_NOT_RUNNING when stopped. */
ZRT_API int zrt_proxy_reload(zrt_proxy_t* proxy);
/* Opens "access-log" again by the name it was opened with, for the lines written from now on
 * (after a rotation renamed the file; the daemon does it on SIGUSR1); standard output stays. The
 * log thread closes the old file as it turns to the new one. ZRT_E_BAD_VALUE when the file cannot be
 * opened (the old one stays in use), ZRT_E_NOT_RUNNING when stopped. The controlling thread's, like
 * zrt_proxy_reload (which reopens it too). */
ZRT_API int zrt_proxy_reopen_logs(zrt_proxy_t* proxy);
/* The TCP port the proxy listens on (the one chosen for "port" 0), or 0 when stopped. With
 * several "listen" addresses, the first one's port. */
ZRT_API int zrt_proxy_port(const zrt_proxy_t* proxy);
/* How many sockets the proxy listens on: one per "listen" value (1 without any), 0 when
 * stopped. */
ZRT_API int zrt_proxy_listen_count(const zrt_proxy_t* proxy);
/* The TCP port of the index-th listening socket (from 0, in the order the "listen" values were
 * set; "port" 0 picks a free port for each), or 0 when stopped or past the last. */
ZRT_API int zrt_proxy_listen_port(const zrt_proxy_t* proxy, int index);
/* Stops serving: closes the port and every client connection at once (connects and lookups
 * under way are abandoned, not waited for). Returns once no thread of the proxy runs and no
 * callback can be called any more; the proxy may be started again. Harmless when stopped. */
ZRT_API void zrt_proxy_stop(zrt_proxy_t* proxy);

/* The machine's network changed (a phone moved from Wi-Fi to mobile data): forgets every name
 * the proxy cached and reads the machine's own addresses again, so that the next clients are
 * served by the new network's answers, and ends every connection whose link leaves from a local
 * address the machine no longer has (its client is closed; links that are not IP stay).
 * Connections on addresses that remain stay as they are. ZRT_E_NOT_RUNNING when stopped. */
ZRT_API int zrt_proxy_network_changed(zrt_proxy_t* proxy);

/* Why the last call on this handle failed, in one line; "" when it did not. The text stays valid
 * until the next call on the handle. Inside a callback of the proxy: the reason of that thread's
 * last call on it from inside its callbacks. */
ZRT_API const char* zrt_proxy_last_error(const zrt_proxy_t* proxy);
/* The library's version, "MAJOR.MINOR.PATCH". */
ZRT_API const char* zrt_proxy_version(void);

/* Copies the counters into out (at most out->size bytes) and sets out->size to the bytes filled,
 * the size field included; ZRT_E_INVALID when out->size is too small for the size field itself
 * (out is left as it is). Counters keep counting across stops and starts. */
ZRT_API int zrt_proxy_get_stats(const zrt_proxy_t* proxy, zrt_proxy_stats_t* out);

/* One line per event: start, stop, each client (the access log's fields: client, protocol, user,
 * destination, result, bytes up, bytes down, milliseconds) and each error while running. A failed
 * start is not logged: zrt_proxy_start's result and zrt_proxy_last_error tell it.
 *
 * Lines come in order on one thread of the proxy's own (never one that serves clients; the thread
 * hooks run on it), never with a lock of the library held. The callback must not block: while it
 * runs, lines queue up, and beyond a bound they are dropped and counted (log_lines_dropped); the
 * proxy says "N log lines dropped" once it has caught up. A callback whose own sink is full drops
 * the line rather than wait, and counts it with zrt_proxy_count_dropped_log_lines. zrt_proxy_stop
 * hands over what was queued before it returns.
 *
 * Every line is valid UTF-8 without control characters: bytes a client chose (user names,
 * destinations) are written \xNN where they are control characters, invalid UTF-8, a backslash or
 * a space, and a long one is cut, ending in "\...". Repeated warnings of one cause from one address
 * (failed logins, refusals by "allow" or a client limit) come once, then at most once per 10 s
 * as "... and N more CAUSE from ADDR".
 *
 * NULL turns logging off. It may change at any time, while the proxy runs too, from any thread:
 * lines delivered from then on go to the new one; a line being delivered may still reach the old
 * one, so keep its context valid until zrt_proxy_stop returns. ZRT_OK, or ZRT_E_INVALID for a
 * null handle. */
ZRT_API int zrt_proxy_set_log_callback(zrt_proxy_t* proxy, void (*callback)(void* context, int level, const char* line),
                                        void* context);
/* Adds count to log_lines_dropped: for a log callback that dropped lines because its sink was
 * full. Any thread, callbacks included. */
ZRT_API void zrt_proxy_count_dropped_log_lines(zrt_proxy_t* proxy, unsigned count);

/* Called on every thread the proxy starts, as the first and the last thing that thread does
 * (a JNI host attaches and detaches the thread there). Only while the proxy is stopped, so that
 * every thread's two calls match: ZRT_E_RUNNING (and no change) while it runs. */
ZRT_API int zrt_proxy_set_thread_hooks(zrt_proxy_t* proxy, void (*on_start)(void* context),
                                        void (*on_stop)(void* context), void* context);

/* What a socket handed to the socket hook is for. */
#define ZRT_SOCKET_CONNECT 1  /* TCP to a destination */
#define ZRT_SOCKET_DATAGRAM 2 /* UDP for a client's datagrams (SOCKS5 UDP ASSOCIATE) */
#define ZRT_SOCKET_LOOKUP 3   /* the library's own DNS queries (not made with a resolver hook) */
#define ZRT_SOCKET_LISTEN 4   /* a SOCKS5 BIND listener, waiting for a destination's connection */

/* Called with every socket the proxy makes for its clients, with what it is for (ZRT_SOCKET_*),
 * before it connects, listens or sends: on the thread that makes it, several at once. A
 * non-zero return refuses that use of the socket (a destination counts as unreachable). An
 * Android VPN app calls VpnService.protect(fd) here. It may change at any time, while the proxy
 * runs too, from any thread: sockets made from then on see the new one; a call under way may
 * still reach the old one. NULL for none. ZRT_OK, or ZRT_E_INVALID for a null handle. */
ZRT_API int zrt_proxy_set_socket_hook_ex(zrt_proxy_t* proxy, int (*hook)(void* context, int fd, int purpose),
                                         void* context);
/* As zrt_proxy_set_socket_hook_ex without the purpose; the two share one place (each replaces
 * the other). */
ZRT_API int zrt_proxy_set_socket_hook(zrt_proxy_t* proxy, int (*hook)(void* context, int fd), void* context);

/* Called for every client right after it was accepted, before a byte of it is read, on the
 * thread that accepted it, with the client's address and the local one it came to. A non-zero
 * return closes the client, counted in refused_not_allowed (and logged as refused); clients
 * outside "allow" are closed before the hook sees them. It may change at any time, as the socket
 * hook may. NULL for none. ZRT_OK, or ZRT_E_INVALID for a null handle. */
ZRT_API int zrt_proxy_set_accept_hook(zrt_proxy_t* proxy,
                                      int (*hook)(void* context, const struct sockaddr* client, const struct sockaddr* local),
                                      void* context);

/* Names are looked up by this hook instead of the library's own resolver. It is called for a
 * host name (never a numeric address) on the thread of the client that needs it, must not block
 * for long, and answers at once or later with zrt_lookup_answer, on any thread (inside the hook
 * too). A lookup not answered within "lookup-timeout" counts as failed. NULL restores the
 * library's resolver. Only while the proxy is stopped (it decides how names are looked up at
 * start): ZRT_E_RUNNING (and no change) while it runs. */
ZRT_API int zrt_proxy_set_resolver(zrt_proxy_t* proxy, void (*resolve)(void* context, const char* name, zrt_lookup_t* lookup),
                                    void* context);
/* Answers a lookup with count addresses (IPv4 or IPv6, ports ignored); count 0 means the name
 * did not resolve. The proxy keeps an answer for an hour, a failure for a minute. Every lookup
 * is to be answered once; a second answer to it is ignored, and so is an answer after the
 * proxy stopped. */
ZRT_API void zrt_lookup_answer(zrt_lookup_t* lookup, const struct sockaddr_storage* addresses, int count);
/* As zrt_lookup_answer, and the proxy keeps the answer (or the failure) for ttl_seconds (at
 * most an hour): 0 keeps nothing, so the next client for that name asks the hook again; a
 * negative one is zrt_lookup_answer's rule. */
ZRT_API void zrt_lookup_answer_ttl(zrt_lookup_t* lookup, const struct sockaddr_storage* addresses, int count,
                                   int ttl_seconds);

#ifdef __cplusplus
}
#endif

#endif /* ZRTPROXY_ZRTPROXY_H */
