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

struct x509_st;     // OpenSSL's X509
struct evp_pkey_st; // OpenSSL's EVP_PKEY

// Makes a new key pair and certificate, writes keystore/enc_private_key,
// keystore/key.hash, keystore/pdHash.hash, last_acces_time_file and
// cert/public/DevPubKey (and a new node file). cert_pem receives the
// certificate. 0 or -1.
int GenerateKeyPair(std::string* cert_pem);

// Makes the key pair and certificate (mkcert with 2048 bits, serial 0 and
// DEV_PUB_KEY_VALIDITY minutes), writes cert/public/DevPubKey. private_pem
// receives the unencrypted PKCS#8 PEM, cert_pem the certificate. 0 or -1.
int RSA_Generate_key(std::string* private_pem, std::string* cert_pem);

// Self-signed v3 certificate over a new RSA key of `bits` bits (exponent
// 65537), signed with MD5 with RSA, valid from now for `minutes` minutes.
// On success *cert and *pkey own new objects (X509_free / EVP_PKEY_free);
// on failure both are left null. 0 or -1.
int mkcert(x509_st** cert, evp_pkey_st** pkey, int bits, int serial, long minutes);

// Deletes and recreates the node file, then derives the password from the
// first adapter's address; writes keystore/pdHash.hash. 0 or -1 (also for an
// rdsId outside the node-file table).
int GetPasswordToEncPrivateKey(std::array<std::uint8_t, 32>* password);

// Derives the password again and checks the keystore on the way. 0; -1
// failure (also for an unknown rdsId); -100 tampering or a foreign computer:
// last_acces_time_file missing or not matching the key file's access time,
// no adapter whose address hashes to keystore/pdHash.hash, or no node file.
int GetPasswordToDecPrivateKey(std::array<std::uint8_t, 32>* password);

// Reads and decrypts the device private key (PEM). 0; -1 failure; -100 the key
// was just replaced by a forced key rotation. Tampering, a key that does not
// decrypt or does not match key.hash, and a missing node file all force the
// rotation: a rotation cut short by a crash leaves such a keystore.
// A tampered keystore starts a forced rotation, which releases the caller's
// scanner lock before asking for the rotation (the rotation takes it itself).
// If the rotation fails, or the lock cannot be taken again after it, the
// result is -1 and the lock stays RELEASED; on every other result (0, -100 and
// the other -1 paths) the caller still holds it. *lock_released (when given)
// tells the -1 cases apart: true only when the lock is no longer held.
int GetDevicePrivateKeyFromFile(std::string* pem);
int GetDevicePrivateKeyFromFile(std::string* pem, bool* lock_released);

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

// Base folder of the node files: the test override, else the identity record's appdata,
// else platform::appdata_dir(). An empty dir removes the test override.
std::string keystore_node_base();
void set_keystore_node_base_for_test(const std::string& dir);

// Node file for an rdsId, for example "<base>/korvane/QDX.WIN.002/Vexo_002_Node.txt";
// empty for an identifier outside the table.
std::string keystore_node_file(const std::string& rds_id);

// the working-folder prefix followed by rel, e.g. "./keystore/key.hash".
std::string keystore_file_path(const char* rel);

#endif  // VEXO_MGMT_CORE_KEYSTORE_H
