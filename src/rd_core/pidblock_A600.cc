#include "rd_core/pidblock_A600.h"

#include <algorithm>
#include <cctype>
#include <new>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/Base64.h"
#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/test_seams.h"
#include "rd_core/opj_compress.h"
#include "rd_core/pid_crypto.h"
#include "rd_core/scanner.h"

using rd_codes::kRdCaptureFailed;
using rd_codes::kRdTimeout;
using rd_codes::kScannerFailed;

namespace {

constexpr int kDefaultWaitSeconds = 20;
constexpr int kMaxAttempts = 3;
constexpr int kWorstAcceptedNfiq = 3;
constexpr unsigned kPromptHz = 523;
constexpr unsigned kLowQualityHz = 624;
constexpr int kLowQualityBeeps = 3;
constexpr float kJpeg2000Ratio = 15.0f;
constexpr int kLed = 0;
constexpr int kDeviceIndex = 0;
// The SDK writes at most 1568 bytes of minutiae; the rest is headroom.
constexpr std::size_t kFeatureBufferSize = 4096;
constexpr std::size_t kMinutiaeCountOffset = 27;
// Sensor images larger than this are not from a fingerprint scanner.
constexpr int kMaxSide = 4096;

// The open scanner; closed when the capture leaves by any path.
class DeviceHandle {
 public:
  explicit DeviceHandle(const AratekSdk& sdk) : sdk_(sdk) {}
  ~DeviceHandle() {
    if (open_ && sdk_.CloseDevice != nullptr) sdk_.CloseDevice(handle_);
  }
  DeviceHandle(const DeviceHandle&) = delete;
  DeviceHandle& operator=(const DeviceHandle&) = delete;
  int open() {
    if (sdk_.OpenDevice == nullptr) return kScannerFailed;
    int rc = sdk_.OpenDevice(kDeviceIndex, &handle_);
    open_ = (rc == 0);
    return rc;
  }
  ARAFPSCAN_HANDLE get() const { return handle_; }

 private:
  const AratekSdk& sdk_;
  ARAFPSCAN_HANDLE handle_ = nullptr;
  bool open_ = false;
};

void put_be(std::vector<std::uint8_t>* v, std::size_t offset, std::uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) {
    (*v)[offset + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value & 0xff);
    value >>= 8;
  }
}

// Base64 text and bio-sign of one record. 0 or -1.
int finish_record(BioRecord* record, const std::string& ts) {
  // Every report of the acquisition names FP_Cap, whichever helper makes it.
  RD_LOG_AS("FP_Cap");
  if (Base64Encode(record->bytes, &record->base64) != 0) {
    RD_ERROR("Error at base64 encoding of finger print data");
    return kScannerFailed;
  }
  if (Generate_bio_sign(record->bytes, ts, &record->bs) != 0) {
    RD_ERROR("Error at to generate bio-sign");
    return kScannerFailed;
  }
  return 0;
}

// Waits for one finger image of acceptable quality into raw, with up to three
// attempts. 0 and *nfiq; 700, 730 or -1.
int capture_accepted_image(const AratekSdk& sdk, ARAFPSCAN_HANDLE handle, int wait_s, const std::string& position,
                           int width, int height, std::vector<std::uint8_t>* raw, int* nfiq) {
  // Every report of the acquisition names FP_Cap, whichever helper makes it.
  RD_LOG_AS("FP_Cap");
  const CaptureTiming timing = capture_timing();
  for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
    if (sdk.SetLedStatus(handle, kLed, 1) != 0) {
      RD_ERROR("Turn_On_Green light failed");
      return kScannerFailed;
    }
    if (position == "UNKNOWN") {
      RD_PIPE("10000", "Put Finger\n");
    } else {
      RD_PIPE("10000", "Put %s Finger\n", position_display_name(position).c_str());
    }
    platform::beep(kPromptHz, timing.prompt_beep_ms);

    int rc = sdk.CaptureRawData(handle, wait_s, raw->data());
    if (rc != 0) {
      // The LED goes off with the failed capture; its own failure changes nothing.
      sdk.SetLedStatus(handle, kLed, 0);
      if (rc == ARAFPSCAN_ERROR_TIMEOUT) {
        RD_ERROR("Image capture got timed out");
        RD_PIPE("5000", "Capture Timeout\n");
        return kRdTimeout;
      }
      RD_ERROR("capturing Raw data is failed with error code %d", rc);
      RD_PIPE("5000", "Capture Failed\n");
      return kRdCaptureFailed;
    }

    if (sdk.GetNFIQScore(width, height, raw->data(), nfiq) != 0) {
      RD_ERROR("Getting Nfiq value failed");
      sdk.SetLedStatus(handle, kLed, 0);
      return kScannerFailed;
    }
    if (sdk.SetLedStatus(handle, kLed, 0) != 0) {
      RD_ERROR("Turn_Off_Green light failed");
      return kScannerFailed;
    }
    if (*nfiq <= kWorstAcceptedNfiq) return 0;

    RD_PIPE("3000", "Low Quality Image\n");
    for (int i = 0; i < kLowQualityBeeps; ++i) platform::beep(kLowQualityHz, timing.low_quality_beep_ms);
    if (attempt < kMaxAttempts) {
      RD_INFO("Nfiq value is %d, going for re-capture", *nfiq);
      platform::sleep_ms(timing.recapture_pause_ms);
    }
  }
  RD_ERROR("Quality of finger is too low, failed to capture bio data");
  RD_STATUS("Quality of fingerprint image is too low, failed to capture bio data ");
  return kScannerFailed;
}

// Minutiae record of the last image. 0 or -1.
int make_minutiae_record(const AratekSdk& sdk, ARAFPSCAN_HANDLE handle, BioRecord* record, int* nm_points) {
  // Every report of the acquisition names FP_Cap, whichever helper makes it.
  RD_LOG_AS("FP_Cap");
  std::vector<std::uint8_t> feature(kFeatureBufferSize, 0);
  int length = 0;
  if (sdk.ExtractISOFeature(handle, 0, feature.data()) != 0 || sdk.GetISOFeatureLength(feature.data(), &length) != 0 ||
      length <= 0 || static_cast<std::size_t>(length) > feature.size() ||
      static_cast<std::size_t>(length) <= kMinutiaeCountOffset) {
    RD_ERROR("Extracting ISO Features failed");
    return kScannerFailed;
  }
  feature.resize(static_cast<std::size_t>(length));
  *nm_points = feature[kMinutiaeCountOffset];
  record->image = false;
  record->bytes = std::move(feature);
  return 0;
}

// Finger image record: the 46-byte header and the JPEG 2000 image. 0 or -1.
int make_image_record(const std::vector<std::uint8_t>& raw, int width, int height, int resolution, int quality,
                      BioRecord* record) {
  // Every report of the acquisition names FP_Cap, whichever helper makes it.
  RD_LOG_AS("FP_Cap");
  std::vector<std::uint8_t> jp2;
  if (ConvertToJPEG2000(raw.data(), &jp2, width, height, kJpeg2000Ratio) != 0) {
    RD_ERROR("Convert to JPEG 2000 failed");
    return kScannerFailed;
  }
  RD_INFO("Compressed Rawdatasize = %d", static_cast<int>(jp2.size()));
  record->image = true;
  record->bytes = fir_header(jp2.size(), width, height, resolution, quality);
  record->bytes.insert(record->bytes.end(), jp2.begin(), jp2.end());
  return 0;
}

int capture_fingers(std::vector<CapturedFinger>* fingers, PidOptionsRequest& request, const std::string& ts) {
  // Every report of the acquisition names FP_Cap, whichever helper makes it.
  RD_LOG_AS("FP_Cap");
  int wait_s = capture_wait_seconds(request);
  request.timeout_given = 0;
  RD_INFO("Timeout value is %d", wait_s);
  const bool want_minutiae = (request.fType == 0 || request.fType == 2);
  const bool want_image = (request.fType == 1 || request.fType == 2);

  const AratekSdk& sdk = aratek_sdk();
  DeviceHandle device(sdk);
  if (device.open() != 0) {
    RD_ERROR("opening fp device failed");
    RD_STATUS("Aratek fingerprint scanner: opening fp device failed");
    RD_PIPE("5000", "Aratek fingerprint scanner:|opening fp device failed\n");
    return kScannerFailed;
  }
  int width = 0, height = 0, resolution = 0;
  if (sdk.GetImageInfo(device.get(), &width, &height, &resolution) != 0 || width <= 0 || height <= 0 ||
      width > kMaxSide || height > kMaxSide || resolution <= 0 || resolution > 0xffff) {
    RD_ERROR("Getting Image info is failed");
    RD_PIPE("5000", "Getting Image info failed\n");
    return kScannerFailed;
  }
  if (request.fCount < 1) return 0;

  const int count = std::min(request.fCount, kMaxFingers);
  const std::size_t image_size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  // Twice the image, in case the SDK writes past the size it reported.
  std::vector<std::uint8_t> raw(image_size * 2, 0);
  for (int i = 0; i < count; ++i) {
    if (i > 0) platform::sleep_ms(capture_timing().between_fingers_ms);
    // Without a posh entry the finger is prompted and reported as UNKNOWN.
    const std::size_t k = static_cast<std::size_t>(i);
    CapturedFinger finger;
    finger.position = k < request.positions.size() && !request.positions[k].empty() ? request.positions[k] : "UNKNOWN";
    int rc = capture_accepted_image(sdk, device.get(), wait_s, finger.position, width, height, &raw, &finger.nfiq);
    if (rc != 0) return rc;

    if (sdk.ImgQuality(width, height, raw.data(), &finger.qScore) != 0) {
      RD_ERROR("Getting Image quality failed");
      return kScannerFailed;
    }
    RD_INFO("Quality of image is: %d", finger.qScore);
    if (i + 1 < count) RD_PIPE("10000", "Remove Finger\n");
    platform::beep(kPromptHz, capture_timing().accepted_beep_ms);

    if (want_minutiae) {
      BioRecord record;
      if (make_minutiae_record(sdk, device.get(), &record, &finger.nmPoints) != 0) return kScannerFailed;
      finger.records.push_back(std::move(record));
    }
    if (want_image) {
      BioRecord record;
      if (make_image_record(raw, width, height, resolution, finger.qScore, &record) != 0) return kScannerFailed;
      finger.records.push_back(std::move(record));
    }
    for (BioRecord& record : finger.records) {
      if (finish_record(&record, ts) != 0) return kScannerFailed;
    }
    fingers->push_back(std::move(finger));
  }
  return 0;
}

}  // namespace

int capture_wait_seconds(const PidOptionsRequest& request) {
  if (request.timeout_given == 0) return kDefaultWaitSeconds;
  return request.timeout > 0 ? request.timeout / 1000 : 0;
}

std::string position_display_name(const std::string& position) {
  std::string shown;
  shown.reserve(position.size());
  bool word_start = true;
  for (char c : position) {
    if (c == '_') {
      shown.push_back(' ');
      word_start = true;
      continue;
    }
    unsigned char u = static_cast<unsigned char>(c);
    shown.push_back(word_start ? c : static_cast<char>(std::tolower(u)));
    word_start = false;
  }
  return shown;
}

std::vector<std::uint8_t> fir_header(std::size_t image_len, int width, int height, int resolution, int quality) {
  std::vector<std::uint8_t> h(kFirHeaderSize, 0);
  h[0] = 'F', h[1] = 'I', h[2] = 'R';            // "FIR\0"
  h[4] = '0', h[5] = '1', h[6] = '0';            // "010\0"
  put_be(&h, 8, kFirHeaderSize + image_len, 6);  // record length
  put_be(&h, 14, 0, 2);                          // capture device id
  put_be(&h, 16, 30, 2);                         // acquisition level
  h[18] = 1;                                     // number of fingers
  h[19] = 1;                                     // scale: pixels per inch
  for (std::size_t off = 20; off <= 26; off += 2) put_be(&h, off, static_cast<std::uint16_t>(resolution), 2);
  h[28] = 8;                          // pixel depth
  h[29] = 4;                          // JPEG 2000
  put_be(&h, 32, 14 + image_len, 4);  // finger data block length
  h[36] = 0;                          // finger position: deliberately 0, whatever posh named
  h[37] = 1;                          // view count
  h[38] = 1;                          // view number
  h[39] = static_cast<std::uint8_t>(std::clamp(quality, 0, 255));
  h[40] = 0;  // impression type
  put_be(&h, 41, static_cast<std::uint16_t>(width), 2);
  put_be(&h, 43, static_cast<std::uint16_t>(height), 2);
  return h;
}

CaptureTiming capture_timing() {
  CaptureTiming timing;
  if (auto beep = test_seams::get(&test_seams::Seams::beep_ms)) {
    timing.prompt_beep_ms = timing.accepted_beep_ms = timing.low_quality_beep_ms = *beep;
  }
  timing.recapture_pause_ms =
      test_seams::get(&test_seams::Seams::recapture_pause_ms).value_or(timing.recapture_pause_ms);
  return timing;
}

int FP_Cap(std::vector<CapturedFinger>* fingers, PidOptionsRequest& request, const std::string& ts) {
  fingers->clear();
  int rc;
  try {
    rc = capture_fingers(fingers, request, ts);
  } catch (const std::bad_alloc&) {
    RD_ERROR("Memory allocation failed");
    rc = kScannerFailed;
  }
  if (rc != 0) fingers->clear();
  return rc;
}
