#include "support/test_authority.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

namespace qm::test {
namespace {

constexpr long kDaySeconds = 24L * 60 * 60;

template <auto Free>
struct Freed {
    template <typename Type>
    void operator()(Type* object) const {
        Free(object);
    }
};

using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;

void require(bool success, const char* what) {
    if (!success) throw std::runtime_error(what);
}

Key newKey() {
    Key key(EVP_EC_gen("P-256"));
    require(key != nullptr, "EVP_EC_gen");
    return key;
}

long nextSerial() {
    static std::atomic<long> serial = 1;
    return serial++;
}

void addExtension(X509* certificate, X509* issuer, int id, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>> extension(
        X509V3_EXT_conf_nid(nullptr, &context, id, value.c_str()));
    require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, value.c_str());
}

/// A certificate for `key` that still lacks extensions and signature. Issued by itself if there is no `issuer`.
Certificate newCertificate(EVP_PKEY* key, const std::string& commonName, X509* issuer) {
    Certificate certificate(X509_new());
    require(certificate != nullptr, "X509_new");
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), nextSerial());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDaySeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 30 * kDaySeconds);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer == nullptr ? certificate.get() : issuer));
    return certificate;
}

template <typename Write>
void writePem(const std::filesystem::path& file, Write write) {
    const std::unique_ptr<BIO, Freed<BIO_free>> bio(BIO_new_file(file.c_str(), "wb"));
    require(bio != nullptr && write(bio.get()) == 1, file.c_str());
}

void writeCertificate(const std::filesystem::path& file, X509* certificate) {
    writePem(file, [certificate](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

}  // namespace

struct TestAuthority::Keys {
    Key key = newKey();
    Certificate certificate = newCertificate(key.get(), "Test Authority " + std::to_string(nextSerial()), nullptr);
};

TestAuthority::TestAuthority() : certificateFile_(directory_ / "authority.pem"), keys_(std::make_unique<Keys>()) {
    X509* const certificate = keys_->certificate.get();
    addExtension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate, certificate, NID_key_usage, "critical,keyCertSign");
    addExtension(certificate, certificate, NID_subject_key_identifier, "hash");
    require(X509_sign(certificate, keys_->key.get(), EVP_sha256()) > 0, "X509_sign");
    writeCertificate(certificateFile_, certificate);
}

TestAuthority::~TestAuthority() = default;

TestIdentity TestAuthority::issue(const std::vector<std::string>& hostNames) const {
    std::string names;
    for (const auto& name : hostNames)
        names += (names.empty() ? "DNS:" : ",DNS:") + name;
    const Key key = newKey();
    X509* const issuer = keys_->certificate.get();
    const Certificate certificate = newCertificate(key.get(), "Test Server", issuer);
    addExtension(certificate.get(), issuer, NID_subject_alt_name, names);
    require(X509_sign(certificate.get(), keys_->key.get(), EVP_sha256()) > 0, "X509_sign");

    const std::string base = "server-" + std::to_string(nextSerial());
    TestIdentity identity{directory_ / (base + ".pem"), directory_ / (base + ".key")};
    writeCertificate(identity.certificateFile, certificate.get());
    writePem(identity.keyFile, [&key](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    return identity;
}

const TestAuthority& trustedAuthority() {
    static const TestAuthority authority;
    static const bool trusted = ::setenv("SSL_CERT_FILE", authority.certificateFile().c_str(), 1) == 0;
    require(trusted, "setenv");
    return authority;
}

}  // namespace qm::test
