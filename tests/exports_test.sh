#!/usr/bin/env bash
# The shared library exports the public C functions and nothing else of ours:
# libVexo.so's dynamic symbols, or Vexo.dll's export table. A DLL must also
# import nothing but Windows system DLLs (no third-party DLL ships).
# usage: exports_test.sh LIBRARY
set -euo pipefail
lib=$1
# The expected exports, the one list of them: Vexo.def is made from it too.
expected="Get_Last_RDservice_Status Https_Set_Api Init Initialize_process Key_Rotation Remove_Proxy_Api Set_Proxy_Api Software_Update Start_RDservice attach_device detach_device uidai_cert_force_update uidai_cert_update"
case $lib in
  *.dll)
    dump=$(objdump -p "$lib")
    # The names between "[Ordinal/Name Pointer] Table" and the next blank line.
    actual=$(printf '%s\n' "$dump" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
             sed -n 's/^[[:space:]]*\[ *[0-9]*\] //p' | sort | tr '\n' ' ' | sed 's/ $//')
    imports=$(printf '%s\n' "$dump" | awk '/DLL Name:/ {print $3}' | sort -fu | tr '\n' ' ' | sed 's/ $//')
    system_dlls=" ADVAPI32.dll bcrypt.dll CRYPT32.dll GDI32.dll IPHLPAPI.DLL KERNEL32.dll msvcrt.dll USER32.dll WS2_32.dll "
    for dll in $imports; do
      case $system_dlls in
        *" $dll "*) ;;
        *) echo "imports $dll, which is not a Windows system DLL (imports: $imports)"; exit 1 ;;
      esac
    done
    echo "imports ok: $imports"
    ;;
  *)
    # Defined dynamic symbols, without the linker's own section markers.
    actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' | sort | tr '\n' ' ' | sed 's/ $//')
    ;;
esac
if [ "$actual" != "$expected" ]; then
  echo "exports differ"
  echo "missing:    $(comm -23 <(tr ' ' '\n' <<<"$expected") <(tr ' ' '\n' <<<"$actual") | tr '\n' ' ')"
  echo "unexpected: $(comm -13 <(tr ' ' '\n' <<<"$expected") <(tr ' ' '\n' <<<"$actual") | head -20 | tr '\n' ' ')" \
       "($(comm -13 <(tr ' ' '\n' <<<"$expected") <(tr ' ' '\n' <<<"$actual") | wc -l) in all)"
  exit 1
fi
echo "exports ok: $actual"
