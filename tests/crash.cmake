# Kills at every step of each file rewrite, in child processes, and a fresh
# start-up afterwards.
if(TARGET vexo-mgmt-server)
  vexo_add_test(crash_test crash_test.cc)
  add_dependencies(crash_test vexo-mgmt-server vexoctl Vexo)
endif()
