// Machine-wide lock per scanner model, and the handheld device's lock.
//
// The scanner lock serialises capture, DeviceInfo, configuration reading, key
// reading and key rotation across processes; the Tavio lock serialises the
// handheld device's commands, also across processes (its serial port serves
// one process at a time). Both are binary: any thread may release. Results
// are those of the design: 0, -1, -2.
//
// The lock handles are made by init_semaphore (and init_semaphore_Tavio)
// during start-up, before Start_RDservice starts the accept thread, and kept
// for the life of the process; request threads read them through atomics.
// Prefer the scoped owners of device_lock.h to the Lock/Unlock pairs.
#ifndef VEXO_SEMAPHORE_SEMAPHORE_SYC_H
#define VEXO_SEMAPHORE_SEMAPHORE_SYC_H

// Creates the lock for the scanner name (and, for "Tavio_TX9", the
// Tavio lock). 0; -1 unknown scanner ("FP sensor is not valid sensor") or failure.
int init_semaphore();
// Waits up to lock_timeout_ms(). 0 acquired; -1 no lock created; -2 time-out or failure.
int Lock_Semaphore();
// 0 released; -1 not held or failure.
int Unlock_Semaphore();

// Opens the handheld lock "Global\\QDX_WIN_009_Tavio" (tavio_lock_name()). 0 or -1.
int init_semaphore_Tavio();
const char* tavio_lock_name();
// Waits up to tavio_lock_timeout_ms(). 0 acquired; -2 time-out, failure or no lock.
int Lock_Semaphore_Tavio();
int Unlock_Semaphore_Tavio();
int close_semaphore_Tavio();

// Reports a lock file that could not be opened: failure, then the lock
// file's path and errno, in the log and the last-status line, as lines of
// caller in module.
void report_lock_file(const char* name, const char* failure, const char* module, const char* caller);

// The machine-wide lock name for a scanner ("Global\\QDX_WIN_010"), or nullptr.
const char* semaphore_name_for_scanner(const char* scanner_name);

// Waits: 20000 ms and 2000 ms; tests shorten them.
unsigned lock_timeout_ms();
unsigned tavio_lock_timeout_ms();
void set_lock_timeouts_for_test(unsigned scanner_ms, unsigned tavio_ms);
// Forgets the created locks so a test can call init_semaphore again.
void semaphore_reset_for_test();

#endif  // VEXO_SEMAPHORE_SEMAPHORE_SYC_H
