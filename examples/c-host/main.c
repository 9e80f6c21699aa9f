/* A minimal host of the proxy library through its C interface: start on a port (the first
 * argument, or a free one), print it, serve until SIGINT or SIGTERM, print the counters, stop.
 *
 *   c-host [PORT]
 *
 * Valid C and C++, so it also shows the interface used from a C++ program built with another
 * standard library (clang++ -stdlib=libc++). */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <zrtproxy/zrtproxy.h>

static void print_line(void* context, int level, const char* line)
{
    (void)context;
    fprintf(stderr, "[%d] %s\n", level, line);
}

int main(int argc, char** argv)
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    /* Blocked before the proxy starts threads, so they inherit the mask and sigwait gets it. */
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    zrt_proxy_t* proxy = zrt_proxy_create();
    if (!proxy)
        return 1;
    if (zrt_proxy_set_option(proxy, "port", argc > 1 ? argv[1] : "0") != ZRT_OK) {
        fprintf(stderr, "c-host: %s\n", zrt_proxy_last_error(proxy));
        zrt_proxy_destroy(proxy);
        return 2;
    }
    zrt_proxy_set_log_callback(proxy, print_line, NULL);
    if (zrt_proxy_start(proxy) != ZRT_OK) {
        fprintf(stderr, "c-host: %s\n", zrt_proxy_last_error(proxy));
        zrt_proxy_destroy(proxy);
        return 1;
    }
    printf("port %d\n", zrt_proxy_port(proxy));
    fflush(stdout);

    int received = 0;
    sigwait(&stop, &received);

    zrt_proxy_stats_t stats;
    memset(&stats, 0, sizeof(stats));
    stats.size = sizeof(stats);
    zrt_proxy_get_stats(proxy, &stats);
    printf("connections %llu (socks5 %llu, http %llu), bytes up %llu, bytes down %llu\n",
           (unsigned long long)stats.connections_total, (unsigned long long)stats.socks5_total,
           (unsigned long long)stats.http_total, (unsigned long long)stats.bytes_client_to_host,
           (unsigned long long)stats.bytes_host_to_client);
    zrt_proxy_destroy(proxy); /* stops first */
    return 0;
}
