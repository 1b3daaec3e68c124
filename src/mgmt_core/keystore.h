// Device keystore: the device RSA key pair and self-signed certificate, the
// private key stored encrypted under a password bound to this installation,
// and the tamper checks made on every read.
//
// REQUIRES for the readers: the caller holds the scanner lock (Lock_Semaphore).
#ifndef VEXO_MGMT_CORE_KEYSTORE_H
#define VEXO_MGMT_CORE_KEYSTORE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// Makes a new key pair and certificate, writes keystore/enc_private_key,
// keystore/key.hash, keystore/pdHash.hash, last_acces_time_file and
// cert/public/DevPubKey. cert_pem receives the certificate. 0 or -1.
int GenerateKeyPair(std::string* cert_pem);

// Reads and decrypts the device private key (PEM). 0; -1 failure; -100 the key
// was just replaced by a forced key rotation.
int GetDevicePrivateKeyFromFile(std::string* pem);

// The 6-byte address of the first network adapter. 0 or -1.
int GetMAC(std::array<std::uint8_t, 6>* mac);

// The adapters' 6-byte addresses in the platform's order. 0 (the list may be
// empty) or 1 when memory runs out.
int GetAdapterID(std::vector<std::array<std::uint8_t, 6>>* ids);

// The 32-byte digest of the service's own program file.
int GetHashRDservice(std::array<std::uint8_t, 32>* digest);

// Base folder of the node files (an absolute path); tests may move it.
std::string keystore_node_base();
void set_keystore_node_base_for_test(const std::string& dir);

#endif  // VEXO_MGMT_CORE_KEYSTORE_H
