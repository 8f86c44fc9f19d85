#include <arpa/inet.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

#include "tests/support/testserver/stream.h"

namespace testserver {
namespace {

bool AddExtension(X509* certificate, int nid, const std::string& value) {
  const std::shared_ptr<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str()),
                                                  X509_EXTENSION_free);
  return extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1;
}

// Self-signed, and its own authority.
bool Fill(X509* certificate, EVP_PKEY* key, const Options& options) {
  unsigned char address[4];
  const bool isAddress = inet_pton(AF_INET, options.certHost.c_str(), address) == 1;
  X509_NAME* subject = X509_get_subject_name(certificate);
  const auto* name = reinterpret_cast<const unsigned char*>("mediautil test server");
  return X509_set_version(certificate, X509_VERSION_3) == 1 && X509_set_pubkey(certificate, key) == 1 &&
         ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1) == 1 &&
         X509_time_adj_ex(X509_getm_notBefore(certificate), options.certStart, 0, nullptr) != nullptr &&
         X509_time_adj_ex(X509_getm_notAfter(certificate), options.certEnd, 0, nullptr) != nullptr &&
         X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, name, -1, -1, 0) == 1 &&
         X509_set_issuer_name(certificate, subject) == 1 &&
         AddExtension(certificate, NID_basic_constraints, "critical,CA:TRUE") &&
         AddExtension(certificate, NID_subject_alt_name, (isAddress ? "IP:" : "DNS:") + options.certHost) &&
         X509_sign(certificate, key, EVP_sha256()) != 0;
}

bool Write(X509* certificate, const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "w");
  const bool isWritten = file != nullptr && PEM_write_X509(file, certificate) == 1;
  return file != nullptr && std::fclose(file) == 0 && isWritten;
}

}  // namespace

std::shared_ptr<SSL_CTX> MakeTlsContext(const Options& options) {
  if (options.certFile.empty()) return nullptr;
  const std::shared_ptr<EVP_PKEY> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::shared_ptr<X509> certificate(X509_new(), X509_free);
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (!Fill(certificate.get(), key.get(), options) || !Write(certificate.get(), options.certFile) ||
      SSL_CTX_use_certificate(context.get(), certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1) {
    throw std::runtime_error("cannot make the certificate " + options.certFile);
  }
  if (options.tls11) {
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), TLS1_1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION);
  }
  return context;
}

}  // namespace testserver
