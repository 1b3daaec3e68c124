# Fingerprint acquisition, JPEG 2000 and Pid block assembly.
vexo_add_test(pidblock_test pidblock_test.cc)
vexo_add_test(capture_test capture_test.cc LOCKS scanner_lock)
add_dependencies(capture_test vexo_sim)
