/* The C interface as a C host uses it: each case is a function, run by name
 * (test_capi CASE), so that ctest runs them apart. SIGPIPE keeps its default action throughout:
 * a signal the library lets through kills the test. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "capi_support.h"
#include "zrtproxy/zrtproxy.h"

static zrt_proxy_t* started_proxy(void)
{
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(proxy != NULL);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(zrt_proxy_port(proxy) > 0);
    return proxy;
}

/* A GET through a SOCKS5 tunnel to the server; the bytes of the response. */
static long socks5_fetch(zrt_proxy_t* proxy, const char* host, int port)
{
    int reply = 0;
    int fd = capi_socks5_connect(zrt_proxy_port(proxy), host, port, &reply);
    if (fd < 0)
        return -1;
    long got = capi_http_exchange(fd, host);
    close(fd);
    return got;
}

static zrt_proxy_stats_t stats_of(const zrt_proxy_t* proxy)
{
    zrt_proxy_stats_t stats;
    memset(&stats, 0, sizeof(stats));
    stats.size = sizeof(stats);
    CHECK(zrt_proxy_get_stats(proxy, &stats) == ZRT_OK);
    return stats;
}

/* Connections end on their own threads just after the client sees the close. */
static void wait_idle(const zrt_proxy_t* proxy)
{
    long long deadline = capi_now_ms() + 10000;
    while (stats_of(proxy).connections_active != 0 && capi_now_ms() < deadline)
        capi_sleep_ms(5);
    CHECK(stats_of(proxy).connections_active == 0);
}

static void test_serve_count_stop_restart(void)
{
    capi_server_t* server = capi_server_start(1000);
    zrt_proxy_t* proxy = started_proxy();

    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 1000);
    CHECK(capi_http_get(zrt_proxy_port(proxy), "127.0.0.2", capi_server_port(server)) == 200);
    wait_idle(proxy);
    zrt_proxy_stats_t stats = stats_of(proxy);
    CHECK(stats.connections_total == 2);
    CHECK(stats.socks5_total == 1);
    CHECK(stats.http_total == 1);
    CHECK(stats.bytes_host_to_client > 2000);
    CHECK(stats.bytes_client_to_host > 0);
    CHECK(stats.refused_bad_request == 0 && stats.refused_unreachable == 0);

    /* A caller built against a shorter struct gets its part and nothing beyond it. */
    struct {
        zrt_proxy_stats_t head;
        unsigned long long guard;
    } shorter;
    memset(&shorter, 0xAB, sizeof(shorter));
    shorter.head.size = offsetof(zrt_proxy_stats_t, socks5_total);
    CHECK(zrt_proxy_get_stats(proxy, &shorter.head) == ZRT_OK);
    CHECK(shorter.head.connections_total == 2);
    CHECK(shorter.head.socks5_total == 0xABABABABABABABABull);
    CHECK(shorter.head.size == offsetof(zrt_proxy_stats_t, socks5_total)); /* all of it filled */
    /* A caller built against a longer struct learns where the library's ends. */
    memset(&shorter, 0xAB, sizeof(shorter));
    shorter.head.size = sizeof(shorter);
    CHECK(zrt_proxy_get_stats(proxy, &shorter.head) == ZRT_OK);
    CHECK(shorter.head.size == sizeof(zrt_proxy_stats_t));
    CHECK(shorter.guard == 0xABABABABABABABABull);
    shorter.head.size = 1;
    CHECK(zrt_proxy_get_stats(proxy, &shorter.head) == ZRT_E_INVALID);

    zrt_proxy_stop(proxy);
    CHECK(zrt_proxy_port(proxy) == 0);
    zrt_proxy_stop(proxy); /* harmless twice */

    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 1000);
    wait_idle(proxy);
    CHECK(stats_of(proxy).connections_total == 3); /* counters live across restarts */
    zrt_proxy_destroy(proxy);                      /* stops first */
    capi_server_stop(server);
}

static void test_options_and_errors(void)
{
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_option(proxy, "no-such-option", "1") == ZRT_E_UNKNOWN_OPTION);
    CHECK(strstr(zrt_proxy_last_error(proxy), "no-such-option") != NULL);
    CHECK(zrt_proxy_set_option(proxy, "port", "65536") == ZRT_E_BAD_VALUE);
    CHECK(strstr(zrt_proxy_last_error(proxy), "port") != NULL);
    CHECK(zrt_proxy_set_option(proxy, "port", "-1") == ZRT_E_BAD_VALUE);
    CHECK(zrt_proxy_set_option(proxy, "listen", "localhost") == ZRT_E_BAD_VALUE);
    CHECK(zrt_proxy_set_option(proxy, "bind-timeout", "0") == ZRT_E_BAD_VALUE);
    CHECK(zrt_proxy_set_option(proxy, NULL, "1") == ZRT_E_INVALID);
    CHECK(zrt_proxy_set_option(proxy, "listen", "[::1]") == ZRT_OK);
    CHECK(strcmp(zrt_proxy_last_error(proxy), "") == 0);
    CHECK(zrt_proxy_set_option(proxy, "listen", NULL) == ZRT_OK); /* back to 127.0.0.1 */
    /* Values each setting refuses, with the setting named in the reason. */
    const char* const refused[][2] = {
        {"auth", "nocolon"}, {"auth", ":password"}, {"allow", "10.0.0.0/33"}, {"allow", "example.org"},
        {"max-clients", "-1"}, {"handshake-timeout", "1s"}, {"outgoing-address", "eth0"},
        {"log-level", "loud"}, {"metrics", "127.0.0.1"}, {"metrics", "localhost:9100"},
        {"auth-file", "/nonexistent/users"}, {"access-log", ""}, {"transport-threads", "0"}, {"threads", "65"},
    };
    for (size_t i = 0; i < sizeof(refused) / sizeof(refused[0]); ++i) {
        CHECK(zrt_proxy_set_option(proxy, refused[i][0], refused[i][1]) == ZRT_E_BAD_VALUE);
        CHECK(strstr(zrt_proxy_last_error(proxy), refused[i][0]) != NULL);
    }
    CHECK(zrt_proxy_set_option(proxy, "metrics", "[::1]:0") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "metrics", NULL) == ZRT_OK);
    CHECK(zrt_proxy_reload(proxy) == ZRT_E_NOT_RUNNING);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_E_RUNNING);
    CHECK(zrt_proxy_set_option(proxy, "idle-timeout", "60") == ZRT_OK); /* live: kept for a reload */
    CHECK(zrt_proxy_reload(proxy) == ZRT_OK);

    /* A second start is an error and changes nothing. */
    int port = zrt_proxy_port(proxy);
    CHECK(zrt_proxy_start(proxy) == ZRT_E_RUNNING);
    CHECK(zrt_proxy_port(proxy) == port);

    /* A port in use is a failed start with the reason. */
    char text[16];
    snprintf(text, sizeof(text), "%d", port);
    zrt_proxy_t* second = zrt_proxy_create();
    CHECK(zrt_proxy_set_option(second, "port", text) == ZRT_OK);
    CHECK(zrt_proxy_start(second) == ZRT_E_START);
    CHECK(strstr(zrt_proxy_last_error(second), "in use") != NULL);
    CHECK(zrt_proxy_port(second) == 0);
    zrt_proxy_destroy(second);
    zrt_proxy_destroy(proxy);

    /* Every option describes itself; NULL handles are refused, not crashed on. */
    int count = 0;
    for (const char* name; (name = zrt_option_name(count)) != NULL; ++count) {
        CHECK(zrt_option_value(name) != NULL);
        CHECK(zrt_option_description(name) != NULL);
    }
    CHECK(count >= 4);
    CHECK(zrt_option_value("no-such-option") == NULL);
    CHECK(zrt_option_flags("auth") == (ZRT_OPTION_REPEATABLE | ZRT_OPTION_LIVE));
    CHECK(zrt_option_flags("port") == 0);
    CHECK(zrt_option_flags("no-such-option") == 0);
    CHECK(zrt_proxy_set_option(NULL, "port", "0") == ZRT_E_INVALID);
    CHECK(zrt_proxy_start(NULL) == ZRT_E_INVALID);
    CHECK(zrt_proxy_port(NULL) == 0);
    zrt_proxy_stop(NULL);
    zrt_proxy_destroy(NULL);
    CHECK(strchr(zrt_proxy_version(), '.') != NULL);
}

/* Resolvers for the two-proxy case: one answers on the caller's thread, one from a thread of
 * its own a little later; each counts its calls. */
struct resolver {
    atomic_int calls;
    int knows_names;
};

static void answer_now(void* context, const char* name, zrt_lookup_t* lookup)
{
    struct resolver* resolver = context;
    atomic_fetch_add(&resolver->calls, 1);
    struct sockaddr_storage address;
    memset(&address, 0, sizeof(address));
    struct sockaddr_in* v4 = (struct sockaddr_in*)&address;
    v4->sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.2", &v4->sin_addr);
    zrt_lookup_answer(lookup, &address, resolver->knows_names && strcmp(name, "dest.test") == 0 ? 1 : 0);
}

static void* answer_later_thread(void* lookup)
{
    capi_sleep_ms(20);
    zrt_lookup_answer(lookup, NULL, 0);
    return NULL;
}

static void answer_later(void* context, const char* name, zrt_lookup_t* lookup)
{
    struct resolver* resolver = context;
    (void)name;
    atomic_fetch_add(&resolver->calls, 1);
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, answer_later_thread, lookup) == 0);
    pthread_detach(thread);
}

static void test_two_proxies_ask_their_own_resolvers(void)
{
    capi_server_t* server = capi_server_start(10);
    const int port = capi_server_port(server);
    struct resolver knowing = {0, 1};
    struct resolver failing = {0, 0};
    zrt_proxy_t* first = zrt_proxy_create();
    zrt_proxy_t* second = zrt_proxy_create();
    zrt_proxy_set_resolver(first, answer_now, &knowing);
    zrt_proxy_set_resolver(second, answer_later, &failing);
    CHECK(zrt_proxy_set_option(first, "port", "0") == ZRT_OK && zrt_proxy_start(first) == ZRT_OK);
    CHECK(zrt_proxy_set_option(second, "port", "0") == ZRT_OK && zrt_proxy_start(second) == ZRT_OK);

    int reply = 0;
    CHECK(socks5_fetch(first, "dest.test", port) > 10);
    int fd = capi_socks5_connect(zrt_proxy_port(second), "dest.test", port, &reply);
    CHECK(fd < 0 && reply > 0); /* refused, not answered from the first proxy's cache */
    CHECK(atomic_load(&knowing.calls) == 1);
    CHECK(atomic_load(&failing.calls) == 1);

    /* The first one's stop leaves the second one's names alone. */
    zrt_proxy_stop(first);
    fd = capi_socks5_connect(zrt_proxy_port(second), "other.test", port, &reply);
    CHECK(fd < 0 && reply > 0);
    CHECK(atomic_load(&failing.calls) == 2);
    CHECK(atomic_load(&knowing.calls) == 1);
    zrt_proxy_destroy(second);
    zrt_proxy_destroy(first);
    capi_server_stop(server);
}

static void test_stop_does_not_wait_for_a_connect(void)
{
    /* A destination whose queue is full: the kernel drops further SYNs, so a connect to it
     * hangs until its time limit. */
    int port = 0;
    int full = capi_listen("127.0.0.2", 0, &port);
    CHECK(full >= 0);
    struct sockaddr_in target;
    memset(&target, 0, sizeof(target));
    target.sin_family = AF_INET;
    target.sin_port = htons((unsigned short)port);
    inet_pton(AF_INET, "127.0.0.2", &target.sin_addr);
    int fillers[4];
    for (int i = 0; i < 4; ++i) {
        fillers[i] = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(fillers[i], (struct sockaddr*)&target, sizeof(target));
    }
    capi_sleep_ms(100);

    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "connect-timeout", "60") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);

    /* The request goes out; the reply would take a minute. */
    int client = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in entry;
    memset(&entry, 0, sizeof(entry));
    entry.sin_family = AF_INET;
    entry.sin_port = htons((unsigned short)zrt_proxy_port(proxy));
    entry.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    CHECK(connect(client, (struct sockaddr*)&entry, sizeof(entry)) == 0);
    unsigned char greeting[3] = {5, 1, 0};
    unsigned char answer[2];
    CHECK(send(client, greeting, 3, MSG_NOSIGNAL) == 3);
    CHECK(recv(client, answer, 2, MSG_WAITALL) == 2);
    unsigned char request[10] = {5, 1, 0, 1, 127, 0, 0, 2, (unsigned char)(port >> 8), (unsigned char)port};
    CHECK(send(client, request, 10, MSG_NOSIGNAL) == 10);
    capi_sleep_ms(300);
    CHECK(stats_of(proxy).connections_active == 1);

    long long before = capi_now_ms();
    zrt_proxy_stop(proxy);
    long long took = capi_now_ms() - before;
    fprintf(stderr, "stop took %lld ms with a connect under way\n", took);
    CHECK(took < 5000);
    unsigned char rest[16];
    CHECK(recv(client, rest, sizeof(rest), 0) <= 0); /* the client is closed, not left waiting */
    close(client);
    zrt_proxy_destroy(proxy);
    for (int i = 0; i < 4; ++i)
        close(fillers[i]);
    close(full);
}

static atomic_int g_started;
static atomic_int g_stopped;

static void on_thread_start(void* context)
{
    CHECK(context == &g_started);
    atomic_fetch_add(&g_started, 1);
}

static void on_thread_stop(void* context)
{
    CHECK(context == &g_started);
    atomic_fetch_add(&g_stopped, 1);
}

static void test_thread_hooks_are_balanced(void)
{
    capi_server_t* server = capi_server_start(100);
    zrt_proxy_t* proxy = zrt_proxy_create();
    zrt_proxy_set_thread_hooks(proxy, on_thread_start, on_thread_stop, &g_started);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    for (int round = 0; round < 2; ++round) {
        CHECK(zrt_proxy_start(proxy) == ZRT_OK);
        for (int i = 0; i < 5; ++i)
            CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 100);
        /* The two transport threads and an event thread at least. */
        CHECK(atomic_load(&g_started) >= 3);
        zrt_proxy_stop(proxy);
        /* Stop returns when no thread of the proxy runs: every start has its stop. */
        CHECK(atomic_load(&g_started) == atomic_load(&g_stopped));
    }
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

struct socket_watch {
    atomic_int seen;
    atomic_int refuse;
    atomic_int not_a_socket;
};

static int watch_socket(void* context, int fd)
{
    struct socket_watch* watch = context;
    int type = 0;
    socklen_t length = sizeof(type);
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0)
        atomic_fetch_add(&watch->not_a_socket, 1);
    atomic_fetch_add(&watch->seen, 1);
    return atomic_load(&watch->refuse);
}

static void test_socket_hook_sees_and_refuses(void)
{
    capi_server_t* server = capi_server_start(100);
    struct socket_watch watch = {0, 0, 0};
    zrt_proxy_t* proxy = zrt_proxy_create();
    zrt_proxy_set_socket_hook(proxy, watch_socket, &watch);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    for (int i = 0; i < 3; ++i)
        CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 100);
    CHECK(capi_http_get(zrt_proxy_port(proxy), "127.0.0.2", capi_server_port(server)) == 200);
    CHECK(atomic_load(&watch.seen) == 4);
    CHECK(atomic_load(&watch.not_a_socket) == 0);

    /* A refused socket never reaches the destination: the client hears that it is unreachable. */
    atomic_store(&watch.refuse, 1);
    int clients = capi_server_clients(server);
    int reply = 0;
    CHECK(capi_socks5_connect(zrt_proxy_port(proxy), "127.0.0.2", capi_server_port(server), &reply) < 0);
    CHECK(reply > 0);
    CHECK(capi_http_get(zrt_proxy_port(proxy), "127.0.0.2", capi_server_port(server)) == 404);
    CHECK(atomic_load(&watch.seen) == 6);
    capi_sleep_ms(100);
    CHECK(capi_server_clients(server) == clients);
    wait_idle(proxy);
    CHECK(stats_of(proxy).refused_unreachable == 2);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

struct log_lines {
    pthread_mutex_t mutex;
    char text[8192];
    const zrt_proxy_t* proxy;
};

static void collect_line(void* context, int level, const char* line)
{
    struct log_lines* lines = context;
    zrt_proxy_stats_t stats;
    stats.size = sizeof(stats);
    /* Allowed from a callback: it takes no lock that the caller holds. */
    CHECK(zrt_proxy_get_stats(lines->proxy, &stats) == ZRT_OK);
    CHECK(level >= ZRT_LOG_ERROR && level <= ZRT_LOG_DEBUG);
    pthread_mutex_lock(&lines->mutex);
    strncat(lines->text, line, sizeof(lines->text) - strlen(lines->text) - 2);
    strcat(lines->text, "\n");
    pthread_mutex_unlock(&lines->mutex);
}

static void test_log_lines(void)
{
    capi_server_t* server = capi_server_start(100);
    struct log_lines lines;
    memset(&lines, 0, sizeof(lines));
    pthread_mutex_init(&lines.mutex, NULL);
    zrt_proxy_t* proxy = zrt_proxy_create();
    lines.proxy = proxy;
    zrt_proxy_set_log_callback(proxy, collect_line, &lines);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 100);
    int reply = 0;
    CHECK(capi_socks5_connect(zrt_proxy_port(proxy), "127.0.0.2", 1, &reply) < 0);
    wait_idle(proxy);
    zrt_proxy_stop(proxy);
    char expected[128];
    snprintf(expected, sizeof(expected), "listening on 127.0.0.1:%d\n", 0);
    fputs(lines.text, stderr);
    CHECK(strstr(lines.text, "listening on 127.0.0.1:") != NULL);
    snprintf(expected, sizeof(expected), " socks5 - 127.0.0.2:%d ok ", capi_server_port(server));
    CHECK(strstr(lines.text, expected) != NULL);
    CHECK(strstr(lines.text, " socks5 - 127.0.0.2:1 unreachable 0 0 ") != NULL);
    CHECK(strstr(lines.text, "stopped\n") != NULL);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

static int socks5_login(int proxy_port, const char* user, const char* password, int dest_port);

/* Bytes a client chose (a destination name, a user name) reach the callback escaped: valid UTF-8
 * without control bytes, one line per client. */
static void test_log_lines_escape_client_bytes(void)
{
    struct log_lines lines;
    memset(&lines, 0, sizeof(lines));
    pthread_mutex_init(&lines.mutex, NULL);
    zrt_proxy_t* proxy = zrt_proxy_create();
    lines.proxy = proxy;
    zrt_proxy_set_log_callback(proxy, collect_line, &lines);
    CHECK(zrt_proxy_reopen_logs(proxy) == ZRT_E_NOT_RUNNING);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "dns-server", "127.0.0.1:9") == ZRT_OK); /* never asked: see below */
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(zrt_proxy_reopen_logs(proxy) == ZRT_OK); /* no access log: nothing to do */

    /* A label longer than 63 bytes: the name cannot be looked up, so no question leaves. */
    char name[160];
    memset(name, 'a', 64);
    strcpy(name + 64, ".x\n1999-01-01T00:00:00.000Z 192.0.2.66:1 socks5 - - auth-failed 0 0 0\xff.invalid");
    int reply = 0;
    CHECK(capi_socks5_connect(zrt_proxy_port(proxy), name, 80, &reply) < 0);
    CHECK(zrt_proxy_set_option(proxy, "auth", "alice:one") == ZRT_OK && zrt_proxy_reload(proxy) == ZRT_OK);
    CHECK(socks5_login(zrt_proxy_port(proxy), "mal\nlory\x01\xc3\\", "two", 1) == -1);
    wait_idle(proxy);
    zrt_proxy_stop(proxy);

    fputs(lines.text, stderr);
    CHECK(strstr(lines.text, ".x\\x0a1999-01-01T00:00:00.000Z\\x20192.0.2.66:1\\x20socks5") != NULL);
    CHECK(strstr(lines.text, "\\xff.invalid:80 ") != NULL);
    CHECK(strstr(lines.text, " socks5 mal\\x0alory\\x01\\xc3\\x5c - auth-failed ") != NULL);
    CHECK(strstr(lines.text, "\n1999-") == NULL && strstr(lines.text, "\nlory") == NULL);
    /* The inputs are ASCII but for invalid bytes: every byte handed over is printable ASCII. */
    for (const char* at = lines.text; *at; ++at)
        CHECK(*at == '\n' || (*at >= 0x20 && *at < 0x7f));
    zrt_proxy_destroy(proxy);
}

/* A SOCKS5 CONNECT with username/password; the reply code, or -1 when the method or the
 * credentials were refused. The tunnel is closed again. */
static int socks5_login(int proxy_port, const char* user, const char* password, int dest_port)
{
    struct sockaddr_in entry;
    memset(&entry, 0, sizeof(entry));
    entry.sin_family = AF_INET;
    entry.sin_port = htons((unsigned short)proxy_port);
    entry.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct timeval limit = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    CHECK(connect(fd, (struct sockaddr*)&entry, sizeof(entry)) == 0);
    unsigned char message[600];
    unsigned char answer[10];
    int result = -1;
    size_t user_length = strlen(user), password_length = strlen(password), length = 0;
    message[length++] = 5, message[length++] = 1, message[length++] = 2;
    message[length++] = 1, message[length++] = (unsigned char)user_length;
    memcpy(message + length, user, user_length), length += user_length;
    message[length++] = (unsigned char)password_length;
    memcpy(message + length, password, password_length), length += password_length;
    CHECK(send(fd, message, length, MSG_NOSIGNAL) == (ssize_t)length);
    if (recv(fd, answer, 2, MSG_WAITALL) == 2 && answer[1] == 2 && recv(fd, answer, 2, MSG_WAITALL) == 2 &&
        answer[1] == 0) {
        unsigned char request[10] = {5, 1, 0, 1, 127, 0, 0, 2, (unsigned char)(dest_port >> 8), (unsigned char)dest_port};
        CHECK(send(fd, request, 10, MSG_NOSIGNAL) == 10);
        if (recv(fd, answer, 10, MSG_WAITALL) == 10)
            result = answer[1];
    }
    close(fd);
    return result;
}

static void test_reload_applies_live_settings_to_new_clients(void)
{
    capi_server_t* server = capi_server_start(10);
    const int port = capi_server_port(server);
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "auth", "alice:one") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    const int proxy_port = zrt_proxy_port(proxy);
    CHECK(socks5_login(proxy_port, "alice", "one", port) == 0);
    CHECK(socks5_login(proxy_port, "alice", "two", port) == -1);
    int reply = 0;
    CHECK(capi_socks5_connect(proxy_port, "127.0.0.2", port, &reply) < 0); /* no credentials */

    /* Staged while running: nothing changes before the reload. */
    CHECK(zrt_proxy_set_option(proxy, "auth", NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "auth", "bob:three") == ZRT_OK);
    CHECK(socks5_login(proxy_port, "alice", "one", port) == 0);
    CHECK(zrt_proxy_reload(proxy) == ZRT_OK);
    CHECK(socks5_login(proxy_port, "alice", "one", port) == -1);
    CHECK(socks5_login(proxy_port, "bob", "three", port) == 0);

    /* A reload that cannot work changes nothing. */
    CHECK(zrt_proxy_set_option(proxy, "access-log", "/nonexistent/dir/access.log") == ZRT_OK);
    CHECK(zrt_proxy_reload(proxy) == ZRT_E_BAD_VALUE);
    CHECK(strstr(zrt_proxy_last_error(proxy), "access log") != NULL);
    CHECK(socks5_login(proxy_port, "bob", "three", port) == 0);

    /* Settings without users do not open the proxy, unless they say so. */
    CHECK(zrt_proxy_set_option(proxy, "access-log", NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "auth", NULL) == ZRT_OK);
    CHECK(zrt_proxy_reload(proxy) == ZRT_E_BAD_VALUE);
    CHECK(strstr(zrt_proxy_last_error(proxy), "auth none") != NULL);
    CHECK(socks5_login(proxy_port, "bob", "three", port) == 0);
    CHECK(capi_socks5_connect(proxy_port, "127.0.0.2", port, &reply) < 0);
    CHECK(zrt_proxy_set_option(proxy, "auth", "none") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "auth", "carol:x") == ZRT_E_BAD_VALUE); /* none means none */
    CHECK(zrt_proxy_reload(proxy) == ZRT_OK);
    CHECK(socks5_fetch(proxy, "127.0.0.2", port) > 10);
    wait_idle(proxy);
    zrt_proxy_stats_t stats = stats_of(proxy);
    CHECK(stats.refused_auth_failed == 4);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

static void write_file(const char* path, const char* text)
{
    FILE* file = fopen(path, "w");
    CHECK(file != NULL);
    fputs(text, file);
    fclose(file);
}

/* A users file that cannot be read, is no regular file or names nobody never opens the proxy:
 * not when it is set, not at start, not at a reload. */
static void test_users_file_fails_closed(void)
{
    capi_server_t* server = capi_server_start(10);
    const int port = capi_server_port(server);
    char dir[] = "/tmp/zrt-capi-XXXXXX";
    CHECK(mkdtemp(dir) != NULL);
    char users[64];
    snprintf(users, sizeof(users), "%s/users", dir);
    zrt_proxy_t* proxy = zrt_proxy_create();
    const char* bad[] = {"", "# nobody yet\n\n   # still nobody\n"};
    for (int i = 0; i < 2; ++i) {
        write_file(users, bad[i]);
        CHECK(zrt_proxy_set_option(proxy, "auth-file", users) == ZRT_E_BAD_VALUE);
        CHECK(strstr(zrt_proxy_last_error(proxy), "no user") != NULL);
    }
    CHECK(zrt_proxy_set_option(proxy, "auth-file", dir) == ZRT_E_BAD_VALUE);
    CHECK(strstr(zrt_proxy_last_error(proxy), "not a regular file") != NULL);

    /* Emptied between set and start: the start fails, nothing listens. */
    write_file(users, "alice:one # the operator\n");
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "auth-file", users) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "auth", "none") == ZRT_E_BAD_VALUE);
    write_file(users, "");
    CHECK(zrt_proxy_start(proxy) == ZRT_E_START);
    CHECK(strstr(zrt_proxy_last_error(proxy), users) != NULL);
    CHECK(zrt_proxy_listen_count(proxy) == 0);

    /* Emptied, then turned into a directory, while running: each reload fails, the users stay. */
    write_file(users, "alice:one # the operator\n");
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    const int proxy_port = zrt_proxy_port(proxy);
    CHECK(socks5_login(proxy_port, "alice", "one", port) == 0);
    write_file(users, "# alice:one\n");
    CHECK(zrt_proxy_reload(proxy) == ZRT_E_BAD_VALUE);
    CHECK(unlink(users) == 0 && mkdir(users, 0700) == 0);
    CHECK(zrt_proxy_reload(proxy) == ZRT_E_BAD_VALUE);
    CHECK(socks5_login(proxy_port, "alice", "one", port) == 0);
    int reply = 0;
    CHECK(capi_socks5_connect(proxy_port, "127.0.0.2", port, &reply) < 0);
    zrt_proxy_destroy(proxy);
    rmdir(users);
    rmdir(dir);
    capi_server_stop(server);
}

/* A SOCKS5 greeting to [::1]:port answered with "no authentication": that socket serves. */
static int serves_on_ipv6_loopback(int port)
{
    struct sockaddr_in6 entry;
    memset(&entry, 0, sizeof(entry));
    entry.sin6_family = AF_INET6;
    entry.sin6_port = htons((unsigned short)port);
    entry.sin6_addr = in6addr_loopback;
    int fd = socket(AF_INET6, SOCK_STREAM, 0);
    unsigned char greeting[3] = {5, 1, 0};
    unsigned char answer[2] = {0, 0};
    int served = connect(fd, (struct sockaddr*)&entry, sizeof(entry)) == 0 &&
                 send(fd, greeting, 3, MSG_NOSIGNAL) == 3 && recv(fd, answer, 2, MSG_WAITALL) == 2 &&
                 answer[0] == 5 && answer[1] == 0;
    close(fd);
    return served;
}

static void test_listen_on_several_addresses(void)
{
    capi_server_t* server = capi_server_start(100);
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_option(proxy, "listen", "127.0.0.1") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "listen", "[::1]") == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "listen", "0:0::1") == ZRT_OK); /* ::1 again: no second socket */
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(zrt_proxy_listen_count(proxy) == 2);
    const int first = zrt_proxy_listen_port(proxy, 0), ipv6 = zrt_proxy_listen_port(proxy, 1);
    CHECK(first > 0 && ipv6 > 0 && zrt_proxy_port(proxy) == first);
    CHECK(zrt_proxy_listen_port(proxy, 2) == 0 && zrt_proxy_listen_port(proxy, -1) == 0);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 100);
    CHECK(serves_on_ipv6_loopback(ipv6));
    zrt_proxy_stop(proxy);
    CHECK(zrt_proxy_listen_count(proxy) == 0 && zrt_proxy_listen_port(proxy, 1) == 0);

    /* One port for all (one that was free on ::1 may be taken on 127.0.0.1: a few tries); an
     * address that cannot be had fails the start and leaves none open. */
    int shared = 0;
    for (int attempt = 0; attempt < 10 && shared == 0; ++attempt) {
        char text[16];
        CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK && zrt_proxy_start(proxy) == ZRT_OK);
        const int candidate = zrt_proxy_listen_port(proxy, 1);
        zrt_proxy_stop(proxy);
        snprintf(text, sizeof(text), "%d", candidate);
        CHECK(zrt_proxy_set_option(proxy, "port", text) == ZRT_OK);
        shared = zrt_proxy_start(proxy) == ZRT_OK ? candidate : 0;
    }
    CHECK(shared > 0);
    CHECK(zrt_proxy_listen_port(proxy, 0) == shared && zrt_proxy_listen_port(proxy, 1) == shared);
    CHECK(serves_on_ipv6_loopback(shared));
    zrt_proxy_stop(proxy);
    CHECK(zrt_proxy_set_option(proxy, "listen", "192.0.2.1") == ZRT_OK);
    CHECK(zrt_proxy_start(proxy) == ZRT_E_START);
    CHECK(strstr(zrt_proxy_last_error(proxy), "192.0.2.1") != NULL);
    CHECK(zrt_proxy_listen_count(proxy) == 0);
    CHECK(!serves_on_ipv6_loopback(shared));
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

/* Re-entry: every kind of callback tries the calls that would wait for its own thread; each must
 * come back at once with ZRT_E_REENTRANT (a wait would hang the test), leave the proxy as it was
 * and say why. Each kind sets its bit once it has checked. */
enum { KIND_LOG, KIND_THREAD, KIND_SOCKET, KIND_RESOLVER, KIND_ACCEPT, KIND_COUNT };
static zrt_proxy_t* g_reentered;
static atomic_int g_reentry_checked;
static atomic_int g_reentry_wrong;

static void try_reentry(int kind)
{
    zrt_proxy_t* proxy = g_reentered;
    if (!proxy)
        return;
    int refused = zrt_proxy_start(proxy) == ZRT_E_REENTRANT && zrt_proxy_reload(proxy) == ZRT_E_REENTRANT &&
                  zrt_proxy_set_option(proxy, "idle-timeout", "5") == ZRT_E_REENTRANT &&
                  zrt_proxy_set_resolver(proxy, NULL, NULL) == ZRT_E_REENTRANT &&
                  zrt_proxy_network_changed(proxy) == ZRT_E_REENTRANT &&
                  strstr(zrt_proxy_last_error(proxy), "zrt_proxy_network_changed") != NULL;
    zrt_proxy_stop(proxy);
    zrt_proxy_destroy(proxy);
    /* The calls that never wait still answer. */
    zrt_proxy_stats_t stats;
    stats.size = sizeof(stats);
    refused = refused && zrt_proxy_get_stats(proxy, &stats) == ZRT_OK;
    if (refused)
        atomic_fetch_or(&g_reentry_checked, 1 << kind);
    else
        atomic_fetch_add(&g_reentry_wrong, 1);
}

static atomic_int g_refusal_lines;

static void reentry_log(void* context, int level, const char* line)
{
    (void)context;
    if (level == ZRT_LOG_ERROR && strstr(line, "inside a callback"))
        atomic_fetch_add(&g_refusal_lines, 1);
    try_reentry(KIND_LOG);
}

static void reentry_thread(void* context)
{
    (void)context;
    try_reentry(KIND_THREAD);
}

static int reentry_socket(void* context, int fd)
{
    (void)context;
    (void)fd;
    try_reentry(KIND_SOCKET);
    return 0;
}

static int reentry_accept(void* context, const struct sockaddr* client, const struct sockaddr* local)
{
    (void)context;
    (void)client;
    (void)local;
    try_reentry(KIND_ACCEPT);
    return 0;
}

static struct sockaddr_storage loopback_address(const char* text)
{
    struct sockaddr_storage address;
    memset(&address, 0, sizeof(address));
    struct sockaddr_in* v4 = (struct sockaddr_in*)&address;
    v4->sin_family = AF_INET;
    inet_pton(AF_INET, text, &v4->sin_addr);
    return address;
}

static void reentry_resolve(void* context, const char* name, zrt_lookup_t* lookup)
{
    (void)context;
    (void)name;
    try_reentry(KIND_RESOLVER);
    struct sockaddr_storage addresses[2] = {loopback_address("127.0.0.2"), loopback_address("127.0.0.3")};
    zrt_lookup_answer(lookup, addresses, 1);
    zrt_lookup_answer(lookup, addresses + 1, 1); /* ignored: the client gets 127.0.0.2 */
    zrt_lookup_answer_ttl(lookup, NULL, 0, 5);   /* ignored too */
}

static void test_callbacks_refuse_reentry(void)
{
    capi_server_t* server = capi_server_start(10);
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_log_callback(proxy, reentry_log, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_thread_hooks(proxy, reentry_thread, reentry_thread, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_socket_hook(proxy, reentry_socket, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_resolver(proxy, reentry_resolve, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_accept_hook(proxy, reentry_accept, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK);
    g_reentered = proxy;
    CHECK(zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(strcmp(zrt_proxy_last_error(proxy), "") == 0); /* the callbacks' reasons stay theirs */
    CHECK(socks5_fetch(proxy, "dest.test", capi_server_port(server)) > 10);
    CHECK(capi_server_clients(server) == 1);
    long long deadline = capi_now_ms() + 10000;
    while (atomic_load(&g_reentry_checked) != (1 << KIND_COUNT) - 1 && capi_now_ms() < deadline)
        capi_sleep_ms(5);
    CHECK(atomic_load(&g_reentry_checked) == (1 << KIND_COUNT) - 1);
    CHECK(atomic_load(&g_reentry_wrong) == 0);
    CHECK(zrt_proxy_port(proxy) > 0); /* still serving */
    zrt_proxy_stop(proxy);
    CHECK(atomic_load(&g_refusal_lines) == 1); /* logged once per start, not for every refusal */
    g_reentered = NULL;
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

/* Setters while running: the log callback and the socket hook take effect, the thread hooks and
 * the resolver are refused. */
static atomic_int g_first_lines;
static atomic_int g_second_lines;

static void count_first(void* context, int level, const char* line)
{
    (void)context;
    (void)level;
    (void)line;
    atomic_fetch_add(&g_first_lines, 1);
}

static void count_second(void* context, int level, const char* line)
{
    (void)context;
    (void)level;
    (void)line;
    atomic_fetch_add(&g_second_lines, 1);
}

static int refuse_every_socket(void* context, int fd)
{
    (void)context;
    (void)fd;
    return -1;
}

static void test_setters_while_running(void)
{
    capi_server_t* server = capi_server_start(10);
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_log_callback(proxy, count_first, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK && zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(zrt_proxy_set_thread_hooks(proxy, on_thread_start, on_thread_stop, &g_started) == ZRT_E_RUNNING);
    CHECK(zrt_proxy_set_resolver(proxy, answer_now, NULL) == ZRT_E_RUNNING);
    CHECK(strstr(zrt_proxy_last_error(proxy), "runs") != NULL);

    CHECK(zrt_proxy_set_socket_hook(proxy, refuse_every_socket, NULL) == ZRT_OK);
    int reply = 0;
    CHECK(capi_socks5_connect(zrt_proxy_port(proxy), "127.0.0.2", capi_server_port(server), &reply) < 0 && reply > 0);
    CHECK(zrt_proxy_set_socket_hook(proxy, NULL, NULL) == ZRT_OK);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 10);

    long long deadline = capi_now_ms() + 10000;
    while (atomic_load(&g_first_lines) < 2 && capi_now_ms() < deadline)
        capi_sleep_ms(5);
    CHECK(zrt_proxy_set_log_callback(proxy, count_second, NULL) == ZRT_OK);
    int first = atomic_load(&g_first_lines);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 10);
    zrt_proxy_stop(proxy); /* hands over every line */
    CHECK(atomic_load(&g_second_lines) >= 2); /* the client's line and "stopped" */
    CHECK(atomic_load(&g_first_lines) <= first + 1); /* at most one line was on its way */
    CHECK(atomic_load(&g_started) == 0);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

/* A resolver that knows every name as 127.0.0.2, counting its calls; names starting with "short"
 * are kept for a second. */
static atomic_int g_lookups;

static void answer_counted(void* context, const char* name, zrt_lookup_t* lookup)
{
    (void)context;
    atomic_fetch_add(&g_lookups, 1);
    struct sockaddr_storage address = loopback_address("127.0.0.2");
    if (strncmp(name, "short", 5) == 0)
        zrt_lookup_answer_ttl(lookup, &address, 1, 1);
    else
        zrt_lookup_answer(lookup, &address, 1);
}

static void test_cached_names_expire_and_go_with_the_network(void)
{
    capi_server_t* server = capi_server_start(10);
    const int port = capi_server_port(server);
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_network_changed(proxy) == ZRT_E_NOT_RUNNING);
    CHECK(zrt_proxy_set_resolver(proxy, answer_counted, NULL) == ZRT_OK);
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK && zrt_proxy_start(proxy) == ZRT_OK);

    CHECK(socks5_fetch(proxy, "kept.test", port) > 10);
    CHECK(socks5_fetch(proxy, "short.test", port) > 10);
    CHECK(atomic_load(&g_lookups) == 2);
    capi_sleep_ms(1500);
    CHECK(socks5_fetch(proxy, "kept.test", port) > 10);  /* from the cache */
    CHECK(socks5_fetch(proxy, "short.test", port) > 10); /* its second has passed */
    CHECK(atomic_load(&g_lookups) == 3);

    CHECK(zrt_proxy_network_changed(proxy) == ZRT_OK);
    CHECK(socks5_fetch(proxy, "kept.test", port) > 10);
    CHECK(atomic_load(&g_lookups) == 4);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

/* The accept hook refuses the first client before reading from it and lets the next one in. */
static atomic_int g_accepts;
static int g_proxy_port;

static int refuse_the_first(void* context, const struct sockaddr* client, const struct sockaddr* local)
{
    (void)context;
    const struct sockaddr_in* to = (const struct sockaddr_in*)local;
    CHECK(client->sa_family == AF_INET && local->sa_family == AF_INET);
    CHECK(ntohs(to->sin_port) == g_proxy_port && ntohl(to->sin_addr.s_addr) == INADDR_LOOPBACK);
    return atomic_fetch_add(&g_accepts, 1) == 0 ? -1 : 0;
}

static void test_accept_hook_refuses_and_admits(void)
{
    capi_server_t* server = capi_server_start(10);
    zrt_proxy_t* proxy = started_proxy();
    g_proxy_port = zrt_proxy_port(proxy);
    CHECK(zrt_proxy_set_accept_hook(proxy, refuse_the_first, NULL) == ZRT_OK);
    int reply = 0;
    CHECK(capi_socks5_connect(g_proxy_port, "127.0.0.2", capi_server_port(server), &reply) < 0 && reply == -1);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 10);
    wait_idle(proxy);
    zrt_proxy_stats_t stats = stats_of(proxy);
    CHECK(stats.refused_not_allowed == 1 && stats.connections_total == 1);
    CHECK(atomic_load(&g_accepts) == 2);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

/* The socket hook is told what each socket is for. */
static atomic_int g_purposes[5];

static int note_purpose(void* context, int fd, int purpose)
{
    (void)context;
    CHECK(fd >= 0 && purpose >= ZRT_SOCKET_CONNECT && purpose <= ZRT_SOCKET_LISTEN);
    atomic_fetch_add(&g_purposes[purpose], 1);
    return 0;
}

static void wait_purpose(int purpose)
{
    long long deadline = capi_now_ms() + 10000;
    while (atomic_load(&g_purposes[purpose]) == 0 && capi_now_ms() < deadline)
        capi_sleep_ms(5);
    CHECK(atomic_load(&g_purposes[purpose]) == 1);
}

static void test_socket_hook_purposes(void)
{
    capi_server_t* server = capi_server_start(10);
    zrt_proxy_t* proxy = zrt_proxy_create();
    CHECK(zrt_proxy_set_socket_hook_ex(proxy, note_purpose, NULL) == ZRT_OK);
#ifdef CAPI_WITH_CARES
    capi_dns_t* dns = capi_dns_start();
    char server_text[32];
    snprintf(server_text, sizeof(server_text), "127.0.0.1:%d", capi_dns_port(dns));
    CHECK(zrt_proxy_set_option(proxy, "dns-server", server_text) == ZRT_OK);
#endif
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK && zrt_proxy_start(proxy) == ZRT_OK);
    const int port = zrt_proxy_port(proxy);

    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 10);
    wait_purpose(ZRT_SOCKET_CONNECT);

    /* UDP ASSOCIATE, and a datagram to a loopback port through the relay. */
    int reply = 0;
    int relay_port = 0;
    int control = capi_socks5_command(port, 3, "0.0.0.0", 0, &reply, &relay_port);
    CHECK(control >= 0 && relay_port > 0);
    int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_storage relay = loopback_address("127.0.0.1");
    ((struct sockaddr_in*)&relay)->sin_port = htons((unsigned short)relay_port);
    unsigned char datagram[13] = {0, 0, 0, 1, 127, 0, 0, 2, (unsigned char)(capi_server_port(server) >> 8),
                                  (unsigned char)capi_server_port(server), 'a', 'b', 'c'};
    CHECK(sendto(udp, datagram, sizeof(datagram), 0, (struct sockaddr*)&relay, sizeof(struct sockaddr_in)) == 13);
    wait_purpose(ZRT_SOCKET_DATAGRAM);
    close(udp);
    close(control);

    /* BIND: the proxy listens for the destination's connection. */
    int bind_fd = capi_socks5_command(port, 2, "127.0.0.2", capi_server_port(server), &reply, NULL);
    CHECK(bind_fd >= 0);
    wait_purpose(ZRT_SOCKET_LISTEN);
    close(bind_fd);

#ifdef CAPI_WITH_CARES
    CHECK(capi_socks5_connect(port, "lookup.test", capi_server_port(server), &reply) < 0 && reply > 0);
    CHECK(atomic_load(&g_purposes[ZRT_SOCKET_LOOKUP]) >= 1 && capi_dns_queries(dns) >= 1);
#endif
    CHECK(atomic_load(&g_purposes[ZRT_SOCKET_CONNECT]) == 1);
    zrt_proxy_destroy(proxy);
#ifdef CAPI_WITH_CARES
    capi_dns_stop(dns);
#endif
    capi_server_stop(server);
}

/* A listening socket handed in is served, and closed at stop; anything else is refused and left
 * to the caller. */
static void test_start_on_socket(void)
{
    capi_server_t* server = capi_server_start(10);
    zrt_proxy_t* proxy = zrt_proxy_create();
    int not_listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    CHECK(zrt_proxy_start_on_socket(proxy, not_listening) == ZRT_E_INVALID);
    CHECK(zrt_proxy_start_on_socket(proxy, -1) == ZRT_E_INVALID);
    CHECK(close(not_listening) == 0); /* still the caller's */

    int port = 0;
    int fd = capi_listen("127.0.0.1", 16, &port);
    CHECK(fd >= 0);
    CHECK(zrt_proxy_start_on_socket(proxy, fd) == ZRT_OK);
    CHECK(zrt_proxy_port(proxy) == port && zrt_proxy_listen_count(proxy) == 1);
    CHECK(zrt_proxy_start_on_socket(proxy, fd) == ZRT_E_RUNNING);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 10);
    zrt_proxy_stop(proxy);
    int reply = 0;
    CHECK(capi_socks5_connect(port, "127.0.0.2", capi_server_port(server), &reply) < 0); /* closed */

    /* A later start listens by the settings again. */
    CHECK(zrt_proxy_set_option(proxy, "port", "0") == ZRT_OK && zrt_proxy_start(proxy) == ZRT_OK);
    CHECK(socks5_fetch(proxy, "127.0.0.2", capi_server_port(server)) > 10);
    zrt_proxy_destroy(proxy);
    capi_server_stop(server);
}

struct named_test {
    const char* name;
    void (*run)(void);
};

static const struct named_test TESTS[] = {
    {"serve_count_stop_restart", test_serve_count_stop_restart},
    {"options_and_errors", test_options_and_errors},
    {"two_proxies_ask_their_own_resolvers", test_two_proxies_ask_their_own_resolvers},
    {"stop_does_not_wait_for_a_connect", test_stop_does_not_wait_for_a_connect},
    {"thread_hooks_are_balanced", test_thread_hooks_are_balanced},
    {"socket_hook_sees_and_refuses", test_socket_hook_sees_and_refuses},
    {"log_lines", test_log_lines},
    {"log_lines_escape_client_bytes", test_log_lines_escape_client_bytes},
    {"reload_applies_live_settings_to_new_clients", test_reload_applies_live_settings_to_new_clients},
    {"users_file_fails_closed", test_users_file_fails_closed},
    {"listen_on_several_addresses", test_listen_on_several_addresses},
    {"callbacks_refuse_reentry", test_callbacks_refuse_reentry},
    {"setters_while_running", test_setters_while_running},
    {"cached_names_expire_and_go_with_the_network", test_cached_names_expire_and_go_with_the_network},
    {"accept_hook_refuses_and_admits", test_accept_hook_refuses_and_admits},
    {"socket_hook_purposes", test_socket_hook_purposes},
    {"start_on_socket", test_start_on_socket},
};

int main(int argc, char** argv)
{
    for (size_t i = 0; i < sizeof(TESTS) / sizeof(TESTS[0]); ++i) {
        if (argc < 2) {
            puts(TESTS[i].name);
            continue;
        }
        if (strcmp(argv[1], TESTS[i].name) == 0) {
            TESTS[i].run();
            return 0;
        }
    }
    if (argc < 2)
        return 0;
    fprintf(stderr, "no test named %s\n", argv[1]);
    return 2;
}
