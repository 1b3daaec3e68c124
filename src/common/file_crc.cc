#include "common/file_crc.h"

#include <cstdio>
#include <memory>

#include "common/rd_codes.h"
#include "common/file_ptr.h"
#include "common/rd_log.h"
#include "platform/platform.h"

using rd_codes::kCrcFailed;
using rd_codes::kCrcFileNotCreated;

namespace {

constexpr std::size_t kBlock = 512;

using CrcRoutine = std::uint16_t (*)(std::uint16_t, const std::uint8_t*, std::size_t);

// Kinds 1..3 all pick the same routine; entry 0 stands for "no seal".
constexpr CrcRoutine kRoutines[4] = {nullptr, crc16_update, crc16_update, crc16_update};

// Helpers report under the name of the function they serve (caller).
bool valid_arguments(std::uint8_t kind, const char* data_path, const char* caller) {
  RD_LOG_AS(caller);
  if (kind > 3 || data_path == nullptr) {
    RD_ERROR("Invalid input parameters");
    return false;
  }
  return true;
}

// Feeds the whole stream from its start into the routine. 0 or 3.
int crc_of_stream(FILE* f, const char* name, CrcRoutine routine, std::uint16_t* crc, const char* caller) {
  RD_LOG_AS(caller);
  if (std::fseek(f, 0, SEEK_SET) != 0) {
    RD_ERROR("Error in fseek");
    return kCrcFailed;
  }
  std::uint8_t buf[kBlock];
  std::uint16_t c = 0;
  for (;;) {
    std::size_t n = std::fread(buf, 1, sizeof buf, f);
    c = routine(c, buf, n);
    if (n < sizeof buf) break;
  }
  if (std::ferror(f) != 0) {
    RD_ERROR("Error in reading from file %s", name);
    return kCrcFailed;
  }
  *crc = c;
  return 0;
}

}  // namespace

std::uint16_t crc16_update(std::uint16_t crc, const std::uint8_t* data, std::size_t len) {
  // Table-free CRC-16/XMODEM (polynomial 0x1021) on a byte-swapped register.
  std::uint16_t c = crc;
  for (std::size_t i = 0; i < len; ++i) {
    c = static_cast<std::uint16_t>((c >> 8) | (c << 8));
    c ^= data[i];
    c ^= static_cast<std::uint16_t>((c & 0xFF) >> 4);
    c ^= static_cast<std::uint16_t>(c << 12);
    c ^= static_cast<std::uint16_t>((c & 0xFF) << 5);
  }
  return c;
}

int add_crc(std::uint8_t kind, const char* data_path, const char* crc_path) {
  if (kind == kCrcNone) return 0;
  if (!valid_arguments(kind, data_path, __func__) || crc_path == nullptr) return kCrcFailed;
  std::uint16_t crc = 0;
  {
    // "ab+" creates a missing data file empty, so its seal can still be made.
    FilePtr f(platform::open_file(data_path, "ab+"));
    if (f == nullptr) {
      RD_ERROR("Opening file %s failed", data_path);
      return kCrcFailed;
    }
    if (std::fseek(f.get(), 0, SEEK_END) != 0 || std::ftell(f.get()) < 0) {
      RD_ERROR("Getting file %s size failed", data_path);
      return kCrcFailed;
    }
    if (crc_of_stream(f.get(), data_path, kRoutines[kind], &crc, __func__) != 0) return kCrcFailed;
    std::fseek(f.get(), 0, SEEK_END);
    if (std::fclose(f.release()) != 0) {
      RD_ERROR("Error in closing file %s", data_path);
      return kCrcFailed;
    }
  }
  {
    // Low byte first: the register as it lies in memory on the original host.
    const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(crc & 0xFF), static_cast<std::uint8_t>(crc >> 8)};
    const int written = platform::write_file_atomic(crc_path, bytes, 2);
    if (written == -1) {
      RD_ERROR("CRC file open failed");
      return kCrcFileNotCreated;
    }
    if (written != 0) {
      RD_ERROR("Error in writing to file %s", crc_path);
      return kCrcFailed;
    }
  }
  if (verify_crc(kind, data_path, crc_path) != 0) {
    RD_ERROR("Verifying CRC for file %s failed", data_path);
    return kCrcFailed;
  }
  return 0;
}

int verify_crc(std::uint8_t kind, const char* data_path, const char* crc_path) {
  if (kind == kCrcNone) return 0;
  if (!valid_arguments(kind, data_path, __func__) || crc_path == nullptr) return kCrcFailed;
  std::uint16_t crc = 0;
  {
    FilePtr f(std::fopen(data_path, "rb"));
    if (f == nullptr) {
      RD_ERROR("Opening file %s failed", data_path);
      return kCrcFailed;
    }
    // Reading the last two bytes also rejects a file shorter than two bytes.
    if (std::fseek(f.get(), -2, SEEK_END) != 0) {
      RD_ERROR("Error in fseek");
      return kCrcFailed;
    }
    std::uint8_t tail[2];
    if (std::fread(tail, 1, 2, f.get()) != 2) {
      RD_ERROR("Error in reading from file %s", data_path);
      return kCrcFailed;
    }
    long size = std::ftell(f.get());
    if (size < 0) {
      RD_ERROR("ERROR verify_crc: fsize : %d", static_cast<int>(size));
      return kCrcFailed;
    }
    if (crc_of_stream(f.get(), data_path, kRoutines[kind], &crc, __func__) != 0) return kCrcFailed;
  }
  std::uint8_t stored[2];
  {
    FilePtr c(std::fopen(crc_path, "rb"));
    if (c == nullptr) {
      RD_ERROR("Opening file %s failed", crc_path);
      return kCrcFailed;
    }
    if (std::fread(stored, 1, 2, c.get()) != 2) {
      RD_ERROR("Error in reading from file %s", crc_path);
      return kCrcFailed;
    }
  }
  const std::uint16_t read_crc = static_cast<std::uint16_t>(stored[0] | (stored[1] << 8));
  if (read_crc != crc) {
    RD_ERROR("In verify_crc readcrc: %d gencrc: %d", read_crc, crc);
    return kCrcFailed;
  }
  return 0;
}
