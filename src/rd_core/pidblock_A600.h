// Fingerprint acquisition with the scanner maker's SDK: opens the scanner,
// captures each requested finger behind an NFIQ quality gate with up to three
// attempts, and turns each accepted image into the requested biometric records
// (ISO minutiae record, ISO finger image record with a JPEG 2000 image), each
// Base64-encoded and signed with the device key.
//
// REQUIRES: dll_loading succeeded and the caller holds the scanner lock; the
// SDK is not safe for two captures at once.
#ifndef VEXO_RD_CORE_PIDBLOCK_A600_H
#define VEXO_RD_CORE_PIDBLOCK_A600_H

#include <cstdint>
#include <string>
#include <vector>

#include "rd_core/pid_request.h"

// Length of the ISO/IEC 19794-4 finger image record header before the image.
constexpr std::size_t kFirHeaderSize = 46;

// Captures request.fCount fingers into *fingers (capture order; within a
// finger the FMR record before the FIR record), signing each record with ts.
// A given request timeout is consumed: request.timeout_given is cleared.
// 0; kRdTimeout (700) when the scanner's wait ran out; kRdCaptureFailed (730)
// on another capture error; kScannerFailed (-1) on any other failure
// (*fingers cleared). The device is closed on every path.
int FP_Cap(std::vector<CapturedFinger>* fingers, PidOptionsRequest& request, const std::string& ts);

// Seconds the scanner waits for a finger: timeout/1000 when the request gave a
// timeout (negative values wait 0 s), else 20.
int capture_wait_seconds(const PidOptionsRequest& request);

// "Left Index" for "LEFT_INDEX": the first letter and each letter after an
// underscore kept, the underscores turned into blanks, other capitals lowered.
std::string position_display_name(const std::string& position);

// The 46-byte finger image record header (big-endian numbers) for a JPEG 2000
// image of image_len bytes. The finger position byte is always 0.
std::vector<std::uint8_t> fir_header(std::size_t image_len, int width, int height, int resolution, int quality);

// Pauses and beep lengths of a capture, in milliseconds. Tests shorten the
// beeps and the re-capture pause (test_seams.h).
struct CaptureTiming {
  unsigned prompt_beep_ms = 500;       // 523 Hz before each capture
  unsigned accepted_beep_ms = 900;     // 523 Hz after an accepted image
  unsigned low_quality_beep_ms = 900;  // each of three 624 Hz beeps
  unsigned recapture_pause_ms = 1500;  // before a re-capture
  unsigned between_fingers_ms = 5;     // before the second and later fingers
};
CaptureTiming capture_timing();

#endif  // VEXO_RD_CORE_PIDBLOCK_A600_H
