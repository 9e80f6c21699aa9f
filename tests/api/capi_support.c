#define _GNU_SOURCE
#include "capi_support.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

void capi_fail(const char* file, int line, const char* what)
{
    fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    exit(1);
}

long long capi_now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void capi_sleep_ms(int milliseconds)
{
    struct timespec pause = {milliseconds / 1000, (long)(milliseconds % 1000) * 1000000L};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

int capi_listen(const char* address, int backlog, int* port)
{
    struct sockaddr_in local;
    socklen_t length = sizeof(local);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    memset(&local, 0, sizeof(local));
    local.sin_family = AF_INET;
    inet_pton(AF_INET, address, &local.sin_addr);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (fd < 0 || bind(fd, (struct sockaddr*)&local, sizeof(local)) != 0 || listen(fd, backlog) != 0 ||
        getsockname(fd, (struct sockaddr*)&local, &length) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    *port = ntohs(local.sin_port);
    return fd;
}

/* Writes everything; no SIGPIPE (the tests run with its default action). */
static int send_all(int fd, const char* data, size_t length)
{
    while (length > 0) {
        ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return -1;
        data += sent;
        length -= (size_t)sent;
    }
    return 0;
}

static int read_exact(int fd, unsigned char* data, size_t length)
{
    while (length > 0) {
        ssize_t got = recv(fd, data, length, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return -1;
        data += got;
        length -= (size_t)got;
    }
    return 0;
}

struct capi_server {
    int listener;
    int port;
    int stop[2];
    size_t body_length;
    atomic_int clients;
    pthread_t thread;
};

static void serve_one(capi_server_t* server, int client)
{
    char request[4096];
    size_t used = 0;
    while (used < sizeof(request) - 1) {
        ssize_t got = recv(client, request + used, sizeof(request) - 1 - used, 0);
        if (got <= 0)
            return;
        used += (size_t)got;
        request[used] = '\0';
        if (strstr(request, "\r\n\r\n"))
            break;
    }
    char head[128];
    int head_length = snprintf(head, sizeof(head), "HTTP/1.1 200 OK\r\nContent-Length: %zu\r\nConnection: close\r\n\r\n",
                               server->body_length);
    if (send_all(client, head, (size_t)head_length) != 0)
        return;
    char chunk[16384];
    memset(chunk, 'x', sizeof(chunk));
    for (size_t left = server->body_length; left > 0;) {
        size_t part = left < sizeof(chunk) ? left : sizeof(chunk);
        if (send_all(client, chunk, part) != 0)
            return; /* the client went away mid-body */
        left -= part;
    }
}

static void* server_main(void* argument)
{
    capi_server_t* server = argument;
    for (;;) {
        struct pollfd fds[2] = {{server->listener, POLLIN, 0}, {server->stop[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno == EINTR)
            continue;
        if (fds[1].revents)
            return NULL;
        int client = accept(server->listener, NULL, NULL);
        if (client < 0)
            continue;
        atomic_fetch_add(&server->clients, 1);
        serve_one(server, client);
        close(client);
    }
}

capi_server_t* capi_server_start(size_t body_length)
{
    capi_server_t* server = calloc(1, sizeof(*server));
    CHECK(server != NULL);
    server->body_length = body_length;
    server->listener = capi_listen("127.0.0.2", 64, &server->port);
    CHECK(server->listener >= 0);
    CHECK(pipe(server->stop) == 0);
    CHECK(pthread_create(&server->thread, NULL, server_main, server) == 0);
    return server;
}

int capi_server_port(const capi_server_t* server)
{
    return server->port;
}

int capi_server_clients(const capi_server_t* server)
{
    return atomic_load(&((capi_server_t*)server)->clients);
}

void capi_server_stop(capi_server_t* server)
{
    CHECK(write(server->stop[1], "x", 1) == 1);
    pthread_join(server->thread, NULL);
    close(server->listener);
    close(server->stop[0]);
    close(server->stop[1]);
    free(server);
}

static int connect_proxy(int proxy_port)
{
    struct sockaddr_in proxy;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct timeval limit = {20, 0};
    memset(&proxy, 0, sizeof(proxy));
    proxy.sin_family = AF_INET;
    proxy.sin_port = htons((unsigned short)proxy_port);
    proxy.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    /* No test may hang on a proxy that stopped answering. */
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (fd < 0 || connect(fd, (struct sockaddr*)&proxy, sizeof(proxy)) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

int capi_socks5_connect(int proxy_port, const char* host, int port, int* reply)
{
    return capi_socks5_command(proxy_port, 1, host, port, reply, NULL);
}

int capi_socks5_command(int proxy_port, int command, const char* host, int port, int* reply, int* bound_port)
{
    unsigned char message[300];
    unsigned char answer[10];
    struct in_addr numeric;
    size_t length = 0;
    int fd = connect_proxy(proxy_port);
    *reply = -1;
    if (fd < 0)
        return -1;
    if (send_all(fd, "\x05\x01\x00", 3) != 0 || read_exact(fd, answer, 2) != 0 || answer[0] != 5 || answer[1] != 0)
        goto fail;
    message[length++] = 5;
    message[length++] = (unsigned char)command;
    message[length++] = 0;
    if (inet_pton(AF_INET, host, &numeric) == 1) {
        message[length++] = 1;
        memcpy(message + length, &numeric, 4);
        length += 4;
    } else {
        size_t name_length = strlen(host);
        message[length++] = 3;
        message[length++] = (unsigned char)name_length;
        memcpy(message + length, host, name_length);
        length += name_length;
    }
    message[length++] = (unsigned char)(port >> 8);
    message[length++] = (unsigned char)port;
    if (send_all(fd, (const char*)message, length) != 0 || read_exact(fd, answer, 4) != 0)
        goto fail;
    *reply = answer[1];
    if (answer[1] != 0)
        goto fail;
    /* The bound address: IPv4 (4 bytes) or IPv6 (16), then the port. */
    size_t bound_length = answer[3] == 4 ? 18 : 6;
    if (read_exact(fd, message, bound_length) != 0)
        goto fail;
    if (bound_port)
        *bound_port = message[bound_length - 2] << 8 | message[bound_length - 1];
    return fd;
fail:
    close(fd);
    return -1;
}

long capi_http_exchange(int socket, const char* host_header)
{
    char request[256];
    char buffer[65536];
    long total = 0;
    int length = snprintf(request, sizeof(request), "GET / HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n\r\n", host_header);
    if (send_all(socket, request, (size_t)length) != 0)
        return -1;
    for (;;) {
        ssize_t got = recv(socket, buffer, sizeof(buffer), 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            return total;
        total += got;
    }
}

int capi_http_get(int proxy_port, const char* host, int port)
{
    char request[512];
    char head[64];
    int status = -1;
    int fd = connect_proxy(proxy_port);
    if (fd < 0)
        return -1;
    int length = snprintf(request, sizeof(request), "GET http://%s:%d/ HTTP/1.1\r\nHost: %s:%d\r\nConnection: close\r\n\r\n",
                          host, port, host, port);
    if (send_all(fd, request, (size_t)length) == 0) {
        ssize_t got = recv(fd, head, sizeof(head) - 1, MSG_WAITALL);
        if (got >= 12) {
            head[got] = '\0';
            sscanf(head, "HTTP/1.%*c %d", &status);
        }
    }
    close(fd);
    return status;
}

struct capi_dns {
    int fd;
    int port;
    atomic_int stop;
    atomic_int queries;
    pthread_t thread;
};

/* Answers every query with "no such name": its own bytes, flagged as a response. */
static void* dns_main(void* argument)
{
    capi_dns_t* dns = argument;
    while (!atomic_load(&dns->stop)) {
        unsigned char packet[512];
        struct sockaddr_storage from;
        socklen_t from_length = sizeof(from);
        ssize_t got = recvfrom(dns->fd, packet, sizeof(packet), 0, (struct sockaddr*)&from, &from_length);
        if (got < 12)
            continue; /* the receive time-out, so that the stop is seen */
        atomic_fetch_add(&dns->queries, 1);
        packet[2] = 0x81;
        packet[3] = 0x83;
        sendto(dns->fd, packet, (size_t)got, 0, (struct sockaddr*)&from, from_length);
    }
    return NULL;
}

capi_dns_t* capi_dns_start(void)
{
    capi_dns_t* dns = calloc(1, sizeof(*dns));
    struct sockaddr_in local;
    socklen_t length = sizeof(local);
    struct timeval tick = {0, 100000};
    CHECK(dns != NULL);
    memset(&local, 0, sizeof(local));
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    dns->fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    CHECK(dns->fd >= 0 && bind(dns->fd, (struct sockaddr*)&local, sizeof(local)) == 0);
    CHECK(getsockname(dns->fd, (struct sockaddr*)&local, &length) == 0);
    setsockopt(dns->fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof(tick));
    dns->port = ntohs(local.sin_port);
    CHECK(pthread_create(&dns->thread, NULL, dns_main, dns) == 0);
    return dns;
}

int capi_dns_port(const capi_dns_t* dns)
{
    return dns->port;
}

int capi_dns_queries(const capi_dns_t* dns)
{
    return atomic_load(&((capi_dns_t*)dns)->queries);
}

void capi_dns_stop(capi_dns_t* dns)
{
    atomic_store(&dns->stop, 1);
    pthread_join(dns->thread, NULL);
    close(dns->fd);
    free(dns);
}
