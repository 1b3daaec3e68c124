# The reference Management server, run as a child process on a free port and
# reached through libcurl, with requests built by hand with json-c.
if(TARGET vexo-mgmt-server)
  vexo_add_test(mgmt_server_test mgmt_server_test.cc)
  add_dependencies(mgmt_server_test vexo-mgmt-server)
  target_link_libraries(mgmt_server_test PRIVATE PkgConfig::CURL PkgConfig::JSONC PkgConfig::OPENSSL)
endif()

# The transport to the Management server, against the reference server and a
# canned HTTP server of the test.
if(TARGET vexo-mgmt-server)
  vexo_add_test(mgmt_transport_test mgmt_transport_test.cc)
  add_dependencies(mgmt_transport_test vexo-mgmt-server)
  target_link_libraries(mgmt_transport_test PRIVATE PkgConfig::JSONC)
endif()

# The resumable software download, against the reference server over HTTPS,
# a child process killed mid-way, and a hostile HTTP server of the test.
if(TARGET vexo-mgmt-server)
  vexo_add_test(mgmt_download_test mgmt_download_test.cc)
  add_dependencies(mgmt_download_test vexo-mgmt-server)
endif()
