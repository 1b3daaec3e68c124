# Locks, configuration files and their seal, and the provisioning tool.
vexo_add_test(lock_test lock_test.cc LOCKS scanner_lock)
vexo_add_test(config_test config_test.cc LOCKS scanner_lock)
vexo_add_test(vexoctl_test vexoctl_test.cc LOCKS scanner_lock)
add_dependencies(vexoctl_test vexoctl)
