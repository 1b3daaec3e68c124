// Synthetic fingerprints for the simulated scanner: a grey image with curved
// ridges around a core inside an elliptical finger, and an ISO/IEC 19794-2:2005
// minutiae record that belongs to it. Everything is derived from a seed, so a
// capture is reproducible and two seeds give two different fingers.
#ifndef VEXO_SIM_FINGERPRINT_H
#define VEXO_SIM_FINGERPRINT_H

#include <cstddef>
#include <cstdint>

namespace simfp {

// Bytes of a minutiae record with n minutiae: 24 record header, 4 finger view
// header, 6 per minutia, 2 extended-data length.
constexpr std::size_t fmr_length(int n) { return 24 + 4 + 6 * static_cast<std::size_t>(n) + 2; }
constexpr int kMaxMinutiae = 255;  // the count is one byte

// Writes width*height 8-bit pixels (dark ridges, light valleys and background).
// REQUIRES: width, height > 0.
void render_fingerprint(int width, int height, std::uint32_t seed, unsigned char* out);

// Writes a minutiae record with count minutiae (clamped to 0..255) spread over
// the finger area, for an image of width x height at ppi pixels per inch with
// the given quality (0..100). Returns its length. REQUIRES: out holds
// fmr_length(count) bytes.
std::size_t build_minutiae_record(int width, int height, int ppi, int quality, int count, std::uint32_t seed,
                                  unsigned char* out);

// Length field of a record that starts with "FMR\0"; 0 when it does not.
std::size_t record_length(const unsigned char* record);

}  // namespace simfp

#endif  // VEXO_SIM_FINGERPRINT_H
