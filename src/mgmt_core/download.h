// Resumable software download: the package named by the Management server's
// software-update answer is fetched in fixed byte ranges, appended chunk by
// chunk to the target file, and checked by its MD5 at the end.
//
// Files, relative to the working folder:
//   "./DownloadSW/Installer.zip"  the package being assembled
//   "package.child"               the body of the last range request
//   "dm.conf"                     the resume record, one line:
//       "URL|CHECKSUM|SIZE|CURRENT:LAST|Completed|" (or "In progress")
//
// Chunk i starts at i * 102401 and is asked for as "start-(start+102400)";
// the last index is size / 102400 and its range ends at the size itself.
// The record is replaced atomically after every appended chunk, without a
// flush. A resume cuts the package back to the bytes that the record vouches
// for (chunks 0..CURRENT) and continues with chunk CURRENT + 1, so a process
// killed at any moment never leaves a chunk twice in the package. After a
// power cut the record may be stale or unreadable and the package shorter
// than it vouches for: the resume then starts afresh, and the MD5 check
// catches any other loss.
//
// The size request and the ranges of one download share one connection and
// TLS session, under the trust settings of web_service/transfer.h (checked
// once per download); each range has a time limit of its own.
//
// Thread-safety: one download at a time per process. download_manager and
// download_software_update take the download slot and return -1 at once
// when another download holds it. Every call keeps its buffers and libcurl
// handles to itself.
#ifndef VEXO_MGMT_CORE_DOWNLOAD_H
#define VEXO_MGMT_CORE_DOWNLOAD_H

#include <cstddef>
#include <string>

inline constexpr const char* kDownloadTarget = "./DownloadSW/Installer.zip";
inline constexpr const char* kDownloadChild = "package.child";
inline constexpr const char* kDownloadRecord = "dm.conf";
// Range arithmetic: the count and the range end use 102400, the step 102401.
// The odd pair is deliberate: every chunk but the last is 102401 bytes long.
inline constexpr long kChunkSpan = 102400;
inline constexpr long kChunkStep = 102401;
// Packages larger than this are refused before any byte is fetched.
inline constexpr long kMaxPackageBytes = 2147483647L;
// Response headers of the size request are collected into this many bytes.
inline constexpr std::size_t kSizeHeaderBuffer = 4096;
// A request that cannot connect within kDownloadConnectTimeoutSeconds, or
// has not received all of its answer within kDownloadRangeSeconds, fails, so
// a trickling server cannot hold the device NOTREADY for long: a range is
// 102401 bytes, and 60 s allows for 1.7 KB/s, which a poor mobile link
// passes. A failed range costs a retry; the record keeps what was stored.
inline constexpr long kDownloadConnectTimeoutSeconds = 30;
inline constexpr long kDownloadRangeSeconds = 60;

// What a download thread works on; the thread owns its copy.
struct DownloadRequest {
  std::string url;
  std::string checksum;
};

// The process's single download slot, held for the life of the object.
// Move-only; a default-constructed or moved-from slot holds nothing.
class DownloadSlot {
 public:
  DownloadSlot() = default;
  // Takes the slot when it is free; held() tells whether it was.
  static DownloadSlot try_take();
  DownloadSlot(DownloadSlot&& other) noexcept : held_(other.held_) { other.held_ = false; }
  DownloadSlot& operator=(DownloadSlot&& other) noexcept;
  DownloadSlot(const DownloadSlot&) = delete;
  DownloadSlot& operator=(const DownloadSlot&) = delete;
  ~DownloadSlot();
  bool held() const { return held_; }

 private:
  bool held_ = false;
};

// Downloads url into kDownloadTarget and checks its MD5 against checksum.
// wait: on the calling thread, 0 when the package is complete and verified,
// else -1. !wait: starts thread_download_software and returns 0 at once, or
// -1 when the thread cannot be started. -1 at once while another download runs.
int download_software_update(const std::string& url, const std::string& checksum, bool wait);

// Body of the download thread: logs the request, runs the download into
// kDownloadTarget, checks the MD5 again and releases slot at its end.
// REQUIRES: slot.held().
void thread_download_software(DownloadRequest request, DownloadSlot slot);

// Fetches url into target in resumable ranges (see above) and checks the
// MD5 of target against checksum (32 hexadecimal digits, either case).
// 0 on a verified download, -1 otherwise (including while another runs).
int download_manager(const std::string& url, const std::string& checksum, const std::string& target);
// The same, for a caller that already holds the download slot.
int download_manager(const DownloadSlot& slot, const std::string& url, const std::string& checksum,
                     const std::string& target);

// The value of the last "Content-Length" header (any case) in headers, or
// -1 when there is none or it is not a decimal number up to kMaxPackageBytes.
long ParseFileLength(const std::string& headers);

// Reads dm.conf against the package about to be fetched (url, checksum, size).
// 1: start afresh (no record, another package, or a completed record);
// 0: resume, *current and *last set from the record; -1: the record cannot
// be read or is not a well-formed record (the caller starts afresh).
int get_previous_download_info(const std::string& url, const std::string& checksum, long size, int* current, int* last);

// Replaces dm.conf atomically with the record for chunk current of last.
// 0 or -1.
int update_to_conf(const std::string& url, const std::string& checksum, long size, int last, int current);

// The range time limit in effect: kDownloadRangeSeconds unless a test
// shortened it and the connect limit (test_seams.h).
long download_range_seconds();
// True while a download holds the single download slot.
bool download_running();

#endif  // VEXO_MGMT_CORE_DOWNLOAD_H
