#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <cstdio>

#include "tests/support/testserver/testserver.h"

namespace testserver {
namespace {

template <typename T, void (*release)(T*)>
struct Freer {
  void operator()(T* object) const { release(object); }
};
using Certificate = std::unique_ptr<X509, Freer<X509, X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

File Create(const std::string& path, mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  return File(fd < 0 ? nullptr : fdopen(fd, "w"));
}

bool AddExtension(X509* certificate, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  const bool isAdded = extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return isAdded;
}

bool Describe(X509* certificate, const std::string& host, int startDays, int endDays) {
  unsigned char address[16];
  const bool isAddress =
      inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
  X509_NAME* subject = X509_get_subject_name(certificate);
  std::uint64_t number = 0;
  return X509_set_version(certificate, X509_VERSION_3) == 1 &&
         RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof(number)) == 1 &&
         ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number | 1) == 1 &&
         X509_time_adj_ex(X509_getm_notBefore(certificate), startDays, 0, nullptr) != nullptr &&
         X509_time_adj_ex(X509_getm_notAfter(certificate), endDays, 0, nullptr) != nullptr &&
         X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>("mediautil test server"), -1, -1, 0) == 1 &&
         X509_set_issuer_name(certificate, subject) == 1 &&
         AddExtension(certificate, NID_basic_constraints, "critical,CA:TRUE") &&
         AddExtension(certificate, NID_subject_key_identifier, "hash") &&
         AddExtension(certificate, NID_subject_alt_name, (isAddress ? "IP:" : "DNS:") + host);
}

}  // namespace

bool MakeCertificate(const std::string& dir, const std::string& name, const std::string& host, int startDays,
                     int endDays) {
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate(X509_new());
  if (key == nullptr || certificate == nullptr || X509_set_pubkey(certificate.get(), key.get()) != 1 ||
      !Describe(certificate.get(), host, startDays, endDays) ||
      X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0) {
    return false;
  }
  const File certFile = Create(dir + "/" + name + ".crt", 0644);
  const File keyFile = Create(dir + "/" + name + ".key", 0600);
  return certFile != nullptr && keyFile != nullptr && PEM_write_X509(certFile.get(), certificate.get()) == 1 &&
         PEM_write_PrivateKey(keyFile.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
}

}  // namespace testserver
