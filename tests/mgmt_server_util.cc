#include "mgmt_server_util.h"

#include <chrono>
#include <regex>
#include <thread>

#include "test_util.h"

namespace mgmttest {

const std::string kServer = VEXO_MGMT_SERVER;
const std::string kMgmtData = std::string(VEXO_SOURCE_DIR) + "/data/mgmt";

int run_command(const std::vector<std::string>& args, std::string* output) {
  const std::string out = "cmd.out";
  pid_t pid = spawn(args, out);
  if (pid < 0) return -1;
  const int code = wait_exit(pid);
  if (output != nullptr) *output = testutil::read_file(out);
  return code;
}

Server::Server(bool tls, const std::vector<std::string>& extra) : tls_(tls) {
  std::vector<std::string> args = {"serve", "--port", "0", tls ? "--tls" : "--plain",
                                   "--data", "data", "--registry", "registry.db"};
  args.insert(args.end(), extra.begin(), extra.end());
  pid_ = spawn(args, "server.out");
  const std::regex first("listening on (https?)://127\\.0\\.0\\.1:([0-9]+)/\n");
  for (int i = 0; i < 200 && pid_ > 0 && port_ == 0; ++i) {
    std::smatch m;
    std::string out = testutil::read_file("server.out");
    if (std::regex_search(out, m, first)) port_ = std::stoi(m[2]);
    else std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

Server::~Server() {
  if (pid_ > 0) terminate(pid_);
}

std::string Server::base() const {
  std::string url(tls_ ? "https" : "http");
  url += "://127.0.0.1:";
  url += std::to_string(port_);
  url += "/Zelm";
  return url;
}

std::string Server::log() const { return testutil::read_file("server.out"); }

}  // namespace mgmttest
