#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>

#include "common/file_ptr.h"
#include "common/hash.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_core/download.h"
#include "platform/platform.h"
#include "platform/test_seams.h"
#include "web_service/transfer.h"

namespace {

using rd_codes::kDownloadFailed;
using rd_codes::kDownloadFresh;
using rd_codes::kDownloadOk;
using transfer::Caller;

constexpr Caller kSizeCaller{"download_manager", "get_package_size"};
constexpr Caller kPartCaller{"download_manager", "download_part"};
// A record longer than this is not one of ours.
constexpr long long kMaxRecordBytes = 8192;

long limit_or_seam(long limit) { return test_seams::get(&test_seams::Seams::download_timeout_s).value_or(limit); }

// What the requests of one download share: the trust they were checked
// under, and one connection and TLS session to the server.
struct Link {
  RdConfig config;
  transfer::Trust trust;
  transfer::Share share;
};

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

// What parse_decimal gives for anything but a decimal in range.
constexpr long long kNotDecimal = -1;

// Strict decimal of at most max; kNotDecimal for anything else.
long long parse_decimal(const std::string& text, long long max) {
  if (text.empty() || text.size() > 19) return kNotDecimal;
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return kNotDecimal;
    value = value * 10 + (c - '0');
    if (value > max) return kNotDecimal;
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

size_t collect_chunk(char* piece, size_t size, size_t count, void* user) {
  RD_LOG_AS("download_part");
  auto* body = static_cast<std::string*>(user);
  const size_t bytes = size * count;
  // No range we ask for is longer than one step: a longer answer is not ours.
  if (bytes > static_cast<size_t>(kChunkStep) - body->size()) {
    RD_ERROR("Range answer longer than %ld bytes", kChunkStep);
    return 0;
  }
  try {
    body->append(piece, bytes);
  } catch (const std::bad_alloc&) {
    RD_ERROR("not enough memory (realloc returned NULL)");
    return 0;
  }
  return bytes;
}

// Sets up a request of the download: the debug level, target, proxy, the
// trust settings, the connection share and the time limits. Each failing
// option logs its own message.
bool set_request(const Caller& caller, CURL* c, const std::string& url, const Link& link) {
  const RdConfig& config = link.config;
  return transfer::set_options(caller, c,
                               {{CURLOPT_VERBOSE, 1L, "Error at curl_easy_setopt CURLOPT_VERBOSE", config.verbose > 1},
                                {CURLOPT_URL, url.c_str(), "Error at curl_easy_setopt CURLOPT_URL"},
                                {CURLOPT_PROXY, config.proxy_url.c_str(), "Error at curl_easy_setopt CURLOPT_PROXY"},
                                {CURLOPT_PROXYUSERNAME, config.proxy_username.c_str(),
                                 "Error at curl_easy_setopt CURLOPT_PROXYUSERNAME", !config.proxy_username.empty()},
                                {CURLOPT_PROXYPASSWORD, config.proxy_password.c_str(),
                                 "Error at curl_easy_setopt CURLOPT_PROXYPASSWORD", !config.proxy_password.empty()}}) &&
         transfer::set_trust(caller, c, link.trust) &&
         transfer::set_options(
             caller, c,
             {{CURLOPT_SHARE, link.share.get(), "Error at curl_easy_setopt CURLOPT_SHARE", link.share != nullptr},
              {CURLOPT_CONNECTTIMEOUT, limit_or_seam(kDownloadConnectTimeoutSeconds),
               "Error at curl_easy_setopt CURLOPT_CONNECTTIMEOUT"},
              {CURLOPT_TIMEOUT, download_range_seconds(), "Error at curl_easy_setopt CURLOPT_TIMEOUT"}});
}

// Size of the package at url from the Content-Length of a body-less request.
// The size in bytes, or -1 (reported in the run log, last-status line and pipe).
long get_package_size(const Link& link, const std::string& url) {
  auto failed = [] {
    RD_LOG_AS("get_package_size");
    RD_STATUS("Get download file size failed ");
    RD_PIPE("10000", "Get download file size failed\n");
    return static_cast<long>(kDownloadFailed);
  };
  transfer::Easy curl = transfer::new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return failed();
  }
  CURL* c = curl.get();
  HeaderBuffer headers;
  headers.data[0] = '\0';
  if (!set_request(kSizeCaller, c, url, link) ||
      !transfer::set_options(
          kSizeCaller, c,
          {{CURLOPT_NOBODY, 1L, "Error at curl_easy_setopt CURLOPT_NOBODY"},
           {CURLOPT_HEADER, 1L, "Error at curl_easy_setopt CURLOPT_HEADER"},
           {CURLOPT_WRITEFUNCTION, collect_headers, "Error at curl_easy_setopt CURLOPT_WRITEFUNCTION"},
           {CURLOPT_WRITEDATA, &headers, "Error at curl_easy_setopt CURLOPT_WRITEDATA"}})) {
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

// Fetches the byte range ("first-last") of url into *body and rewrites
// "package.child" with it. 0, or -1 when the transfer fails, the server
// answers an error status or more than kChunkStep bytes.
int download_part(const Link& link, const std::string& url, const std::string& range, std::string* body) {
  body->clear();
  transfer::Easy curl = transfer::new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return kDownloadFailed;
  }
  CURL* c = curl.get();
  body->reserve(static_cast<std::size_t>(kChunkStep));
  if (!transfer::set_options(kPartCaller, c, {{CURLOPT_HEADER, 0L, "Error at curl_easy_setopt CURLOPT_HEADER"}}) ||
      !set_request(kPartCaller, c, url, link) ||
      !transfer::set_options(kPartCaller, c,
                             {{CURLOPT_RANGE, range.c_str(), "Error at curl_easy_setopt CURLOPT_RANGE"},
                              {CURLOPT_FAILONERROR, 1L, "Error at curl_easy_setopt CURLOPT_FAILONERROR"},
                              {CURLOPT_WRITEFUNCTION, collect_chunk, "Error at curl_easy_setopt CURLOPT_WRITEFUNCTION"},
                              {CURLOPT_WRITEDATA, body, "Error at curl_easy_setopt CURLOPT_WRITEDATA"}})) {
    return kDownloadFailed;
  }
  const CURLcode rc = curl_easy_perform(c);
  if (rc != CURLE_OK) {
    long http_status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &http_status);
    RD_ERROR("Error at curl_easy_perform download_part");
    RD_ERROR("Curl return code %d, HTTP Error Code  %ld", static_cast<int>(rc), http_status);
    return kDownloadFailed;
  }
  RD_INFO("chunk size is %d", static_cast<int>(body->size()));
  // Written over the previous chunk and cut to length, rather than emptied
  // first: a file emptied and rewritten is flushed to disk on close by some
  // file systems (ext4), which would cost a disk write for every chunk.
  FilePtr child(std::fopen(kDownloadChild, "r+b"));
  if (!child) child.reset(platform::open_file(kDownloadChild, "wb"));
  bool written = child && std::fwrite(body->data(), 1, body->size(), child.get()) == body->size() &&
                 std::fclose(child.release()) == 0;
  std::error_code ec;
  if (written) std::filesystem::resize_file(kDownloadChild, body->size(), ec);
  if (!written || ec) {
    RD_ERROR("Couldn't write %s", kDownloadChild);
    return kDownloadFailed;
  }
  return kDownloadOk;
}

// Creates or empties the target. 0 or -1.
int start_fresh(const std::string& target) {
  RD_LOG_AS("download_manager");
  FilePtr f(platform::open_file(target, "wb"));
  if (!f) {
    RD_ERROR("Couldn't open download file");
    return kDownloadFailed;
  }
  return kDownloadOk;
}

// Appends the chunk (the bytes just written to package.child) to target.
// 0 or -1.
int append_chunk(const std::string& target, const std::string& chunk) {
  RD_LOG_AS("download_manager");
  FilePtr out(platform::open_file(target, "ab"));
  if (!out) {
    RD_ERROR("Couldn't open download file");
    return kDownloadFailed;
  }
  if (std::fwrite(chunk.data(), 1, chunk.size(), out.get()) != chunk.size() || std::fclose(out.release()) != 0) {
    RD_ERROR("Couldn't write download file");
    return kDownloadFailed;
  }
  return kDownloadOk;
}

// What resume_point gives when the download is to start afresh.
constexpr int kStartAfresh = -1;

// Where the next attempt continues: the first chunk to fetch, after cutting
// the package back to what the record vouches for; kStartAfresh.
int resume_point(const std::string& url, const std::string& checksum, long size, const std::string& target) {
  RD_LOG_AS("download_manager");
  int current = 0;
  int last = 0;
  const int previous = get_previous_download_info(url, checksum, size, &current, &last);
  if (previous != 0) {
    if (previous < 0) RD_INFO("Previous download record unusable. starting fresh download...");
    return kStartAfresh;
  }
  const long long vouched = bytes_through(size, current, last);
  const long long held = std::max(0LL, platform::file_size(target));
  if (held < vouched) {
    RD_INFO("Package holds %lld bytes, fewer than the %lld of the record. starting fresh download...", held, vouched);
    return kStartAfresh;
  }
  if (held > vouched) {
    std::error_code ec;
    std::filesystem::resize_file(target, static_cast<std::uintmax_t>(vouched), ec);
    if (ec) {
      RD_ERROR("Couldn't cut the package back to %lld bytes", vouched);
      return kStartAfresh;
    }
    RD_INFO("Package cut back from %lld to %lld bytes", held, vouched);
  }
  return current + 1;
}

}  // namespace

long download_range_seconds() { return limit_or_seam(kDownloadRangeSeconds); }

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
  if (!found) return kNotDecimal;
  RD_INFO("Len Buf is = %.64s", value.c_str());
  return static_cast<long>(parse_decimal(value, kMaxPackageBytes));
}

int get_previous_download_info(const std::string& /*url*/, const std::string& checksum, long size, int* current,
                               int* last) {
  *current = 0;
  *last = 0;
  if (!platform::file_exists(kDownloadRecord)) return kDownloadFresh;
  const long long length = platform::file_size(kDownloadRecord);
  std::string record;
  if (length < 0 || length > kMaxRecordBytes || platform::read_file(kDownloadRecord, &record) != 0) {
    RD_ERROR("Couldn't read %s", kDownloadRecord);
    return kDownloadFailed;
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
    return kDownloadFailed;
  }
  if (lower(fields[1]) != lower(checksum) || stored_size != size) {
    RD_INFO("Download exe has been changed. starting fresh download...");
    return kDownloadFresh;
  }
  if (cur == end) {
    RD_INFO("Previous download was successful. again fresh  download");
    return kDownloadFresh;
  }
  RD_INFO("Resuming previous download");
  *current = static_cast<int>(cur);
  *last = static_cast<int>(end);
  return kDownloadOk;
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
  // Replaced after every chunk but never flushed: a flush per chunk would
  // cost more than the transfer. After a power cut the record may be stale or
  // unreadable, which is safe: a resume cuts the package back to what the
  // record vouches for (or starts afresh), and the MD5 check follows.
  if (platform::write_file_atomic(kDownloadRecord, record.data(), record.size(), 0600,
                                  platform::Durability::kUnflushed) != 0) {
    RD_ERROR("Couldn't write %s", kDownloadRecord);
    return kDownloadFailed;
  }
  return kDownloadOk;
}

namespace {

// Fetches chunks first..last of the package at url onto target, recording
// each in dm.conf. kDownloadOk, or kDownloadFailed (reported).
int fetch_chunks(const Link& link, const std::string& url, const std::string& checksum, long size, int first,
                 const std::string& target) {
  RD_LOG_AS("download_manager");
  const int last = last_index(size);
  std::string chunk;
  for (int index = first; index <= last; ++index) {
    const long want = chunk_bytes(size, index, last);
    if (want > 0) {
      const long start = static_cast<long>(index) * kChunkStep;
      const long end = index == last ? size : start + kChunkSpan;
      char range[48];
      std::snprintf(range, sizeof range, "%ld-%ld", start, end);
      RD_INFO("Range is: %s", range);
      if (download_part(link, url, range, &chunk) != 0) {
        RD_ERROR("Error at download_part Download failed");
        return kDownloadFailed;
      }
      RD_INFO("Success range %s", range);
      if (static_cast<long>(chunk.size()) != want) {
        RD_ERROR("Range %s answered %zu bytes instead of %ld", range, chunk.size(), want);
        return kDownloadFailed;
      }
      if (append_chunk(target, chunk) != 0) return kDownloadFailed;
    }
    if (update_to_conf(url, checksum, size, last, index) != 0) return kDownloadFailed;
  }
  return kDownloadOk;
}

// The MD5 of the whole package against checksum. kDownloadOk, or
// kDownloadFailed (reported).
int verify_package(const std::string& target, const std::string& checksum) {
  RD_LOG_AS("download_manager");
  std::string computed;
  if (MD5_Generate(target, &computed) != 0) {
    RD_ERROR("Couldn't open download file");
    return kDownloadFailed;
  }
  RD_INFO("MS check sum is %s, MC checksum is %s", checksum.c_str(), computed.c_str());
  if (computed == checksum) {
    RD_INFO("Checksum matched.Download successful");
    return kDownloadOk;
  }
  RD_ERROR("Downloaded file checksum is invalid. Download Failed.");
  RD_STATUS("Downloaded file checksum is invalid. Download Failed.");
  RD_PIPE("10000", "Downloaded file checksum is invalid|Download Failed.\n");
  return kDownloadFailed;
}

}  // namespace

int download_manager(const std::string& url, const std::string& checksum, const std::string& target) {
  DownloadSlot slot = DownloadSlot::try_take();
  if (!slot.held()) {
    RD_ERROR("Software download already in progress");
    return kDownloadFailed;
  }
  return download_manager(slot, url, checksum, target);
}

int download_manager(const DownloadSlot& /*slot*/, const std::string& url, const std::string& checksum_text,
                     const std::string& target) {
  const std::string checksum = lower(checksum_text);
  if (!is_record_safe(url) || !is_md5_hex(checksum)) {
    RD_ERROR("Invalid download request: url %.256s, checksum %.64s", url.c_str(), checksum_text.c_str());
    return kDownloadFailed;
  }
  const std::filesystem::path folder = std::filesystem::path(target).parent_path();
  if (!folder.empty() && platform::make_dirs(folder.string()) != 0) {
    RD_ERROR("Couldn't create %s", folder.string().c_str());
    return kDownloadFailed;
  }
  // One trust check and one connection for the size request and every range.
  Link link;
  link.config = rd_config_copy();
  link.share = transfer::new_share();
  if (transfer::prepare_trust(kSizeCaller, url, &link.trust) != 0) {
    RD_ERROR("Error at get_package_size");
    return kDownloadFailed;
  }
  const long size = get_package_size(link, url);
  if (size < 0) {
    RD_ERROR("Error at get_package_size");
    return kDownloadFailed;
  }
  int first = resume_point(url, checksum, size, target);
  if (first == kStartAfresh) {
    if (start_fresh(target) != 0) return kDownloadFailed;
    first = 0;
  }

  if (fetch_chunks(link, url, checksum, size, first, target) != kDownloadOk) return kDownloadFailed;
  return verify_package(target, checksum);
}
