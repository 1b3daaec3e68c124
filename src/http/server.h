// Local RD listener and request dispatch: binds 127.0.0.1 on the first free
// port of 11100..11120, serves each connection on a detached thread, and
// answers OPTIONS, RDSERVICE, CAPTURE, DEVICEINFO and POSTAUTH. The module is
// split into listener.cc (socket and accept loop), connection.cc (receive,
// send, the connection thread) and dispatch.cc (the verbs); common/http_frame
// frames the headers.
//
// Thread-safety: the service port and the waits are atomics; every other
// function may run on many connection threads at once.
#ifndef VEXO_HTTP_SERVER_H
#define VEXO_HTTP_SERVER_H

#include <cstddef>

#include "platform/platform.h"

// Binds and listens on the first port of the range that is free on both
// 127.0.0.1 and [::1] (on 127.0.0.1 alone when the machine has no ::1, which
// is logged); *server receives the 127.0.0.1 socket and owns its [::1]
// companion. 0; 1 socket layer not started; -1 any other failure (no free
// port included).
int prepare_http_socket(platform::socket_t* server);
// The [::1] companion of a socket made by prepare_http_socket, or
// kInvalidSocket when it has none.
platform::socket_t ipv6_companion_socket(platform::socket_t server);
// Closes server and its [::1] companion. The service never calls it (its
// listener lives as long as the process); tests that drop a listener do.
void close_http_socket(platform::socket_t server);
// The accept loop, serving the server socket and its [::1] companion; never
// returns. arg points to the server socket.
void* client_connection_handler(void* arg);
// Reads one request (header up to the blank line, then Content-Length bytes)
// into buf (kRawReqSize bytes, zero-filled); all of it must arrive within
// recv_wait_ms() or "Timeout to receive data from client" is logged. Length,
// -1, or kRequestTooLarge (request_reader.h) when the request does not fit.
int recv_thru_tcp_socket(platform::socket_t s, char* buf);
// 0 when header and body were sent within recv_wait_ms(); -1 on a send error
// or when the client did not take them in time.
int send_thru_tcp_socket(platform::socket_t s, const char* header, std::size_t header_len, const char* body,
                         std::size_t body_len);
// Body of a connection thread: receives, dispatches, answers, closes. 0.
// Never throws: an exception inside is logged, the socket closed and the
// work area freed.
int process_incoming_message(platform::socket_t s);

// Checks a CAPTURE request and copies its body (from the first "<") into
// request_body (kReqBodySize bytes). 0 valid; 505 version not HTTP/1.1; 400
// path not "/rd/capture" (or a request-line field too long); -1 other faults.
int ParseHTTP_ReqCapture(const char* raw_request, char* request_body);
// Copies the body of a POSTAUTH request (from the first "<") into
// request_body (kReqBodySize bytes). 0, or -1 when there is no "<".
int Get_PostAuthBody(const char* raw_request, char* request_body);
// How long the accept loop's select waits before starting again: 15000 ms
// unless a test shortened it.
int accept_wait_ms();
// The pause after each connection thread starts: 100 ms (at most ten accepts
// a second) unless a test shortened it.
unsigned accept_pause_ms();
// The port range prepare_http_socket tries in order: 11100 to 11120 unless a
// test moved it to ports it reserved.
int first_service_port();
int last_service_port();

#endif  // VEXO_HTTP_SERVER_H
