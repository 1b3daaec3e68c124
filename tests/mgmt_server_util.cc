#include "mgmt_server_util.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <regex>
#include <thread>

#include "test_util.h"

extern char** environ;

namespace mgmttest {

const std::string kServer = std::string(VEXO_BUILD_DIR) + "/vexo-mgmt-server";
const std::string kMgmtData = std::string(VEXO_SOURCE_DIR) + "/data/mgmt";

pid_t spawn(const std::vector<std::string>& args, const std::string& out_file) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(kServer.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&fa, 1, 2);
  pid_t pid = -1;
  if (posix_spawn(&pid, kServer.c_str(), &fa, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

int run_command(const std::vector<std::string>& args, std::string* output) {
  const std::string out = "cmd.out";
  pid_t pid = spawn(args, out);
  int status = -1;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (output != nullptr) *output = testutil::read_file(out);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
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
