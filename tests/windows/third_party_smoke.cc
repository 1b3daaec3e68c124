// Every third-party library of the Windows build, linked static and used for
// real under Wine, and the threads of the posix-model runtime.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <iniparser/iniparser.h>
#include <json-c/json.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <openjpeg.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <protobuf-c/protobuf-c.h>

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "smoke.pb-c.h"

namespace {

std::string hex(const unsigned char* p, std::size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    out += kDigits[p[i] >> 4];
    out += kDigits[p[i] & 15];
  }
  return out;
}

TEST(ThirdParty, Sha256OfKnownInputs) {
  const struct {
    std::string input;
    std::string digest;
  } cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& c : cases) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    ASSERT_EQ(EVP_Digest(c.input.data(), c.input.size(), md, &len, EVP_sha256(), nullptr), 1);
    EXPECT_EQ(hex(md, len), c.digest) << "input of " << c.input.size() << " bytes";
  }
}

// The folders compiled into libcrypto must be ones only administrators can
// write, never a Unix path that becomes C:\usr\local\ssl.
TEST(ThirdParty, OpenSslVersionAndFolders) {
#ifdef _WIN64
  const std::string pf = "C:/Program Files";
#else
  const std::string pf = "C:/Program Files (x86)";
#endif
  const struct {
    int what;
    std::string text;
  } cases[] = {
      {OPENSSL_VERSION, "OpenSSL 3.0.22"},
      {OPENSSL_DIR, "OPENSSLDIR: \"" + pf + "/Common Files/SSL\""},
      {OPENSSL_ENGINES_DIR, "ENGINESDIR: \"" + pf + "/OpenSSL/lib/engines-3\""},
      {OPENSSL_MODULES_DIR, "MODULESDIR: \"" + pf + "/OpenSSL/lib/ossl-modules\""},
  };
  for (const auto& c : cases) {
    const std::string got = OpenSSL_version(c.what);
    EXPECT_EQ(got.substr(0, c.text.size()), c.text) << "OpenSSL_version(" << c.what << ")";
  }
}

TEST(ThirdParty, CurlSpeaksHttpAndHttpsOnly) {
  ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK);
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  EXPECT_STREQ(info->version, "7.88.1");
  EXPECT_EQ(std::string(info->ssl_version).rfind("OpenSSL/3.0.22", 0), 0u) << info->ssl_version;
  std::set<std::string> protocols;
  for (const char* const* p = info->protocols; *p; ++p) protocols.insert(*p);
  EXPECT_EQ(protocols, (std::set<std::string>{"http", "https"}));
  EXPECT_EQ(info->features & CURL_VERSION_LIBZ, 0);
  CURL* curl = curl_easy_init();
  ASSERT_NE(curl, nullptr);
  EXPECT_EQ(curl_easy_setopt(curl, CURLOPT_URL, "ftp://127.0.0.1/"), CURLE_OK);
  EXPECT_EQ(curl_easy_perform(curl), CURLE_UNSUPPORTED_PROTOCOL);
  curl_easy_cleanup(curl);
  curl_global_cleanup();
}

TEST(ThirdParty, JsonRoundTrip) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"{\"a\":1}", "{\"a\":1}"},
      {" [ 1 , -2 , 3.5 ] ", "[1,-2,3.5]"},
      {"{\"s\":\"q\\\"b\\\\\",\"n\":null,\"t\":true}", "{\"s\":\"q\\\"b\\\\\",\"n\":null,\"t\":true}"},
      {"{\"deep\":{\"list\":[{\"k\":\"v\"}]}}", "{\"deep\":{\"list\":[{\"k\":\"v\"}]}}"},
  };
  for (const auto& c : cases) {
    json_object* parsed = json_tokener_parse(c.in);
    ASSERT_NE(parsed, nullptr) << c.in;
    EXPECT_STREQ(json_object_to_json_string_ext(parsed, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE),
                 c.out);
    json_object_put(parsed);
  }
  EXPECT_EQ(json_tokener_parse("{\"a\":"), nullptr);
}

TEST(ThirdParty, IniRoundTrip) {
  const auto path = std::filesystem::temp_directory_path() /
                    ("vexo-smoke-" + std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id())) + ".ini");
  dictionary* d = dictionary_new(0);
  ASSERT_NE(d, nullptr);
  ASSERT_EQ(iniparser_set(d, "config", nullptr), 0);
  ASSERT_EQ(iniparser_set(d, "config:Verbose", "2"), 0);
  ASSERT_EQ(iniparser_set(d, "config:URL", "https://127.0.0.1:8443/rd"), 0);
  std::FILE* f = std::fopen(path.string().c_str(), "wb");
  ASSERT_NE(f, nullptr);
  iniparser_dump_ini(d, f);
  std::fclose(f);
  iniparser_freedict(d);

  dictionary* back = iniparser_load(path.string().c_str());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(iniparser_getint(back, "config:verbose", -1), 2);
  EXPECT_STREQ(iniparser_getstring(back, "config:url", ""), "https://127.0.0.1:8443/rd");
  EXPECT_STREQ(iniparser_getstring(back, "config:missing", "none"), "none");
  iniparser_freedict(back);
  std::filesystem::remove(path);
}

TEST(ThirdParty, XmlParseAndSchema) {
  static const char kSchema[] =
      "<xs:schema xmlns:xs='http://www.w3.org/2001/XMLSchema'>"
      "<xs:element name='PidOptions'><xs:complexType><xs:sequence>"
      "<xs:element name='Opts'><xs:complexType>"
      "<xs:attribute name='fCount' type='xs:int' use='required'/>"
      "</xs:complexType></xs:element>"
      "</xs:sequence><xs:attribute name='ver' type='xs:string'/></xs:complexType></xs:element>"
      "</xs:schema>";
  xmlSchemaParserCtxtPtr pctx = xmlSchemaNewMemParserCtxt(kSchema, sizeof kSchema - 1);
  xmlSchemaPtr schema = xmlSchemaParse(pctx);
  ASSERT_NE(schema, nullptr);
  const struct {
    std::string doc;
    bool well_formed;
    bool valid;
  } cases[] = {
      {"<PidOptions ver='1.0'><Opts fCount='1'/></PidOptions>", true, true},
      {"<PidOptions ver='1.0'><Opts fCount='x'/></PidOptions>", true, false},
      {"<PidOptions><Other/></PidOptions>", true, false},
      {"<PidOptions ver='1.0'><Opts fCount='1'/>", false, false},
  };
  for (const auto& c : cases) {
    xmlDocPtr doc = xmlReadMemory(c.doc.data(), static_cast<int>(c.doc.size()), "in.xml", nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    EXPECT_EQ(doc != nullptr, c.well_formed) << c.doc;
    if (doc == nullptr) continue;
    EXPECT_STREQ(reinterpret_cast<const char*>(xmlDocGetRootElement(doc)->name), "PidOptions");
    xmlSchemaValidCtxtPtr vctx = xmlSchemaNewValidCtxt(schema);
    xmlSchemaSetValidStructuredErrors(
        vctx, [](void*, xmlErrorPtr) {}, nullptr);
    EXPECT_EQ(xmlSchemaValidateDoc(vctx, doc) == 0, c.valid) << c.doc;
    xmlSchemaFreeValidCtxt(vctx);
    xmlFreeDoc(doc);
  }
  xmlSchemaFree(schema);
  xmlSchemaFreeParserCtxt(pctx);
}

TEST(ThirdParty, ProtobufPackAndUnpack) {
  EXPECT_STREQ(protobuf_c_version(), "1.4.1");
  Vexo__Smoke__Sample sample = VEXO__SMOKE__SAMPLE__INIT;
  sample.name = const_cast<char*>("ab");
  sample.has_count = 1;
  sample.count = 300;
  std::vector<std::uint8_t> out(vexo__smoke__sample__get_packed_size(&sample));
  ASSERT_EQ(vexo__smoke__sample__pack(&sample, out.data()), out.size());
  EXPECT_EQ(hex(out.data(), out.size()), "0a02616210ac02");
  Vexo__Smoke__Sample* back = vexo__smoke__sample__unpack(nullptr, out.size(), out.data());
  ASSERT_NE(back, nullptr);
  EXPECT_STREQ(back->name, "ab");
  EXPECT_EQ(back->count, 300);
  vexo__smoke__sample__free_unpacked(back, nullptr);
  const std::uint8_t truncated[] = {0x0a, 0x05, 0x61};
  EXPECT_EQ(vexo__smoke__sample__unpack(nullptr, sizeof truncated, truncated), nullptr);
}

TEST(ThirdParty, OpenJpegVersionAndEncoder) {
  EXPECT_STREQ(opj_version(), "2.5.0");
  opj_codec_t* codec = opj_create_compress(OPJ_CODEC_J2K);
  ASSERT_NE(codec, nullptr);
  opj_cparameters_t params;
  opj_set_default_encoder_parameters(&params);
  opj_image_cmptparm_t cmpt{};
  cmpt.dx = cmpt.dy = 1;
  cmpt.w = cmpt.h = 16;
  cmpt.prec = 8;
  opj_image_t* image = opj_image_create(1, &cmpt, OPJ_CLRSPC_GRAY);
  ASSERT_NE(image, nullptr);
  image->x1 = image->y1 = 16;
  EXPECT_TRUE(opj_setup_encoder(codec, &params, image));
  opj_image_destroy(image);
  opj_destroy_codec(codec);
}

TEST(Threads, MutexAndConditionVariable) {
  constexpr int kThreads = 8;
  constexpr int kIncrements = 20000;
  std::mutex mu;
  std::condition_variable cv;
  long counter = 0;
  int finished = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kIncrements; ++i) {
        std::lock_guard<std::mutex> lock(mu);
        ++counter;
      }
      std::lock_guard<std::mutex> lock(mu);
      ++finished;
      cv.notify_one();
    });
  }
  {
    std::unique_lock<std::mutex> lock(mu);
    cv.wait(lock, [&] { return finished == kThreads; });
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kIncrements);
  }
  for (auto& t : threads) t.join();
}

}  // namespace
