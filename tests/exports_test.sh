#!/usr/bin/env bash
# The shared library exports the public C functions and nothing else of ours.
# usage: exports_test.sh LIBRARY
set -euo pipefail
lib=$1
expected="Get_Last_RDservice_Status Https_Set_Api Init Initialize_process Key_Rotation Remove_Proxy_Api Set_Proxy_Api Software_Update Start_RDservice attach_device detach_device uidai_cert_force_update uidai_cert_update"
# Defined dynamic symbols, without the linker's own section markers.
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' | sort | tr '\n' ' ' | sed 's/ $//')
if [ "$actual" != "$expected" ]; then
  echo "exports differ"
  echo "expected: $expected"
  echo "actual:   $actual"
  exit 1
fi
echo "exports ok: $actual"
