// Headers of the local service's answers and the discovery document. The
// texts are the wire format clients depend on, byte for byte. The listener
// and the PostAuth worker frame their answers here.
//
// Thread-safety: reentrant; the only shared values read are the service
// status, the identity record and the service port.
#ifndef VEXO_COMMON_HTTP_FRAME_H
#define VEXO_COMMON_HTTP_FRAME_H

// The discovery answer: body (kRespBodySize bytes) with the current status and
// model, header (kRespHeaderSize bytes) for the path "/". 0.
int frame_rdservice_response(const char* origin, char* header, char* body);
// The origin forms are used when origin is non-null and not exactly "null".
// Both write at most kRespHeaderSize bytes into header and return the length;
// the echoed origin is cut so that the header always ends with its blank line.
int frame_http_ok_header(const char* host, int port, const char* path, int body_len,
                         const char* origin, char* header);
int frame_http_error_header(int code, const char* host, int port, const char* path, int body_len,
                            const char* origin, char* header);


#endif  // VEXO_COMMON_HTTP_FRAME_H
