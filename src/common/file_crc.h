// The CRC seal of config.ini: a two-byte CRC-16/XMODEM of the whole file, kept
// low byte first in a separate file (bin_crc.txt).
//
// Thread-safety: reentrant; the register lives on the caller's stack.
#ifndef VEXO_COMMON_FILE_CRC_H
#define VEXO_COMMON_FILE_CRC_H

#include <cstddef>
#include <cstdint>

// Seal kinds: 0 no seal; 1, 2 and 3 the same CRC-16 routine. The library passes 1.
constexpr std::uint8_t kCrcNone = 0;
constexpr std::uint8_t kCrc16 = 1;

// Feeds len bytes into the CRC-16/XMODEM register crc and returns the new
// register (start with 0; blocks may be fed one after another).
std::uint16_t crc16_update(std::uint16_t crc, const std::uint8_t* data, std::size_t len);

// Computes the CRC of data_path and writes its two bytes to crc_path, then
// checks them. 0; 3 bad arguments, read failure or failed check; -1 when the
// CRC file cannot be created. Kind 0 returns 0 without touching any file.
int add_crc(std::uint8_t kind, const char* data_path, const char* crc_path);
// 0 when the first two bytes of crc_path are the CRC of data_path (or kind 0);
// 3 on any failure or mismatch, including a data file shorter than 2 bytes.
int verify_crc(std::uint8_t kind, const char* data_path, const char* crc_path);

#endif  // VEXO_COMMON_FILE_CRC_H
