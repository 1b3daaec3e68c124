// Subcommands of vexoctl. Each takes the arguments after its name and returns
// the process exit code (0 success, 1 failure, 2 usage error).
#ifndef VEXO_TOOLS_VEXOCTL_VEXOCTL_H
#define VEXO_TOOLS_VEXOCTL_VEXOCTL_H

#include <string>
#include <vector>

using Args = std::vector<std::string>;

int cmd_init_workdir(const Args& args);
int cmd_demo_keystore(const Args& args);

// True when args ask for help ("--help" or "-h").
bool wants_help(const Args& args);

#endif  // VEXO_TOOLS_VEXOCTL_VEXOCTL_H
