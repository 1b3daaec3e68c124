// Subcommands of vexoctl. Each takes the arguments after its name and returns
// the process exit code (0 success, 1 failure, 2 usage error).
#ifndef VEXO_TOOLS_VEXOCTL_VEXOCTL_H
#define VEXO_TOOLS_VEXOCTL_VEXOCTL_H

#include <string>
#include <vector>

using Args = std::vector<std::string>;

int cmd_init_workdir(const Args& args);
int cmd_demo_keystore(const Args& args);
int cmd_tls_cert(const Args& args);
int cmd_trust_tls(const Args& args);

// Makes (or keeps) the local CA in dir/cert/ssl/ca/ and a new server
// certificate signed by it in dir/cert/ssl/public.crt and private.key. 0 or 1.
int lay_local_tls(const std::string& dir);

// What trust-tls does on this system, for the usage text.
extern const char kTrustSummary[];
// Trusts the local CA (its file and PEM text, and the name to show) for the
// current user: the NSS databases on POSIX, the Root store on Windows
// (trust_SYSTEM.cc). 0 or 1, with the reason on standard error.
int trust_local_ca(const std::string& ca_cert, const std::string& ca_pem, const std::string& nickname);
// Narrows an existing folder to its owner (POSIX mode 0700; make_dirs
// already gives Windows folders an owner-only access list).
void restrict_to_owner(const std::string& dir);

// True when args ask for help ("--help" or "-h").
bool wants_help(const Args& args);

#endif  // VEXO_TOOLS_VEXOCTL_VEXOCTL_H
