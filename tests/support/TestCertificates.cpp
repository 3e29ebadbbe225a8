#include "tests/support/TestCertificates.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace kestrune::support {

namespace {

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("making a certificate failed: ") + what);
}

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

File openNew(const std::filesystem::path& path) {
  File file(std::fopen(path.c_str(), "wx"), &std::fclose);
  require(file != nullptr, "cannot create the file");
  return file;
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  require(extension != nullptr, "extension");
  const int added = X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
  require(added == 1, "add extension");
}

void setName(X509_NAME* name, const char* commonName) {
  const auto* text = reinterpret_cast<const unsigned char*>(commonName);
  require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1, "name");
}

// A certificate for `key` without issuer, extensions and signature.
Certificate begin(EVP_PKEY* key, long serial, const char* commonName,
                  const CertificateRequest& request) {
  Certificate certificate(X509_new(), &X509_free);
  constexpr long kVersion3 = 2;
  X509_set_version(certificate.get(), kVersion3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()),
                  static_cast<long>(request.notBefore.count()));
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()),
                  static_cast<long>(request.notAfter.count()));
  require(X509_set_pubkey(certificate.get(), key) == 1, "key");
  setName(X509_get_subject_name(certificate.get()), commonName);
  return certificate;
}

void sign(X509* certificate, EVP_PKEY* key) {
  require(X509_sign(certificate, key, EVP_sha256()) > 0, "sign");
}

}  // namespace

struct TestAuthority::Identity {
  Key key{EVP_EC_gen("P-256"), &EVP_PKEY_free};
  Certificate certificate{nullptr, &X509_free};
};

TestAuthority::TestAuthority(std::filesystem::path directory)
    : directory_(std::move(directory)),
      certificateFile_(directory_ / "authority.pem"),
      identity_(std::make_unique<Identity>()) {
  identity_->certificate = begin(identity_->key.get(), 1, "Test authority", {});
  X509* own = identity_->certificate.get();
  require(X509_set_issuer_name(own, X509_get_subject_name(own)) == 1, "issuer");
  addExtension(own, own, NID_basic_constraints, "critical,CA:TRUE");
  addExtension(own, own, NID_key_usage, "critical,keyCertSign");
  addExtension(own, own, NID_subject_key_identifier, "hash");
  sign(own, identity_->key.get());
  require(PEM_write_X509(openNew(certificateFile_).get(), own) == 1, "write");
}

TestAuthority::~TestAuthority() = default;

HttpFixtureOptions::TLS TestAuthority::issue(const CertificateRequest& request) {
  const std::string name = "server-" + std::to_string(++issued_);
  HttpFixtureOptions::TLS files{directory_ / (name + ".pem"), directory_ / (name + ".key")};
  const Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const Certificate certificate = begin(key.get(), 1 + issued_, "Test server", request);
  X509* authority = identity_->certificate.get();
  require(X509_set_issuer_name(certificate.get(), X509_get_subject_name(authority)) == 1, "issuer");
  addExtension(certificate.get(), authority, NID_subject_alt_name, request.subjectAltName);
  addExtension(certificate.get(), authority, NID_authority_key_identifier, "keyid");
  sign(certificate.get(), identity_->key.get());
  require(PEM_write_X509(openNew(files.certificateFile).get(), certificate.get()) == 1, "write");
  require(PEM_write_PrivateKey(openNew(files.keyFile).get(), key.get(), nullptr, nullptr, 0,
                               nullptr, nullptr) == 1,
          "write key");
  return files;
}

}  // namespace kestrune::support
