// SHA-256 digests for the stand-in BMC: the checksum recorded beside every
// file it stores, and the check that the stored copy equals its source.
// The digest itself comes from OpenSSL's EVP interface (libcrypto).
#pragma once

#include <cstddef>
#include <string>

typedef struct evp_md_ctx_st EVP_MD_CTX;

class CSha256 {
 public:
  // Throws std::runtime_error when libcrypto cannot set up a digest.
  CSha256();
  ~CSha256();
  CSha256(const CSha256&) = delete;
  CSha256& operator=(const CSha256&) = delete;

  void Update(const void* data, std::size_t length);
  // The digest as 64 lower-case hex digits (the text sha256sum prints).
  // The object cannot be updated afterwards.
  std::string FinalHex();

 private:
  EVP_MD_CTX* m_pContext;
};

// Digest of a whole file; false with *error set when it cannot be read.
bool Sha256OfFile(const std::string& path, std::string& hex, std::string* error);
