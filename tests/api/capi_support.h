/* Sockets, a destination server and proxy clients for the C interface's tests, in plain C. */
#ifndef CAPI_SUPPORT_H
#define CAPI_SUPPORT_H

#include <stddef.h>

/* Stops the test with a message naming the file and line. */
#define CHECK(condition)                                                                            \
    do {                                                                                            \
        if (!(condition))                                                                           \
            capi_fail(__FILE__, __LINE__, #condition);                                              \
    } while (0)
void capi_fail(const char* file, int line, const char* what);

/* Milliseconds on a steady clock. */
long long capi_now_ms(void);
void capi_sleep_ms(int milliseconds);

/* A TCP socket listening on address (numeric), port 0; its port in *port. -1 on failure. */
int capi_listen(const char* address, int backlog, int* port);

/* A destination on 127.0.0.2: answers each request (read up to a blank line) with an HTTP
 * response whose body is body_length bytes of 'x', then closes. One client at a time. */
typedef struct capi_server capi_server_t;
capi_server_t* capi_server_start(size_t body_length);
int capi_server_port(const capi_server_t* server);
int capi_server_clients(const capi_server_t* server);
void capi_server_stop(capi_server_t* server);

/* Opens a tunnel through the SOCKS5 proxy on 127.0.0.1:proxy_port to host:port (host numeric
 * IPv4, or a name sent as such). Returns the connected socket, or -1 with the reply code in
 * *reply (-1 when the proxy closed or sent garbage). */
int capi_socks5_connect(int proxy_port, const char* host, int port, int* reply);
/* Any SOCKS5 command (1 CONNECT, 2 BIND, 3 UDP ASSOCIATE) as capi_socks5_connect; the port of
 * the proxy's first reply in *bound_port when given. */
int capi_socks5_command(int proxy_port, int command, const char* host, int port, int* reply, int* bound_port);
/* Sends a GET for / over socket and reads the whole response; the number of bytes read, or -1. */
long capi_http_exchange(int socket, const char* host_header);
/* A GET for http://host:port/ through the HTTP side of the proxy; the status code, or -1. */
int capi_http_get(int proxy_port, const char* host, int port);

/* A DNS server on 127.0.0.1 (UDP) that answers every query "no such name". */
typedef struct capi_dns capi_dns_t;
capi_dns_t* capi_dns_start(void);
int capi_dns_port(const capi_dns_t* dns);
int capi_dns_queries(const capi_dns_t* dns);
void capi_dns_stop(capi_dns_t* dns);

#endif
