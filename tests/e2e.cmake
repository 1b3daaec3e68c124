# Captures end to end: real socket, simulated scanner, real keystore, test UIDAI key.
vexo_add_test(capture_e2e_test capture_e2e_test.cc LOCKS ports)
