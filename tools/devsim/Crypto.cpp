// libimobiledevice reads the device's public key as a PKCS#1 "RSA PUBLIC KEY" and the
// pair record's keys as traditional RSA PEM; the legacy RSA calls below produce those.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "Crypto.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>

namespace devsim {

namespace {

std::string bioText(BIO* bio)
{
    char* data = nullptr;
    long length = BIO_get_mem_data(bio, &data);
    return (data && length > 0) ? std::string(data, static_cast<size_t>(length)) : std::string();
}

EVP_PKEY* readKey(const std::string& pem)
{
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return key;
}

} // namespace

std::string generateRsaKeyPem(int bits)
{
    EVP_PKEY* key = EVP_RSA_gen(static_cast<unsigned>(bits));
    if (!key)
        return {};
    BIO* bio = BIO_new(BIO_s_mem());
    std::string pem;
    if (PEM_write_bio_PrivateKey_traditional(bio, key, nullptr, nullptr, 0, nullptr, nullptr) == 1)
        pem = bioText(bio);
    BIO_free(bio);
    EVP_PKEY_free(key);
    return pem;
}

std::string publicKeyPemOf(const std::string& privateKeyPem)
{
    EVP_PKEY* key = readKey(privateKeyPem);
    if (!key)
        return {};
    RSA* rsa = EVP_PKEY_get1_RSA(key);
    std::string pem;
    if (rsa) {
        BIO* bio = BIO_new(BIO_s_mem());
        if (PEM_write_bio_RSAPublicKey(bio, rsa) == 1)
            pem = bioText(bio);
        BIO_free(bio);
        RSA_free(rsa);
    }
    EVP_PKEY_free(key);
    return pem;
}

std::string makeCertificatePem(const std::string& subjectKeyPem, const std::string& issuerKeyPem,
                               const std::string& commonName)
{
    EVP_PKEY* subject = readKey(subjectKeyPem);
    EVP_PKEY* issuer = readKey(issuerKeyPem);
    std::string pem;
    X509* cert = X509_new();
    if (subject && issuer && cert) {
        X509_set_version(cert, 2);
        unsigned char serial[8];
        RAND_bytes(serial, sizeof serial);
        BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
        BN_set_negative(bn, 0);
        BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert));
        BN_free(bn);
        X509_gmtime_adj(X509_getm_notBefore(cert), 0);
        X509_gmtime_adj(X509_getm_notAfter(cert), 60L * 60 * 24 * 365 * 10);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                   -1, 0);
        X509_set_issuer_name(cert, name);
        X509_set_pubkey(cert, subject);
        if (X509_sign(cert, issuer, EVP_sha256()) > 0) {
            BIO* bio = BIO_new(BIO_s_mem());
            if (PEM_write_bio_X509(bio, cert) == 1)
                pem = bioText(bio);
            BIO_free(bio);
        }
    }
    X509_free(cert);
    EVP_PKEY_free(subject);
    EVP_PKEY_free(issuer);
    ERR_clear_error();
    return pem;
}

SSL_CTX* makeServerContext(const Identity& identity)
{
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (!context)
        return nullptr;
    // Hosts use old key sizes and accept anything; do not be stricter than a device.
    SSL_CTX_set_security_level(context, 0);
    SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
    BIO* bio = BIO_new_mem_buf(identity.certPem.data(), static_cast<int>(identity.certPem.size()));
    X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    EVP_PKEY* key = readKey(identity.keyPem);
    bool ok = cert && key && SSL_CTX_use_certificate(context, cert) == 1 &&
              SSL_CTX_use_PrivateKey(context, key) == 1;
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!ok) {
        ERR_clear_error();
        SSL_CTX_free(context);
        return nullptr;
    }
    return context;
}

std::string randomHex(int bytes)
{
    std::string out;
    unsigned char buffer[64];
    while (bytes > 0) {
        int n = bytes > 64 ? 64 : bytes;
        RAND_bytes(buffer, n);
        for (int i = 0; i < n; ++i) {
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02X", buffer[i]);
            out += hex;
        }
        bytes -= n;
    }
    return out;
}

std::string randomUuid()
{
    std::string hex = randomHex(16);
    hex[12] = '4';
    static const char variants[] = "89AB";
    hex[16] = variants[static_cast<unsigned char>(hex[17]) % 4];
    return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
           hex.substr(16, 4) + "-" + hex.substr(20, 12);
}

} // namespace devsim
