// Digests: SHA-256 of memory, and the file digests of downloads as lower-case
// hexadecimal text.
#ifndef VEXO_COMMON_HASH_H
#define VEXO_COMMON_HASH_H

#include <array>
#include <cstdint>
#include <span>
#include <string>

using Sha256Digest = std::array<std::uint8_t, 32>;

// SHA-256 of data. Never fails for in-memory input.
Sha256Digest sha256(std::span<const std::uint8_t> data);
Sha256Digest sha256(std::string_view text);
// Lower-case hexadecimal of bytes.
std::string hex_lower(std::span<const std::uint8_t> bytes);
// SHA-256 of a file's bytes. 0, or -1 when unreadable.
int sha256_file(const std::string& path, Sha256Digest* out);
// SHA-256 / MD5 of a file's bytes as lower-case hex. 0, or -1 when unreadable.
int Get_Sha2(const std::string& path, std::string* hex);
int MD5_Generate(const std::string& path, std::string* hex);

#endif  // VEXO_COMMON_HASH_H
