#include "fingerprint.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace simfp {
namespace {

constexpr double kPi = 3.14159265358979323846;

// splitmix64: small, fast and good enough to vary a synthetic finger.
struct Rng {
  std::uint64_t s;
  std::uint64_t next() {
    std::uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  double uniform(double lo, double hi) { return lo + (hi - lo) * (next() >> 11) * (1.0 / 9007199254740992.0); }
};

// Shape of one synthetic finger.
struct Finger {
  double cx, cy;          // core
  double ex, ey, ea, eb;  // finger ellipse: centre and half axes
  double period;          // ridge period in pixels (about 0.45 mm at 500 ppi)
  double wa, wp, wq;      // amplitude and phases of the ridge waviness
  double wb;              // +1 or -1: the sense of the spiral at the core
};

Finger make_finger(int width, int height, std::uint32_t seed) {
  Rng rng{0xA5A5F00DULL ^ (static_cast<std::uint64_t>(seed) << 17) ^ seed};
  Finger f{};
  f.ex = width * rng.uniform(0.47, 0.53);
  f.ey = height * rng.uniform(0.50, 0.55);
  f.ea = width * rng.uniform(0.38, 0.44);
  f.eb = height * rng.uniform(0.40, 0.45);
  f.cx = f.ex + width * rng.uniform(-0.08, 0.08);
  f.cy = height * rng.uniform(0.36, 0.46);
  f.period = rng.uniform(8.0, 10.5);
  f.wa = rng.uniform(3.0, 7.0);
  f.wp = rng.uniform(0.0, 2 * kPi);
  f.wq = rng.uniform(0.0, 2 * kPi);
  // A whole turn of phase around the core keeps the ridges continuous.
  f.wb = (rng.next() & 1) != 0 ? 1.0 : -1.0;
  return f;
}

// Ellipse measure: below 1 inside the finger.
double ellipse(const Finger& f, double x, double y) {
  const double dx = (x - f.ex) / f.ea, dy = (y - f.ey) / f.eb;
  return dx * dx + dy * dy;
}

void put16(unsigned char* p, unsigned v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}

}  // namespace

void render_fingerprint(int width, int height, std::uint32_t seed, unsigned char* out) {
  const Finger f = make_finger(width, height, seed);
  Rng noise{seed * 0x2545F4914F6CDD1DULL + 1};
  // The waviness is a product of a column term and a row term: work each out
  // once rather than per pixel (the same values, a third less work).
  std::vector<double> wave_x(static_cast<std::size_t>(width));
  for (int x = 0; x < width; ++x) wave_x[static_cast<std::size_t>(x)] = f.wa * std::sin(x / 37.0 + f.wp);
  for (int y = 0; y < height; ++y) {
    const double wave_y = std::cos(y / 53.0 + f.wq);
    for (int x = 0; x < width; ++x) {
      const double dx = x - f.cx, dy = y - f.cy;
      // Rings around the core above it turn into wide arches below it; the
      // angle term makes the core a singular point instead of a bull's eye.
      const double r = std::sqrt(dx * dx + dy * dy);
      const double t = std::clamp(dy / 90.0, 0.0, 1.0);
      const double arch = dy + 0.004 * dx * dx + 40.0;
      double dist = r * (1.0 - t) + arch * t;
      dist += wave_x[static_cast<std::size_t>(x)] * wave_y;
      const double phase = 2 * kPi * dist / f.period + f.wb * std::atan2(dy, dx);
      const double ridge = 0.5 - 0.5 * std::cos(phase);  // 1 on a ridge
      const double q = ellipse(f, x, y);
      const double inside = std::clamp((1.0 - q) / 0.10, 0.0, 1.0);
      const double finger = 205.0 - 165.0 * ridge;
      const double background = 236.0;
      double v = background + (finger - background) * inside;
      v += static_cast<double>(noise.next() % 13) - 6.0;
      out[static_cast<std::size_t>(y) * width + x] = static_cast<unsigned char>(std::clamp(v, 0.0, 255.0));
    }
  }
}

std::size_t build_minutiae_record(int width, int height, int ppi, int quality, int count, std::uint32_t seed,
                                  unsigned char* out) {
  count = std::clamp(count, 0, kMaxMinutiae);
  const std::size_t len = fmr_length(count);
  std::memset(out, 0, len);
  std::memcpy(out, "FMR\0", 4);
  std::memcpy(out + 4, " 20\0", 4);
  out[8] = static_cast<unsigned char>(len >> 24);
  out[9] = static_cast<unsigned char>(len >> 16);
  out[10] = static_cast<unsigned char>(len >> 8);
  out[11] = static_cast<unsigned char>(len);
  put16(out + 12, 0);  // capture equipment: not certified, device type 0
  put16(out + 14, static_cast<unsigned>(width));
  put16(out + 16, static_cast<unsigned>(height));
  const unsigned ppcm = static_cast<unsigned>(std::lround(ppi / 2.54));
  put16(out + 18, ppcm);  // the record counts resolution in pixels per centimetre
  put16(out + 20, ppcm);
  out[22] = 1;  // one finger view
  out[23] = 0;  // reserved
  out[24] = 0;  // finger position unknown
  out[25] = 0;  // view 0, live-scan plain impression
  out[26] = static_cast<unsigned char>(std::clamp(quality, 0, 100));
  out[27] = static_cast<unsigned char>(count);
  const Finger f = make_finger(width, height, seed);
  Rng rng{static_cast<std::uint64_t>(seed) * 0x9E3779B97F4A7C15ULL + 7};
  unsigned char* m = out + 28;
  for (int i = 0; i < count; ++i, m += 6) {
    double x = f.ex, y = f.ey;
    for (int tries = 0; tries < 64; ++tries) {
      const double cx = rng.uniform(0, width - 1), cy = rng.uniform(0, height - 1);
      if (ellipse(f, cx, cy) < 0.8) {
        x = cx;
        y = cy;
        break;
      }
    }
    const unsigned type = (rng.next() & 1) != 0 ? 1u : 2u;  // ridge ending or bifurcation
    put16(m, (type << 14) | (static_cast<unsigned>(x) & 0x3FFF));
    put16(m + 2, static_cast<unsigned>(y) & 0x3FFF);
    m[4] = static_cast<unsigned char>(rng.next() & 0xFF);     // angle, 360/256 degree steps
    m[5] = static_cast<unsigned char>(40 + rng.next() % 61);  // minutia quality 40..100
  }
  // The last two bytes, the extended data length, stay 0.
  return len;
}

std::size_t record_length(const unsigned char* record) {
  if (std::memcmp(record, "FMR\0", 4) != 0) return 0;
  return (static_cast<std::size_t>(record[8]) << 24) | (static_cast<std::size_t>(record[9]) << 16) |
         (static_cast<std::size_t>(record[10]) << 8) | record[11];
}

}  // namespace simfp
