// Decodes a JP2 file with openjpeg, for tests that check what the library
// compressed. Header-only.
#ifndef VEXO_TESTS_JP2_TEST_UTIL_H
#define VEXO_TESTS_JP2_TEST_UTIL_H

#include <openjpeg.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "test_sys.h"

namespace jp2test {

struct DecodedImage {
  int width = 0;
  int height = 0;
  int components = 0;
  int precision = 0;
  std::vector<std::uint8_t> pixels;  // first component, row by row
};

// true and *out filled when bytes hold a decodable JP2 file. openjpeg reads
// a copy of them in a file of this process below the system's temporary folder.
inline bool decode_jp2(const std::uint8_t* data, std::size_t size, DecodedImage* out) {
  static std::atomic<int> serial{0};
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() /
      ("vexo_jp2_" + std::to_string(testsys::process_id()) + "_" + std::to_string(serial++) + ".jp2");
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  opj_stream_t* stream = opj_stream_create_default_file_stream(path.string().c_str(), OPJ_TRUE);
  opj_codec_t* codec = opj_create_decompress(OPJ_CODEC_JP2);
  opj_dparameters_t params;
  opj_set_default_decoder_parameters(&params);
  opj_image_t* image = nullptr;
  bool ok = stream != nullptr && opj_setup_decoder(codec, &params) && opj_read_header(stream, codec, &image) &&
            opj_decode(codec, stream, image) && opj_end_decompress(codec, stream);
  if (ok) {
    out->width = static_cast<int>(image->x1 - image->x0);
    out->height = static_cast<int>(image->y1 - image->y0);
    out->components = static_cast<int>(image->numcomps);
    out->precision = static_cast<int>(image->comps[0].prec);
    std::size_t n = static_cast<std::size_t>(image->comps[0].w) * image->comps[0].h;
    out->pixels.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
      out->pixels[i] = static_cast<std::uint8_t>(std::clamp(image->comps[0].data[i], 0, 255));
    }
  }
  if (image != nullptr) opj_image_destroy(image);
  opj_destroy_codec(codec);
  if (stream != nullptr) opj_stream_destroy(stream);
  std::error_code ec;
  std::filesystem::remove(path, ec);
  return ok;
}

}  // namespace jp2test

#endif  // VEXO_TESTS_JP2_TEST_UTIL_H
