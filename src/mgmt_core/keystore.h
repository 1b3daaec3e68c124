// Device keystore: the device RSA key pair and self-signed certificate, the
// private key stored encrypted under a password bound to this installation,
// and the tamper checks made on every read.
//
// The password is SHA-256(service digest, 6-byte adapter address, dynamic key),
// where the dynamic key is "%lu%lu%lu" of the node file's volume serial and
// file index words. It is rebuilt whenever needed and never stored.
//
// Thread-safety: the key is read and rewritten under the scanner lock
// (Lock_Semaphore), which serialises the keystore across processes.
// REQUIRES for the readers: the caller holds the scanner lock.
#ifndef VEXO_MGMT_CORE_KEYSTORE_H
#define VEXO_MGMT_CORE_KEYSTORE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "common/secret.h"

struct x509_st;      // OpenSSL's X509
struct evp_pkey_st;  // OpenSSL's EVP_PKEY

// Makes a new key pair and certificate and puts them in place: stage_key_pair,
// then commit_staged_identity. cert_pem receives the certificate. 0 or -1
// (nothing in force changed).
int GenerateKeyPair(std::string* cert_pem);

// Makes a new key pair and certificate beside the identity in force: the
// staged copies (staged_path) of keystore/enc_private_key, keystore/key.hash,
// keystore/pdHash.hash, last_acces_time_file, cert/public/DevPubKey and the
// node file. The key in force stays readable until commit_staged_identity.
// cert_pem receives the certificate. 0 or -1.
int stage_key_pair(std::string* cert_pem);

// Makes the key pair and certificate (mkcert with 2048 bits, serial 0 and
// DEV_PUB_KEY_VALIDITY minutes), writes the staged cert/public/DevPubKey.
// private_pem receives the unencrypted PKCS#8 PEM, cert_pem the certificate. 0 or -1.
int RSA_Generate_key(Secret* private_pem, std::string* cert_pem);

// ---------------------------------------------------------------- identity commit
// The device's identity is the keystore, the node file, cert/public/DevPubKey,
// the signed certificate cert/public/signed_mc.cer, dc in config.ini with its
// seal, and the marker App_Vexo. A new identity is written beside the one in
// force (each file's staged copy) and put in place as one step: a commit
// record (keystore/identity.commit) is written, every staged file is renamed
// over its target, and the record is removed. A crash before the record leaves
// the old identity, after it recover_staged_identity completes the new one.
// REQUIRES for all of them: the scanner lock (Key_Rotation, a forced rotation
// and start-up hold it).

// The staged copy of an identity file: path followed by ".staged".
std::string staged_path(const std::string& path);
// Puts every staged identity file in place. 0, or -1 when the record cannot
// be written (nothing changed) or a rename failed (the record stays, and the
// next start-up completes the change).
int commit_staged_identity();
// Removes every staged identity file.
void discard_staged_identity();
// Completes a commit that a crash cut short, else removes staged files that
// were never committed. Run at start-up and before a new identity is staged.
void recover_staged_identity();
// 0 when signed_der (DER) is a certificate for the key of device_cert_pem, the
// device certificate made with it; -1 otherwise.
int signed_cert_for_key(const std::string& signed_der, const std::string& device_cert_pem);

// Self-signed v3 certificate over a new RSA key of `bits` bits (exponent
// 65537), signed with MD5 with RSA, valid from now for `minutes` minutes.
// On success *cert and *pkey own new objects (X509_free / EVP_PKEY_free);
// on failure both are left null. 0 or -1.
int mkcert(x509_st** cert, evp_pkey_st** pkey, int bits, int serial, long minutes);

// Makes a new staged node file, then derives the password from the first
// adapter's address; writes the staged keystore/pdHash.hash. 0 or -1 (also
// for an rdsId outside the node-file table).
int GetPasswordToEncPrivateKey(std::array<std::uint8_t, 32>* password);

// Derives the password again and checks the keystore on the way. 0; -1
// failure (also for an unknown rdsId); -100 tampering or a foreign computer:
// last_acces_time_file missing or not matching the key file's access time,
// no adapter whose address hashes to keystore/pdHash.hash, or no node file.
int GetPasswordToDecPrivateKey(std::array<std::uint8_t, 32>* password);

// Reads and decrypts the device private key (PEM) into *pem, which is left
// empty on failure; the plain key never lies outside a Secret. 0; -1 failure; -100 the key
// was just replaced by a forced key rotation. Tampering, a key that does not
// decrypt or does not match key.hash, and a missing node file all force the
// rotation. REQUIRES: the caller holds the scanner lock; the forced rotation
// runs under that hold and never releases it, whatever its outcome.
int GetDevicePrivateKeyFromFile(Secret* pem);

// Creates the node file (create-new, owner-only; missing folders are made)
// and writes its dynamic key text into key. 0 or -1.
int GetDynamickey_For_Encryption(const std::string& node_path, std::string* key);
// Opens the existing node file and writes the same dynamic key text. 0 or -1.
int GetDynamickey_For_Decryption(const std::string& node_path, std::string* key);

// The 32-byte digest of the service's own program file: SHA-256 of the file
// that holds this library's code. 0 or -1.
int GetHashRDservice(std::array<std::uint8_t, 32>* digest);
// Makes GetHashRDservice digest another file: the provisioning tool builds a
// keystore for the library installed beside it. An empty path restores the default.
void set_service_module_path(const std::string& path);

// Base folder of the node files: the identity record's appdata (APPDATA as
// start-up read it), else platform::appdata_dir().
std::string keystore_node_base();

// Node file for an rdsId, for example "<base>/korvane/QDX.WIN.002/Vexo_002_Node.txt";
// empty for an identifier outside the table.
std::string keystore_node_file(const std::string& rds_id);

// the working-folder prefix followed by rel, e.g. "./keystore/key.hash".
std::string keystore_file_path(const char* rel);

#endif  // VEXO_MGMT_CORE_KEYSTORE_H
