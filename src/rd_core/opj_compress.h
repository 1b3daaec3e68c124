// JPEG 2000 compression of raw 8-bit grey fingerprint images, in memory, on
// openjpeg. The output is a JP2 file (signature box, header box with a grey
// colour box, then the codestream), the form most decoders of ISO
// finger image records accept for compression algorithm 4.
//
// Thread-safety: every call uses its own codec and stream.
#ifndef VEXO_RD_CORE_OPJ_COMPRESS_H
#define VEXO_RD_CORE_OPJ_COMPRESS_H

#include <cstdint>
#include <vector>

// Compresses width x height bytes of raw (one byte per pixel, row by row) into
// *out as a JP2 file, lossy (9/7 wavelet, one quality layer) at the given
// compression ratio; a ratio of 1 or less gives a lossless (5/3) image.
// 0 and *out filled, or -1 (bad arguments or an encoder failure; *out cleared).
int ConvertToJPEG2000(const std::uint8_t* raw, std::vector<std::uint8_t>* out, int width, int height, float ratio);

#endif  // VEXO_RD_CORE_OPJ_COMPRESS_H
