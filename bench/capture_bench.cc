// Measures a capture with the simulated scanner (no finger wait, no beeps or
// pauses) against the least work it must do: one RSA-2048 signature per
// record, one RSA wrap of the session key and the two GCM encryptions, and, for
// image captures, openjpeg's encoding of the same images. Prints each ratio.
//
// Usage: capture_bench [iterations]   (default 20)
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "common/openssl_ptr.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/hash.h"
#include "common/secret.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "platform/test_seams.h"
#include "rd_core/opj_compress.h"
#include "rd_core/pid_crypto.h"
#include "rd_core/pidblock.h"
#include "rd_core/pidblock_A600.h"
#include "rd_core/scanner.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/semaphore_syc.h"
#include "sim_control.h"
#include "test_sys.h"

namespace {

double thread_cpu_ms() { return testsys::thread_cpu_ms(); }

// Medians over n runs of fn, in milliseconds: wall time, and the CPU time of
// this thread (which also runs the simulated scanner), steadier on a busy machine.
struct Timing {
  double wall = 0;
  double cpu = 0;
};
Timing measure(int n, const std::function<void()>& fn) {
  std::vector<double> wall, cpu;
  for (int i = 0; i < n; ++i) {
    auto a = std::chrono::steady_clock::now();
    double c = thread_cpu_ms();
    fn();
    cpu.push_back(thread_cpu_ms() - c);
    wall.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - a).count());
  }
  std::sort(wall.begin(), wall.end());
  std::sort(cpu.begin(), cpu.end());
  return {wall[wall.size() / 2], cpu[cpu.size() / 2]};
}

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "capture_bench: %s\n", what);
  std::exit(1);
}

// Reads the status pipe so the library's notifications never block.
class PipeDrain {
 public:
  explicit PipeDrain(const std::string& dir) : server_(dir, [](const char*, std::size_t) {}) {
    platform::set_status_pipe_path(server_.path());
  }

 private:
  testsys::PipeServer server_;
};

// The cryptographic floor of one capture: a signature per record, the RSA wrap
// and the two GCM encryptions of a block of pid_len bytes.
struct Floor {
  EVP_PKEY* device_key;
  EVP_PKEY* uidai_key;

  void sign(const std::vector<std::uint8_t>& record) const {
    Sha256Digest d = sha256(record);
    std::string msg(d.begin(), d.end());
    msg += "2016-01-21T12:34:56";
    msg += rd_config_copy().dc;
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    std::size_t len = 0;
    EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, device_key);
    EVP_DigestSignUpdate(ctx, msg.data(), msg.size());
    EVP_DigestSignFinal(ctx, nullptr, &len);
    std::vector<unsigned char> sig(len);
    EVP_DigestSignFinal(ctx, sig.data(), &len);
    EVP_MD_CTX_free(ctx);
  }
  void wrap() const {
    unsigned char key[32];
    platform::random_bytes(key, sizeof key);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(uidai_key, nullptr);
    std::size_t len = 0;
    EVP_PKEY_encrypt_init(ctx);
    EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
    EVP_PKEY_encrypt(ctx, nullptr, &len, key, sizeof key);
    std::vector<unsigned char> out(len);
    EVP_PKEY_encrypt(ctx, out.data(), &len, key, sizeof key);
    EVP_PKEY_CTX_free(ctx);
  }
  void gcm(std::size_t pid_len) const {
    std::vector<std::uint8_t> pid(pid_len, 'x'), cipher;
    std::uint8_t key[32] = {1}, tag[16];
    const std::string ts = "2016-01-21T12:34:56";
    auto iv = std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(ts.data()) + 7, 12);
    auto aad = std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(ts.data()) + 3, 16);
    aes_encrypt_GCM_Mode(pid, aad, key, iv, &cipher, tag);
    Sha256Digest d = sha256(pid);
    aes_encrypt_GCM_Mode(d, aad, key, iv, &cipher, tag);
  }
  void run(const std::vector<std::vector<std::uint8_t>>& records, std::size_t pid_len) const {
    for (const auto& r : records) sign(r);
    wrap();
    gcm(pid_len);
  }
};

PkeyPtr key_from_pem(std::string_view pem, bool cert) {
  const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!cert) return PkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  const X509Ptr x(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  return PkeyPtr(x != nullptr ? X509_get_pubkey(x.get()) : nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::max(3, std::atoi(argv[1])) : 20;
  const std::string work =
      (std::filesystem::temp_directory_path() / ("vexo_capture_bench_" + std::to_string(testsys::process_id())))
          .string();
  std::filesystem::remove_all(work);
  if (!std::filesystem::create_directory(work)) die("no working folder");
  std::filesystem::current_path(work);
  {
    PipeDrain drain(work);
    if (create_Pipe() != 0 || zlog_init("rd.log") != 0) die("log or pipe");
    rd_identity_update([&](RdIdentity& id) {
      id.scanner_name = "Aratek_A600";
      id.rdsId = "QDX.WIN.002";
      id.dpId = "BENCHDP";
      id.mi = "QDX.BEN.A600.W";
      id.appdata = work + "/appdata";
    });
    rd_config_update([&](RdConfig& r) { r.dev_pub_key_validity = "1440"; });
    rd_config_update([&](RdConfig& r) { r.dc = "BENCH-DC-0001"; });
    rd_config_update([&](RdConfig& r) { r.rd_ver = "1.0.0"; });
    set_device_serial("SIM0000001");
    std::filesystem::create_directory("locks");
    platform::Adapter a;
    a.address[0] = 0x02;
    a.address[5] = 0x01;
    a.index = 2;
    a.ethernet = true;
    a.name = a.description = "eth0";
    // The beeps and pauses are for the user; the measurement leaves them out.
    test_seams::set({.lock_dir = work + "/locks",
                     .adapters = std::vector<platform::Adapter>{a},
                     .beep_ms = 0u,
                     .recapture_pause_ms = 0u});
    std::string cert;
    if (init_semaphore() != 0 || GenerateKeyPair(&cert) != 0) die("keystore set-up");
    const std::string refdll = sim::install_refdll(work);
    sim::write_control(refdll, {{"capture_wait_ms", "0"}});
    if (dll_loading(refdll.c_str()) != 0) die("dll_loading");
    aratek_sdk().GlobalInit();
    if (Lock_Semaphore() != 0) die("scanner lock");

    Secret pem;
    if (GetDevicePrivateKeyFromFile(&pem) != 0) die("device key");
    PkeyPtr device_key = key_from_pem(pem.view(), false);
    PkeyPtr uidai_key = key_from_pem(uidai_cert_in_force(uidai_current_prod_cert()), true);
    if (!device_key || !uidai_key) die("keys");
    Floor floor{device_key.get(), uidai_key.get()};

    // One capture of each kind gives the records (and sizes) the floor repeats.
    auto capture = [](int fcount, int ftype, char format, std::vector<CapturedFinger>* fingers) {
      PidOptionsRequest r;
      r.ver = "2.0";
      r.finger_requested = 1;
      r.fCount = fcount;
      r.fType = ftype;
      r.format = format;
      r.positions =
          fcount == 1 ? std::vector<std::string>{"LEFT_INDEX"} : std::vector<std::string>{"LEFT_INDEX", "RIGHT_INDEX"};
      if (fingers != nullptr) {
        std::string ts = "2016-01-21T12:34:56";
        if (FP_Cap(fingers, r, ts) != 0) die("FP_Cap");
        return;
      }
      EncPidBlock out;
      if (GenerateEncPIDBlock(r, &out) != 0) die("GenerateEncPIDBlock");
    };
    auto records_of = [](const std::vector<CapturedFinger>& fingers, std::size_t* total) {
      std::vector<std::vector<std::uint8_t>> recs;
      *total = 0;
      for (const auto& f : fingers) {
        for (const auto& r : f.records) {
          recs.push_back(r.bytes);
          *total += r.base64.size() + r.bs.size() + 64;
        }
      }
      return recs;
    };

    std::vector<CapturedFinger> minutiae, images;
    capture(1, 0, 'X', &minutiae);
    capture(2, 2, 'P', &images);
    std::size_t pid_a = 0, pid_b = 0;
    auto recs_a = records_of(minutiae, &pid_a);
    auto recs_b = records_of(images, &pid_b);
    pid_a += 400;  // the XML around the records

    // The raw images openjpeg encodes in the image capture.
    std::vector<std::vector<std::uint8_t>> raws;
    int w = 0, h = 0, res = 0;
    {
      ARAFPSCAN_HANDLE dev = nullptr;
      const AratekSdk& sdk = aratek_sdk();
      if (sdk.OpenDevice(0, &dev) != 0 || sdk.GetImageInfo(dev, &w, &h, &res) != 0) die("device");
      for (int i = 0; i < 2; ++i) {
        raws.emplace_back(static_cast<std::size_t>(w) * h);
        if (sdk.CaptureRawData(dev, 0, raws.back().data()) != 0) die("raw capture");
      }
      sdk.CloseDevice(dev);
    }

    const Timing cap_a = measure(n, [&] { capture(1, 0, 'X', nullptr); });
    const Timing floor_a = measure(n, [&] { floor.run(recs_a, pid_a); });
    const Timing cap_b = measure(n, [&] { capture(2, 2, 'P', nullptr); });
    const Timing floor_b = measure(n, [&] { floor.run(recs_b, pid_b); });
    const Timing jpeg_b = measure(n, [&] {
      for (const auto& raw : raws) {
        std::vector<std::uint8_t> out;
        ConvertToJPEG2000(raw.data(), &out, w, h, 15.0f);
      }
    });
    Secret key_pem;
    const Timing key_read = measure(n, [&] { GetDevicePrivateKeyFromFile(&key_pem); });
    std::array<std::uint8_t, 32> digest{};
    const Timing self_hash = measure(n, [&] { GetHashRDservice(&digest); });
    const Timing acquire_a = measure(n, [&] {
      std::vector<CapturedFinger> f;
      capture(1, 0, 'X', &f);
    });
    const Timing session_key = measure(n, [&] {
      std::uint8_t key[32];
      std::string skey, ci;
      GenerateEncandPlainSessionKey("P", key, &skey, &ci);
    });
    // The simulator's own work for one finger (render, NFIQ, quality, minutiae),
    // which a real scanner does in its hardware and driver.
    const Timing sim_finger = measure(n, [&] {
      const AratekSdk& sdk = aratek_sdk();
      ARAFPSCAN_HANDLE dev = nullptr;
      std::vector<std::uint8_t> raw(static_cast<std::size_t>(w) * h), feature(4096);
      int v = 0;
      sdk.OpenDevice(0, &dev);
      sdk.CaptureRawData(dev, 0, raw.data());
      sdk.GetNFIQScore(w, h, raw.data(), &v);
      sdk.ImgQuality(w, h, raw.data(), &v);
      sdk.ExtractISOFeature(dev, 0, feature.data());
      sdk.CloseDevice(dev);
    });
    Unlock_Semaphore();

    std::printf("capture_bench: %d runs each, medians in ms (wall / thread CPU), %dx%d sensor image\n", n, w, h);
    for (int i = 0; i < 2; ++i) {
      auto pick = [i](const Timing& t) { return i == 0 ? t.wall : t.cpu; };
      std::printf(" %s:\n", i == 0 ? "wall" : "cpu ");
      std::printf(
          "  1 finger, minutiae, XML      : %8.2f   floor (1 sign + wrap + GCM)  %7.2f"
          "                     ratio %6.2f (aim <= 5)\n",
          pick(cap_a), pick(floor_a), pick(cap_a) / pick(floor_a));
      std::printf(
          "  2 fingers, FMR+FIR, protobuf : %8.2f   floor (4 signs + wrap + GCM) %7.2f + openjpeg %7.2f"
          "   ratio %6.2f (aim <= 1.5)\n",
          pick(cap_b), pick(floor_b), pick(jpeg_b), pick(cap_b) / (pick(floor_b) + pick(jpeg_b)));
      std::printf("  per record: keystore read %.2f (service digest alone %.2f); per finger: simulator %.2f\n",
                  pick(key_read), pick(self_hash), pick(sim_finger));
      std::printf("  acquisition alone (FP_Cap, 1 finger, minutiae): %.2f; session key step: %.2f\n", pick(acquire_a),
                  pick(session_key));
      // The same ratios without the per-record keystore reads and the simulator.
      const double own_a = pick(cap_a) - pick(key_read) - pick(sim_finger);
      const double own_b = pick(cap_b) - 4 * pick(key_read) - 2 * pick(sim_finger);
      std::printf("  without keystore reads and simulator: minutiae ratio %.2f, image ratio %.2f\n",
                  own_a / pick(floor_a), own_b / (pick(floor_b) + pick(jpeg_b)));
    }
    zlog_fini();
  }
  std::error_code ec;
  std::filesystem::current_path("/", ec);
  std::filesystem::remove_all(work, ec);
  return 0;
}
