// The listening socket and the accept loop of the local server.
#define VEXO_LOG_FILE "server"

#include <atomic>
#include <cerrno>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "http/server.h"
#include "common/work_area.h"
#include "common/rd_log.h"
#include "platform/socket_extra.h"
#include "platform/test_seams.h"
#include "platform/unique_handle.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;
#include "platform/mutex.h"

namespace {

constexpr int kFirstPort = 11100;
constexpr int kLastPort = 11120;
constexpr int kListenBacklog = 5;
constexpr int kDefaultAcceptWaitMs = 15000;
// Pause after each connection thread starts: at most ten accepts a second.
constexpr unsigned kAcceptPauseMs = 100;
// A Winsock code that the C runtime's errno never holds, so the second
// wording below is the one that appears, as it always has.
constexpr int kWinsockAddressInUse = 10048;

// Each listening socket on 127.0.0.1 with its companion on [::1] (the same
// port), so that the accept loop of either serves both. Never destroyed: a
// detached worker may still look a socket up while the process exits.
platform::Mutex g_companions_mu;
auto& g_companions GUARDED_BY(g_companions_mu) = *new std::vector<std::pair<platform::socket_t, platform::socket_t>>;

void set_companion(platform::socket_t server, platform::socket_t server6) {
  platform::MutexLock lock(&g_companions_mu);
  for (auto& entry : g_companions) {
    if (entry.first == server) {
      // A descriptor number used again after a close: the old entry is stale.
      entry.second = server6;
      return;
    }
  }
  g_companions.emplace_back(server, server6);
}

// A listening socket of the port range on 127.0.0.1, with a socket bound
// to [::1] at the same port unless the machine has no ::1.
struct PortPair {
  platform::UniqueSocket v4;
  platform::UniqueSocket v6;
};

// Binds port on 127.0.0.1 and, while the machine has ::1 (*ipv6), on [::1]
// too: a browser whose localhost resolves to ::1 first must reach this
// service, never another program that took [::1] at this port. 0 bound; 1 the
// port is taken on either address; -1 no socket. A machine without ::1 is
// noticed once (logged) and *ipv6 cleared.
int bind_pair(int port, bool* ipv6, PortPair* out) {
  RD_LOG_AS("prepare_http_socket");
  PortPair pair{platform::UniqueSocket(platform::tcp_socket()), platform::UniqueSocket()};
  // A restarted service gets its port back at once even while connections of
  // the old one linger in TIME_WAIT; a port another program listens on is
  // still refused, so the first free port keeps its meaning.
  if (!pair.v4 || platform::set_reuse_address(pair.v4.get()) != 0) {
    RD_ERROR("could not create socket for server(ERROR:%d)", platform::last_error());
    return kFailed;
  }
  if (platform::bind_loopback(pair.v4.get(), static_cast<std::uint16_t>(port)) != 0) return 1;
  if (*ipv6) {
    pair.v6.reset(platform::tcp6_socket());
    int rc = pair.v6 && platform::set_reuse_address(pair.v6.get()) == 0
                 ? platform::bind_loopback6(pair.v6.get(), static_cast<std::uint16_t>(port))
                 : -1;
    if (rc == 1) {
      RD_ERROR("Port %hd is held on [::1] by another program", static_cast<short>(port));
      return 1;
    }
    if (rc != 0) {
      RD_INFO("Not listening on [::1] port %d (errno %d), serving 127.0.0.1 only", port, platform::last_error());
      pair.v6.reset();
      *ipv6 = false;
    }
  }
  *out = std::move(pair);
  return 0;
}

}  // namespace

platform::socket_t ipv6_companion_socket(platform::socket_t server) {
  platform::MutexLock lock(&g_companions_mu);
  for (const auto& entry : g_companions) {
    if (entry.first == server) return entry.second;
  }
  return platform::kInvalidSocket;
}

void close_http_socket(platform::socket_t server) {
  platform::socket_t server6 = platform::kInvalidSocket;
  {
    platform::MutexLock lock(&g_companions_mu);
    for (auto it = g_companions.begin(); it != g_companions.end(); ++it) {
      if (it->first == server) {
        server6 = it->second;
        g_companions.erase(it);
        break;
      }
    }
  }
  platform::close_socket(server6);
  platform::close_socket(server);
}

int accept_wait_ms() { return test_seams::get(&test_seams::Seams::accept_wait_ms).value_or(kDefaultAcceptWaitMs); }

unsigned accept_pause_ms() { return test_seams::get(&test_seams::Seams::accept_pause_ms).value_or(kAcceptPauseMs); }

int first_service_port() {
  const int first = test_seams::get(&test_seams::Seams::first_port);
  return first > 0 ? first : kFirstPort;
}

int last_service_port() {
  const int last = test_seams::get(&test_seams::Seams::last_port);
  return last > 0 ? last : kLastPort;
}

int prepare_http_socket(platform::socket_t* server) {
  // Only Windows has a socket library to start; elsewhere this never fails.
  if (const int err = platform::socket_startup(); err != 0) {
    RD_ERROR("WSAStartup failed with error: %d\n", err);
    return 1;
  }
  PortPair pair;
  bool ipv6 = true;
  const int last = last_service_port();
  int port = first_service_port();
  for (;; ++port) {
    const int rc = bind_pair(port, &ipv6, &pair);
    if (rc < 0) return kFailed;
    if (rc == 0) {
      RD_INFO("socket is bound on port: %hd", static_cast<short>(port));
      break;
    }
    if (port >= last) {
      RD_ERROR("binding_tcp_socket : failed on Port %hd\nAll Ports are in use, RD Service Can't Run",
               static_cast<short>(port));
      return kFailed;
    }
    if (errno == kWinsockAddressInUse) {
      RD_ERROR("Port %hd is already in use, Trying for next port", static_cast<short>(port));
    } else {
      RD_ERROR("binding_tcp_socket : failed on port = %hd, Trying for next port", static_cast<short>(port));
    }
  }
  if (platform::listen_socket(pair.v4.get(), kListenBacklog) != 0 ||
      (pair.v6 && platform::listen_socket(pair.v6.get(), kListenBacklog) != 0)) {
    pair = PortPair{};
    RD_ERROR("Listen error");
    RD_STATUS("Listen error ");
    RD_PIPE("5000", "Listen error\n");
    return kFailed;
  }
  set_service_port(port);
  RD_INFO("....................Server Listening On 127.0.0.1 And Port %d...................", port);
  if (pair.v6) RD_INFO("....................Server Listening On [::1] And Port %d...................", port);
  set_companion(pair.v4.get(), pair.v6.release());
  *server = pair.v4.release();
  return 0;
}

void* client_connection_handler(void* arg) {
  const platform::socket_t listening[] = {*static_cast<platform::socket_t*>(arg),
                                          ipv6_companion_socket(*static_cast<platform::socket_t*>(arg))};
  RD_INFO("...........................Waiting for connection.............................");
  for (;;) {
    // Nothing may end the loop: a failure costs at most the one connection.
    try {
      int ready = platform::wait_readable_any(listening, 2, accept_wait_ms());
      if (ready < 0) {
        // A failing wait would otherwise spin the loop at full speed.
        if (ready == -2) platform::sleep_ms(kAcceptPauseMs);
        continue;
      }
      platform::UniqueSocket client(platform::accept_socket(listening[ready]));
      if (!client) {
        RD_ERROR("Accept Error");
        // Out of descriptors, accept fails at once every time: keep the log readable.
        platform::sleep_ms(kAcceptPauseMs);
        continue;
      }
      RD_INFO("*********************************");
      RD_INFO("After accepting,socket_fd is: %d", client.get());
      RD_INFO("*********************************");
      // std::thread plus detach stands in for the detached-attribute steps; the
      // socket goes to the thread by value, which then owns it.
      RD_VERBOSE("pthread_attr_init is success for process_incoming_message");
      RD_VERBOSE("pthread_attr_setdetachstate is success for process_incoming_message");
      try {
        std::thread(process_incoming_message, client.get()).detach();
      } catch (const std::system_error&) {
        RD_ERROR("Pthread_created failed inside client_connection_handler");
        continue;
      }
      client.release();
      RD_VERBOSE("pthread_create is success for process_incoming_message");
      platform::sleep_ms(accept_pause_ms());
    } catch (const std::exception& e) {
      RD_ERROR("Accept loop failed: %s", e.what());
      platform::sleep_ms(kAcceptPauseMs);
    } catch (...) {
      RD_ERROR("Accept loop failed");
      platform::sleep_ms(kAcceptPauseMs);
    }
  }
  return nullptr;
}
