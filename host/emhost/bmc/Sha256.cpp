// SHA-256 through OpenSSL's EVP interface.
#include "host/emhost/bmc/Sha256.h"

#include "util/Fd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdexcept>
#include <unistd.h>

CSha256::CSha256() : m_pContext(EVP_MD_CTX_new()) {
  if (m_pContext == nullptr || EVP_DigestInit_ex(m_pContext, EVP_sha256(), nullptr) != 1) {
    EVP_MD_CTX_free(m_pContext);
    throw std::runtime_error("libcrypto cannot set up a SHA-256 digest");
  }
}

CSha256::~CSha256() { EVP_MD_CTX_free(m_pContext); }

void CSha256::Update(const void* data, std::size_t length) {
  if (EVP_DigestUpdate(m_pContext, data, length) != 1) {
    throw std::runtime_error("SHA-256 digest update failed");
  }
}

std::string CSha256::FinalHex() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(m_pContext, digest, &length) != 1) {
    throw std::runtime_error("SHA-256 digest failed");
  }
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2u * length);
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0x0F]);
  }
  return hex;
}

bool Sha256OfFile(const std::string& path, std::string& hex, std::string* error) {
  const korvex::CFd fd(KORVEX_RETRY(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (!fd.Valid()) {
    if (error != nullptr) *error = path + ": " + std::strerror(errno);
    return false;
  }
  CSha256 digest;
  static constexpr std::size_t kChunk = 1u << 16;
  std::string buffer(kChunk, '\0');
  for (;;) {
    const ssize_t got = KORVEX_RETRY(::read(fd.Get(), &buffer[0], kChunk));
    if (got < 0) {
      if (error != nullptr) *error = path + ": " + std::strerror(errno);
      return false;
    }
    if (got == 0) break;
    digest.Update(buffer.data(), static_cast<std::size_t>(got));
  }
  hex = digest.FinalHex();
  return true;
}
