#pragma once
// Keys and certificates for pairing and for the TLS side of lockdown sessions.

#include <openssl/ssl.h>

#include <string>

namespace devsim {

// PEM texts of one RSA key and a certificate for it.
struct Identity
{
    std::string keyPem;  // "RSA PRIVATE KEY"
    std::string certPem; // "CERTIFICATE"
};

// A fresh RSA key (PEM, traditional form); empty on failure.
std::string generateRsaKeyPem(int bits = 2048);
// The public half of a private key, as "RSA PUBLIC KEY" PEM (what a device reports as
// DevicePublicKey).
std::string publicKeyPemOf(const std::string& privateKeyPem);
// A certificate for subjectKeyPem, signed by issuerKeyPem (self-signed when both are the
// same key); valid for ten years.
std::string makeCertificatePem(const std::string& subjectKeyPem, const std::string& issuerKeyPem,
                               const std::string& commonName);
// A TLS server context presenting the certificate with the key.
SSL_CTX* makeServerContext(const Identity& identity);

std::string randomUuid(); // "XXXXXXXX-XXXX-4XXX-YXXX-XXXXXXXXXXXX", upper case
std::string randomHex(int bytes);

} // namespace devsim
