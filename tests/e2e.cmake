# Captures end to end: real socket, simulated scanner, real keystore, test UIDAI
# key; and the Management client against the reference server.
vexo_add_test(capture_e2e_test capture_e2e_test.cc LOCKS ports)
if(TARGET vexo-mgmt-server)
  add_dependencies(capture_e2e_test vexo-mgmt-server)
endif()
