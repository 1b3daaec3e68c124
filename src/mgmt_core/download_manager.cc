#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_core/download.h"
#include "common/hash.h"
#include "platform/platform.h"

namespace {

struct CurlEasyFree {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyFree>;
struct CurlShareFree {
  void operator()(CURLSH* s) const { curl_share_cleanup(s); }
};
using CurlShare = std::unique_ptr<CURLSH, CurlShareFree>;
struct FileClose {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileClose>;

constexpr const char* kCaFile = "./cert/server.crt";
// A record longer than this is not one of ours.
constexpr long long kMaxRecordBytes = 8192;

std::atomic<unsigned> g_chunk_delay_ms{0};
std::atomic<long> g_timeout_for_test{0};

// The chunk requests of one download share connections and TLS sessions
// through this object, which download_manager installs for its thread.
thread_local CURLSH* t_share = nullptr;

CurlEasy new_easy() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  return CurlEasy(curl_easy_init());
}

long download_timeout(long fallback) {
  const long t = g_timeout_for_test.load();
  return t > 0 ? t : fallback;
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool is_md5_hex(const std::string& text) {
  return text.size() == 32 &&
         std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

// A URL that fits in the one-line record: no field separator, no control byte.
bool is_record_safe(const std::string& text) {
  return !text.empty() && text.size() <= 2048 && std::none_of(text.begin(), text.end(), [](char c) {
    return c == '|' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
}

// Strict decimal of at most max; -1 for anything else.
long long parse_decimal(const std::string& text, long long max) {
  if (text.empty() || text.size() > 19) return -1;
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
    if (value > max) return -1;
  }
  return value;
}

int last_index(long size) { return static_cast<int>(size / kChunkSpan); }

// Bytes that chunk index holds: a full step, the rest of the package for the
// last chunk, and nothing for a chunk that starts past the end (sizes whose
// remainder is smaller than the last index leave the last chunk empty).
long chunk_bytes(long size, int index, int last) {
  const long long start = static_cast<long long>(index) * kChunkStep;
  if (start >= size) return 0;
  if (index == last) return static_cast<long>(size - start);
  return static_cast<long>(std::min<long long>(kChunkStep, size - start));
}

// Bytes that chunks 0..index hold together.
long long bytes_through(long size, int index, int last) {
  if (index >= last) return size;
  return std::min<long long>(size, (static_cast<long long>(index) + 1) * kChunkStep);
}

struct HeaderBuffer {
  char data[kSizeHeaderBuffer];
  std::size_t used = 0;
};

size_t collect_headers(char* piece, size_t size, size_t count, void* user) {
  RD_LOG_AS("get_package_size");
  auto* b = static_cast<HeaderBuffer*>(user);
  const size_t bytes = size * count;
  // One byte stays free for the terminating zero.
  if (bytes >= sizeof b->data - b->used) {
    RD_ERROR("Curl write_callback buffer insufficient");
    return 0;
  }
  std::memcpy(b->data + b->used, piece, bytes);
  b->used += bytes;
  b->data[b->used] = '\0';
  return bytes;
}

struct ChunkBuffer {
  std::string data;
};

size_t collect_chunk(char* piece, size_t size, size_t count, void* user) {
  RD_LOG_AS("download_part");
  auto* b = static_cast<ChunkBuffer*>(user);
  const size_t bytes = size * count;
  // No range we ask for is longer than one step: a longer answer is not ours.
  if (bytes > static_cast<size_t>(kChunkStep) - b->data.size()) {
    RD_ERROR("Range answer longer than %ld bytes", kChunkStep);
    return 0;
  }
  try {
    b->data.append(piece, bytes);
  } catch (const std::bad_alloc&) {
    RD_ERROR("not enough memory (realloc returned NULL)");
    return 0;
  }
  return bytes;
}

// The options that every download request shares: target, proxy, the CA
// file with peer verification off (the package is checked by its MD5), the
// debug level and the time-outs. Each failing option logs its own message.
bool common_options(const char* caller, CURL* c, const std::string& url, const RdConfig& config) {
  RD_LOG_AS(caller);
  auto set = [&](CURLoption option, auto value, const char* name) {
    if (curl_easy_setopt(c, option, value) == CURLE_OK) return true;
    RD_ERROR("Error at curl_easy_setopt %s", name);
    return false;
  };
  if (config.verbose > 1 && !set(CURLOPT_VERBOSE, 1L, "CURLOPT_VERBOSE")) return false;
  if (!set(CURLOPT_URL, url.c_str(), "CURLOPT_URL") || !set(CURLOPT_PROXY, config.proxy_url.c_str(), "CURLOPT_PROXY"))
    return false;
  if (!config.proxy_username.empty() &&
      !set(CURLOPT_PROXYUSERNAME, config.proxy_username.c_str(), "CURLOPT_PROXYUSERNAME"))
    return false;
  if (!config.proxy_password.empty() &&
      !set(CURLOPT_PROXYPASSWORD, config.proxy_password.c_str(), "CURLOPT_PROXYPASSWORD"))
    return false;
  if (url.rfind("https://", 0) == 0 &&
      (!set(CURLOPT_CAINFO, kCaFile, "CURLOPT_CAINFO") || !set(CURLOPT_SSL_VERIFYPEER, 0L, "CURLOPT_SSL_VERIFYPEER")))
    return false;
  const long stall = download_timeout(kDownloadStallSeconds);
  return set(CURLOPT_CONNECTTIMEOUT, download_timeout(kDownloadConnectTimeoutSeconds), "CURLOPT_CONNECTTIMEOUT") &&
         set(CURLOPT_LOW_SPEED_LIMIT, 1L, "CURLOPT_LOW_SPEED_LIMIT") &&
         set(CURLOPT_LOW_SPEED_TIME, stall, "CURLOPT_LOW_SPEED_TIME") &&
         (t_share == nullptr || set(CURLOPT_SHARE, t_share, "CURLOPT_SHARE"));
}

// Installs a connection share for the chunk requests of one download.
class ShareScope {
 public:
  ShareScope() : share_(curl_share_init()) {
    if (!share_) return;
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    t_share = share_.get();
  }
  ~ShareScope() { t_share = nullptr; }
  ShareScope(const ShareScope&) = delete;
  ShareScope& operator=(const ShareScope&) = delete;

 private:
  CurlShare share_;
};

// Creates or empties the target. 0 or -1.
int start_fresh(const std::string& target) {
  RD_LOG_AS("download_manager");
  UniqueFile f(platform::open_file(target, "wb"));
  if (!f) {
    RD_ERROR("Couldn't open download file");
    return -1;
  }
  return 0;
}

// Appends want bytes of package.child to target. 0 or -1.
int append_chunk(const std::string& target, long want) {
  RD_LOG_AS("download_manager");
  UniqueFile out(platform::open_file(target, "ab"));
  UniqueFile in(std::fopen(kDownloadChild, "rb"));
  if (!out || !in) {
    RD_ERROR("Couldn't open download file");
    return -1;
  }
  char buf[16384];
  long left = want;
  while (left > 0) {
    const size_t n = std::fread(buf, 1, std::min<size_t>(sizeof buf, static_cast<size_t>(left)), in.get());
    if (n == 0 || std::fwrite(buf, 1, n, out.get()) != n) {
      RD_ERROR("Couldn't write download file");
      return -1;
    }
    left -= static_cast<long>(n);
  }
  if (std::fclose(out.release()) != 0) {
    RD_ERROR("Couldn't write download file");
    return -1;
  }
  return 0;
}

// Where the next attempt continues: the first chunk to fetch, after cutting
// the package back to what the record vouches for. -1: start afresh.
int resume_point(const std::string& url, const std::string& checksum, long size, const std::string& target) {
  RD_LOG_AS("download_manager");
  int current = 0;
  int last = 0;
  const int previous = get_previous_download_info(url, checksum, size, &current, &last);
  if (previous != 0) {
    if (previous < 0) RD_INFO("Previous download record unusable. starting fresh download...");
    return -1;
  }
  const long long vouched = bytes_through(size, current, last);
  const long long held = std::max(0LL, platform::file_size(target));
  if (held < vouched) {
    RD_INFO("Package holds %lld bytes, fewer than the %lld of the record. starting fresh download...", held, vouched);
    return -1;
  }
  if (held > vouched) {
    std::error_code ec;
    std::filesystem::resize_file(target, static_cast<std::uintmax_t>(vouched), ec);
    if (ec) {
      RD_ERROR("Couldn't cut the package back to %lld bytes", vouched);
      return -1;
    }
    RD_INFO("Package cut back from %lld to %lld bytes", held, vouched);
  }
  return current + 1;
}

}  // namespace

void set_download_chunk_delay_for_test(unsigned ms) { g_chunk_delay_ms.store(ms); }
void set_download_timeouts_for_test(long seconds) { g_timeout_for_test.store(seconds); }

long ParseFileLength(const std::string& headers) {
  std::string value;
  bool found = false;
  std::size_t pos = 0;
  static const char kName[] = "content-length:";
  while (pos < headers.size()) {
    std::size_t end = headers.find('\n', pos);
    if (end == std::string::npos) end = headers.size();
    const std::string line = headers.substr(pos, end - pos);
    pos = end + 1;
    if (line.size() < sizeof kName - 1 || lower(line.substr(0, sizeof kName - 1)) != kName) continue;
    std::size_t first = sizeof kName - 1;
    std::size_t last = line.size();
    while (first < last && (line[first] == ' ' || line[first] == '\t')) ++first;
    while (last > first && (line[last - 1] == ' ' || line[last - 1] == '\t' || line[last - 1] == '\r')) --last;
    value = line.substr(first, last - first);
    found = true;
  }
  if (!found) return -1;
  RD_INFO("Len Buf is = %.64s", value.c_str());
  return static_cast<long>(parse_decimal(value, kMaxPackageBytes));
}

long get_package_size(const std::string& url) {
  const RdConfig config = rd_config_copy();
  auto failed = [] {
    RD_LOG_AS("get_package_size");
    RD_STATUS("Get download file size failed ");
    RD_PIPE("10000", "Get download file size failed\n");
    return -1L;
  };
  CurlEasy curl = new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return failed();
  }
  CURL* c = curl.get();
  HeaderBuffer headers;
  headers.data[0] = '\0';
  if (!common_options("get_package_size", c, url, config)) return failed();
  auto set = [&](CURLoption option, auto value, const char* name) {
    if (curl_easy_setopt(c, option, value) == CURLE_OK) return true;
    RD_ERROR("Error at curl_easy_setopt %s", name);
    return false;
  };
  if (!set(CURLOPT_NOBODY, 1L, "CURLOPT_NOBODY") || !set(CURLOPT_HEADER, 1L, "CURLOPT_HEADER") ||
      !set(CURLOPT_WRITEFUNCTION, collect_headers, "CURLOPT_WRITEFUNCTION") ||
      !set(CURLOPT_WRITEDATA, &headers, "CURLOPT_WRITEDATA") ||
      !set(CURLOPT_TIMEOUT, download_timeout(kDownloadStallSeconds), "CURLOPT_TIMEOUT")) {
    return failed();
  }
  const CURLcode rc = curl_easy_perform(c);
  if (rc != CURLE_OK) {
    RD_ERROR("Error at curl_easy_perform ");
    RD_ERROR("Curl return code %d: %s", static_cast<int>(rc), curl_easy_strerror(rc));
    return failed();
  }
  long http_status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &http_status);
  if (http_status != 200) {
    RD_ERROR("Package request answered with HTTP status %ld", http_status);
    return failed();
  }
  const long size = ParseFileLength(std::string(headers.data, headers.used));
  if (size < 0) {
    RD_ERROR("No usable Content-Length in the package headers");
    return failed();
  }
  RD_INFO("Size of .exe file is %ld bytes", size);
  RD_STATUS("Software download is in progress : Size of .exe file is %ld bytes ", size);
  RD_PIPE("10000", "Software download is in progress:|Size of .exe file is %ld byte\n", size);
  return size;
}

int get_previous_download_info(const std::string& /*url*/, const std::string& checksum, long size, int* current,
                               int* last) {
  *current = 0;
  *last = 0;
  if (!platform::file_exists(kDownloadRecord)) return 1;
  const long long length = platform::file_size(kDownloadRecord);
  std::string record;
  if (length < 0 || length > kMaxRecordBytes || platform::read_file(kDownloadRecord, &record) != 0) {
    RD_ERROR("Couldn't read %s", kDownloadRecord);
    return -1;
  }
  // URL|CHECKSUM|SIZE|CURRENT:LAST|STATUS| and nothing after it.
  std::string fields[5];
  const bool five_fields = std::count(record.begin(), record.end(), '|') == 5 && record.back() == '|';
  std::size_t pos = 0;
  for (std::size_t i = 0; five_fields && i < 5; ++i) {
    const std::size_t bar = record.find('|', pos);
    fields[i] = record.substr(pos, bar - pos);
    pos = bar + 1;
  }
  const std::size_t colon = fields[3].find(':');
  const long long stored_size = parse_decimal(fields[2], kMaxPackageBytes);
  const long long cur = colon == std::string::npos ? -1 : parse_decimal(fields[3].substr(0, colon), 1 << 30);
  const long long end = colon == std::string::npos ? -1 : parse_decimal(fields[3].substr(colon + 1), 1 << 30);
  const bool well_formed = five_fields && !fields[0].empty() && !fields[1].empty() && stored_size >= 0 && cur >= 0 &&
                           end == stored_size / kChunkSpan && cur <= end &&
                           fields[4] == (cur == end ? "Completed" : "In progress");
  if (!well_formed) {
    RD_ERROR("%s is not a download record", kDownloadRecord);
    return -1;
  }
  if (lower(fields[1]) != lower(checksum) || stored_size != size) {
    RD_INFO("Download exe has been changed. starting fresh download...");
    return 1;
  }
  if (cur == end) {
    RD_INFO("Previous download was successful. again fresh  download");
    return 1;
  }
  RD_INFO("Resuming previous download");
  *current = static_cast<int>(cur);
  *last = static_cast<int>(end);
  return 0;
}

int download_part(const std::string& url, const std::string& range, long* bytes) {
  if (bytes != nullptr) *bytes = 0;
  const RdConfig config = rd_config_copy();
  CurlEasy curl = new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return -1;
  }
  UniqueFile child(platform::open_file(kDownloadChild, "wb"));
  if (!child) {
    RD_ERROR("Couldn't open %s", kDownloadChild);
    return -1;
  }
  CURL* c = curl.get();
  ChunkBuffer body;
  body.data.reserve(static_cast<std::size_t>(kChunkStep));
  auto set = [&](CURLoption option, auto value, const char* name) {
    if (curl_easy_setopt(c, option, value) == CURLE_OK) return true;
    RD_ERROR("Error at curl_easy_setopt %s", name);
    return false;
  };
  if (!set(CURLOPT_HEADER, 0L, "CURLOPT_HEADER") || !common_options("download_part", c, url, config) ||
      !set(CURLOPT_RANGE, range.c_str(), "CURLOPT_RANGE") ||
      !set(CURLOPT_FAILONERROR, 1L, "CURLOPT_FAILONERROR") ||
      !set(CURLOPT_WRITEFUNCTION, collect_chunk, "CURLOPT_WRITEFUNCTION") ||
      !set(CURLOPT_WRITEDATA, &body, "CURLOPT_WRITEDATA")) {
    return -1;
  }
  const CURLcode rc = curl_easy_perform(c);
  if (rc != CURLE_OK) {
    long http_status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &http_status);
    RD_ERROR("Error at curl_easy_perform download_part");
    RD_ERROR("Curl return code %d, HTTP Error Code  %ld", static_cast<int>(rc), http_status);
    return -1;
  }
  RD_INFO("chunk size is %d", static_cast<int>(body.data.size()));
  if (std::fwrite(body.data.data(), 1, body.data.size(), child.get()) != body.data.size() ||
      std::fclose(child.release()) != 0) {
    RD_ERROR("Couldn't write %s", kDownloadChild);
    return -1;
  }
  if (bytes != nullptr) *bytes = static_cast<long>(body.data.size());
  return 0;
}

int update_to_conf(const std::string& url, const std::string& checksum, long size, int last, int current) {
  // Built in steps: "%s|%s|%ld|%d:%d|%s|".
  std::string record(url);
  record += '|';
  record += checksum;
  record += '|';
  record += std::to_string(size);
  record += '|';
  record += std::to_string(current);
  record += ':';
  record += std::to_string(last);
  record += '|';
  record += current == last ? "Completed" : "In progress";
  record += '|';
  if (platform::write_file_atomic(kDownloadRecord, record.data(), record.size()) != 0) {
    RD_ERROR("Couldn't write %s", kDownloadRecord);
    return -1;
  }
  return 0;
}

int download_manager(const std::string& url, const std::string& checksum, const std::string& target) {
  DownloadSlot slot = DownloadSlot::try_take();
  if (!slot.held()) {
    RD_ERROR("Software download already in progress");
    return -1;
  }
  return download_manager(slot, url, checksum, target);
}

int download_manager(const DownloadSlot& /*slot*/, const std::string& url, const std::string& checksum_text,
                     const std::string& target) {
  const std::string checksum = lower(checksum_text);
  if (!is_record_safe(url) || !is_md5_hex(checksum)) {
    RD_ERROR("Invalid download request: url %.256s, checksum %.64s", url.c_str(), checksum_text.c_str());
    return -1;
  }
  const std::filesystem::path folder = std::filesystem::path(target).parent_path();
  if (!folder.empty() && platform::make_dirs(folder.string()) != 0) {
    RD_ERROR("Couldn't create %s", folder.string().c_str());
    return -1;
  }
  const long size = get_package_size(url);
  if (size < 0) {
    RD_ERROR("Error at get_package_size");
    return -1;
  }
  const int last = last_index(size);
  int first = resume_point(url, checksum, size, target);
  if (first < 0) {
    if (start_fresh(target) != 0) return -1;
    first = 0;
  }

  ShareScope share;
  for (int index = first; index <= last; ++index) {
    const long want = chunk_bytes(size, index, last);
    if (want > 0) {
      const long start = static_cast<long>(index) * kChunkStep;
      const long end = index == last ? size : start + kChunkSpan;
      char range[48];
      std::snprintf(range, sizeof range, "%ld-%ld", start, end);
      RD_INFO("Range is: %s", range);
      long got = 0;
      if (download_part(url, range, &got) != 0) {
        RD_ERROR("Error at download_part Download failed");
        return -1;
      }
      RD_INFO("Success range %s", range);
      if (got != want) {
        RD_ERROR("Range %s answered %ld bytes instead of %ld", range, got, want);
        return -1;
      }
      if (append_chunk(target, want) != 0) return -1;
    }
    if (update_to_conf(url, checksum, size, last, index) != 0) return -1;
    if (const unsigned delay = g_chunk_delay_ms.load(); delay > 0) platform::sleep_ms(delay);
  }

  std::string computed;
  if (MD5_Generate(target, &computed) != 0) {
    RD_ERROR("Couldn't open download file");
    return -1;
  }
  RD_INFO("MS check sum is %s, MC checksum is %s", checksum.c_str(), computed.c_str());
  if (computed == checksum) {
    RD_INFO("Checksum matched.Download successful");
    return 0;
  }
  RD_ERROR("Downloaded file checksum is invalid. Download Failed.");
  RD_STATUS("Downloaded file checksum is invalid. Download Failed.");
  RD_PIPE("10000", "Downloaded file checksum is invalid|Download Failed.\n");
  return -1;
}
