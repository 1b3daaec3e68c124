// trust-tls on POSIX: the local CA goes into the user's NSS databases with
// certutil: $HOME/.pki/nssdb (Chromium, made when missing) and each Firefox
// profile's.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vexoctl.h"

namespace {

int fail(const std::string& message) {
  std::fprintf(stderr, "vexoctl: %s\n", message.c_str());
  return 1;
}

// Runs argv[0] from PATH with argv; its exit code, or -1 when it could not run.
int run_program(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    ::execvp(argv[0], argv.data());
    std::fprintf(stderr, "vexoctl: cannot run %s (errno %d)\n", argv[0], errno);
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) != 127 ? WEXITSTATUS(status) : -1;
}

// The Firefox profiles of home that have an NSS database of their own.
std::vector<std::string> firefox_profiles(const std::string& home) {
  std::vector<std::string> out;
  const std::string root = home + "/.mozilla/firefox";
  DIR* d = ::opendir(root.c_str());
  if (d == nullptr) return out;
  while (dirent* e = ::readdir(d)) {
    std::string path = root + "/" + e->d_name;
    if (e->d_name[0] != '.' && platform::file_readable(path + "/cert9.db")) out.push_back(path);
  }
  ::closedir(d);
  return out;
}

// Adds the CA to the NSS database in db (made when missing); "C,," trusts it
// for server certificates only. 0 or 1.
int trust_in(const std::string& db, const std::string& nickname, const std::string& ca_cert) {
  std::string sql = "sql:";
  sql += db;
  // A new database gets an empty password, as the browsers make theirs.
  if (!platform::file_readable(db + "/cert9.db")) {
    if (platform::make_dirs(db) != 0) return fail("cannot create " + db);
    int rc = run_program({"certutil", "-N", "-d", sql, "--empty-password"});
    if (rc != 0) return fail("certutil cannot create the NSS database in " + db + " (is libnss3-tools installed?)");
  }
  if (run_program({"certutil", "-A", "-d", sql, "-n", nickname, "-t", "C,,", "-i", ca_cert}) != 0) {
    return fail("certutil cannot add " + ca_cert + " to " + db);
  }
  std::printf("trusted \"%s\" in %s for server certificates\n", nickname.c_str(), db.c_str());
  std::printf("to remove it: certutil -D -d %s -n \"%s\"\n", sql.c_str(), nickname.c_str());
  return 0;
}

}  // namespace

const char kTrustSummary[] =
    "add the local CA of DIR to the user's NSS database ($HOME/.pki/nssdb, made when missing) "
    "and to each Firefox profile's with certutil, so Chromium and Firefox trust the service's HTTPS";

void restrict_to_owner(const std::string& dir) { (void)::chmod(dir.c_str(), 0700); }

int trust_local_ca(const std::string& ca_cert, const std::string& /*ca_pem*/, const std::string& nickname) {
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') return fail("HOME is not set");
  // Chromium reads $HOME/.pki/nssdb; each Firefox profile has its own.
  std::string db = home;
  db += "/.pki/nssdb";
  if (trust_in(db, nickname, ca_cert) != 0) return 1;
  for (const std::string& profile : firefox_profiles(home)) {
    if (trust_in(profile, nickname, ca_cert) != 0) return 1;
  }
  return 0;
}
