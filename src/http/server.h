// Local RD listener and request dispatch: binds 127.0.0.1 on the first free
// port of 11100..11120, serves each connection on a detached thread, and
// answers OPTIONS, RDSERVICE, CAPTURE, DEVICEINFO and POSTAUTH.
#ifndef VEXO_HTTP_SERVER_H
#define VEXO_HTTP_SERVER_H

#include <cstddef>

#include "platform/platform.h"

// Binds and listens; *server receives the socket. 0; 1 socket layer not
// started; -1 any other failure (no free port included).
int prepare_http_socket(platform::socket_t* server);
// The accept loop; never returns. arg points to the server socket.
void* client_connection_handler(void* arg);
// Reads one request (header up to the blank line, then Content-Length bytes)
// into buf (kRawReqSize bytes). Length, or -1.
int recv_thru_tcp_socket(platform::socket_t s, char* buf);
// 0 when header and body were sent; -1 on a send error.
int send_thru_tcp_socket(platform::socket_t s, const char* header, std::size_t header_len,
                         const char* body, std::size_t body_len);
// Body of a connection thread: receives, dispatches, answers, closes. 0.
int process_incoming_message(platform::socket_t s);

int ParseHTTP_ReqCapture(const char* raw_request, char* request_body);
int Get_PostAuthBody(const char* raw_request, char* request_body);
int frame_rdservice_response(const char* origin, char* header, char* body);
// Both write at most kRespHeaderSize bytes into header; return the length.
int frame_http_ok_header(const char* host, int port, const char* path, int body_len,
                         const char* origin, char* header);
int frame_http_error_header(int code, const char* host, int port, const char* path, int body_len,
                            const char* origin, char* header);

#endif  // VEXO_HTTP_SERVER_H
