// Shared set-up of the fuzz targets: every target runs in a scratch folder of
// its own, because the library writes its logs, Final.xml and the files it
// reads (config.ini, proxy.ini, dm.conf) relative to the current folder.
#ifndef VEXO_TESTS_FUZZ_FUZZ_ENV_H
#define VEXO_TESTS_FUZZ_FUZZ_ENV_H

#include <cstddef>
#include <cstdint>
#include <string>

// Every target's LLVMFuzzerInitialize (fuzz_env.cc): makes a fresh folder
// under $TMPDIR (or /tmp), enters it, points the machine-wide locks and the
// status pipe into it, sends standard output and the run log (verbose lines
// included) to /dev/null and removes the folder at exit; aborts when the
// folder cannot be made. Then it calls fuzz_setup, which a target defines
// when it needs more set-up (a weak empty one stands in otherwise).
void fuzz_setup();

// The input as a NUL-terminated text cut to at most max_len bytes; bytes
// after an embedded NUL stay in the string but a C reader stops there.
std::string fuzz_text(const std::uint8_t* data, std::size_t size, std::size_t max_len);

// Replaces path with exactly size bytes of data. Aborts on failure.
void fuzz_write_file(const char* path, const std::uint8_t* data, std::size_t size);

// Removes, now and then, the files the library appends to on every call
// (Vexo_Error.log), so a long run does not fill the disk. Call once per input.
void fuzz_tidy();

// Aborts with a message: a property of the code under test did not hold.
[[noreturn]] void fuzz_fail(const char* what);

#endif  // VEXO_TESTS_FUZZ_FUZZ_ENV_H
