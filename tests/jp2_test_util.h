// Decodes a JP2 file from memory with openjpeg, for tests that check what the
// library compressed. Header-only.
#ifndef VEXO_TESTS_JP2_TEST_UTIL_H
#define VEXO_TESTS_JP2_TEST_UTIL_H

#include <openjpeg.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace jp2test {

struct DecodedImage {
  int width = 0;
  int height = 0;
  int components = 0;
  int precision = 0;
  std::vector<std::uint8_t> pixels;  // first component, row by row
};

namespace detail {
struct Source {
  const std::uint8_t* data;
  std::size_t size;
  std::size_t pos;
};
inline OPJ_SIZE_T read(void* buf, OPJ_SIZE_T n, void* user) {
  auto* s = static_cast<Source*>(user);
  if (s->pos >= s->size) return static_cast<OPJ_SIZE_T>(-1);
  OPJ_SIZE_T k = std::min<OPJ_SIZE_T>(n, s->size - s->pos);
  std::memcpy(buf, s->data + s->pos, k);
  s->pos += k;
  return k;
}
inline OPJ_OFF_T skip(OPJ_OFF_T n, void* user) {
  auto* s = static_cast<Source*>(user);
  s->pos = std::min<std::size_t>(s->size, static_cast<std::size_t>(static_cast<OPJ_OFF_T>(s->pos) + n));
  return n;
}
inline OPJ_BOOL seek(OPJ_OFF_T pos, void* user) {
  auto* s = static_cast<Source*>(user);
  if (pos < 0 || static_cast<std::size_t>(pos) > s->size) return OPJ_FALSE;
  s->pos = static_cast<std::size_t>(pos);
  return OPJ_TRUE;
}
}  // namespace detail

// true and *out filled when bytes hold a decodable JP2 file.
inline bool decode_jp2(const std::uint8_t* data, std::size_t size, DecodedImage* out) {
  detail::Source src{data, size, 0};
  opj_stream_t* stream = opj_stream_create(OPJ_J2K_STREAM_CHUNK_SIZE, OPJ_TRUE);
  opj_stream_set_user_data(stream, &src, nullptr);
  opj_stream_set_user_data_length(stream, size);
  opj_stream_set_read_function(stream, detail::read);
  opj_stream_set_skip_function(stream, detail::skip);
  opj_stream_set_seek_function(stream, detail::seek);
  opj_codec_t* codec = opj_create_decompress(OPJ_CODEC_JP2);
  opj_dparameters_t params;
  opj_set_default_decoder_parameters(&params);
  opj_image_t* image = nullptr;
  bool ok = opj_setup_decoder(codec, &params) && opj_read_header(stream, codec, &image) &&
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
  opj_stream_destroy(stream);
  return ok;
}

inline bool decode_jp2(const std::vector<std::uint8_t>& bytes, DecodedImage* out) {
  return decode_jp2(bytes.data(), bytes.size(), out);
}

}  // namespace jp2test

#endif  // VEXO_TESTS_JP2_TEST_UTIL_H
