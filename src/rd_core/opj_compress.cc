#include "rd_core/opj_compress.h"

#include <openjpeg.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "common/rd_codes.h"
#include "common/rd_log.h"

using rd_codes::kFailed;

namespace {

struct CodecDeleter {
  void operator()(opj_codec_t* c) const { opj_destroy_codec(c); }
};
struct StreamDeleter {
  void operator()(opj_stream_t* s) const { opj_stream_destroy(s); }
};
struct ImageDeleter {
  void operator()(opj_image_t* i) const { opj_image_destroy(i); }
};

// The line lengths of a finger image record are 16-bit; anything larger is not
// a scanner image.
constexpr int kMaxSide = 65535;

// The growing output of the encoder and its write position.
struct MemorySink {
  std::vector<std::uint8_t>* bytes;
  std::size_t pos = 0;
};

OPJ_SIZE_T sink_write(void* buffer, OPJ_SIZE_T n, void* user) {
  auto* sink = static_cast<MemorySink*>(user);
  std::size_t end = sink->pos + n;
  if (end > sink->bytes->size()) sink->bytes->resize(end);
  std::memcpy(sink->bytes->data() + sink->pos, buffer, n);
  sink->pos = end;
  return n;
}

// What a skip callback returns when it cannot skip (openjpeg's -1).
constexpr OPJ_OFF_T kSkipFailed = -1;

// Skipping forward while writing leaves zero bytes that a later write fills.
OPJ_OFF_T sink_skip(OPJ_OFF_T n, void* user) {
  auto* sink = static_cast<MemorySink*>(user);
  if (n < 0 && static_cast<std::size_t>(-n) > sink->pos) return kSkipFailed;
  sink->pos = static_cast<std::size_t>(static_cast<OPJ_OFF_T>(sink->pos) + n);
  if (sink->pos > sink->bytes->size()) sink->bytes->resize(sink->pos);
  return n;
}

OPJ_BOOL sink_seek(OPJ_OFF_T pos, void* user) {
  auto* sink = static_cast<MemorySink*>(user);
  if (pos < 0) return OPJ_FALSE;
  sink->pos = static_cast<std::size_t>(pos);
  if (sink->pos > sink->bytes->size()) sink->bytes->resize(sink->pos);
  return OPJ_TRUE;
}

void report_error(const char* msg, void* /*user*/) {
  RD_LOG_AS("ConvertToJPEG2000");
  RD_ERROR("openjpeg: %s", msg);
}
void ignore_message(const char* /*msg*/, void* /*user*/) {}

using ImagePtr = std::unique_ptr<opj_image_t, ImageDeleter>;
using CodecPtr = std::unique_ptr<opj_codec_t, CodecDeleter>;
using StreamPtr = std::unique_ptr<opj_stream_t, StreamDeleter>;

// One quality layer: lossy at the given ratio above 1, lossless otherwise.
opj_cparameters_t encoder_parameters(int width, int height, float ratio) {
  opj_cparameters_t params;
  opj_set_default_encoder_parameters(&params);
  params.tcp_numlayers = 1;
  params.cp_disto_alloc = 1;
  if (ratio > 1.0f) {
    params.tcp_rates[0] = ratio;
    params.irreversible = 1;
  } else {
    params.tcp_rates[0] = 0;  // lossless
    params.irreversible = 0;
  }
  // Each resolution level halves the image; small images need fewer levels.
  int min_side = std::min(width, height);
  while (params.numresolution > 1 && (min_side >> (params.numresolution - 1)) == 0) {
    --params.numresolution;
  }
  return params;
}

// An 8-bit grey image holding the raw pixels, row by row. Null on failure (logged).
ImagePtr gray_image(const std::uint8_t* raw, int width, int height) {
  RD_LOG_AS("ConvertToJPEG2000");
  opj_image_cmptparm_t comp;
  std::memset(&comp, 0, sizeof comp);
  comp.dx = 1;
  comp.dy = 1;
  comp.w = static_cast<OPJ_UINT32>(width);
  comp.h = static_cast<OPJ_UINT32>(height);
  comp.prec = 8;
  comp.sgnd = 0;
  ImagePtr image(opj_image_create(1, &comp, OPJ_CLRSPC_GRAY));
  if (!image) {
    RD_ERROR("opj_image_create failed");
    return nullptr;
  }
  image->x0 = 0;
  image->y0 = 0;
  image->x1 = static_cast<OPJ_UINT32>(width);
  image->y1 = static_cast<OPJ_UINT32>(height);
  std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  OPJ_INT32* data = image->comps[0].data;
  for (std::size_t i = 0; i < pixels; ++i) data[i] = raw[i];
  return image;
}

// A JP2 encoder set up for image, whose errors go to our log and whose other
// messages are dropped. Null on failure (logged).
CodecPtr jp2_encoder(opj_cparameters_t* params, opj_image_t* image) {
  RD_LOG_AS("ConvertToJPEG2000");
  CodecPtr codec(opj_create_compress(OPJ_CODEC_JP2));
  if (!codec) {
    RD_ERROR("opj_create_compress failed");
    return nullptr;
  }
  opj_set_error_handler(codec.get(), report_error, nullptr);
  opj_set_warning_handler(codec.get(), ignore_message, nullptr);
  opj_set_info_handler(codec.get(), ignore_message, nullptr);
  if (!opj_setup_encoder(codec.get(), params, image)) {
    RD_ERROR("opj_setup_encoder failed");
    return nullptr;
  }
  return codec;
}

// An output stream that writes into sink. Null on failure (logged).
StreamPtr memory_stream(MemorySink* sink) {
  RD_LOG_AS("ConvertToJPEG2000");
  StreamPtr stream(opj_stream_create(OPJ_J2K_STREAM_CHUNK_SIZE, OPJ_FALSE));
  if (!stream) {
    RD_ERROR("opj_stream_create failed");
    return nullptr;
  }
  opj_stream_set_user_data(stream.get(), sink, nullptr);
  opj_stream_set_write_function(stream.get(), sink_write);
  opj_stream_set_skip_function(stream.get(), sink_skip);
  opj_stream_set_seek_function(stream.get(), sink_seek);
  return stream;
}

}  // namespace

int ConvertToJPEG2000(const std::uint8_t* raw, std::vector<std::uint8_t>* out, int width, int height, float ratio) {
  if (out == nullptr) return kFailed;
  out->clear();
  if (raw == nullptr || width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) {
    RD_ERROR("Invalid image for JPEG 2000: %dx%d", width, height);
    return kFailed;
  }

  opj_cparameters_t params = encoder_parameters(width, height, ratio);
  const ImagePtr image = gray_image(raw, width, height);
  if (!image) return kFailed;
  const CodecPtr codec = jp2_encoder(&params, image.get());
  if (!codec) return kFailed;

  std::vector<std::uint8_t> bytes;
  bytes.reserve(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) / 8 + 1024);
  MemorySink sink{&bytes, 0};
  const StreamPtr stream = memory_stream(&sink);
  if (!stream) return kFailed;

  if (!opj_start_compress(codec.get(), image.get(), stream.get()) || !opj_encode(codec.get(), stream.get()) ||
      !opj_end_compress(codec.get(), stream.get())) {
    RD_ERROR("JPEG 2000 encoding failed");
    return kFailed;
  }
  *out = std::move(bytes);
  return 0;
}
