// What the em-host unit suites build file-transfer requests and digests
// with: a 0xF052 request as the module builds it, and the SHA-256 of bytes.
#pragma once

#include "host/emhost/bmc/Sha256.h"
#include "message/SipJson.h"

#include <gtest/gtest.h>

#include <string>

namespace korvex_test {

inline std::string Sha256Hex(const std::string& data) {
  CSha256 digest;
  digest.Update(data.data(), data.size());
  return digest.FinalHex();
}

// timeout 0 leaves "TO" out, as the module does.
inline void BuildTransfer(SipJson& request, const std::string& local, const std::string& bmc,
                          unsigned int timeout) {
  std::string text = "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522";
  if (timeout != 0) text += ",\"TO\":" + std::to_string(timeout);
  text += ",\"DA\":{\"FileType\":2,\"LocalFilePath\":\"" + local + "\",\"BmcFilePath\":\"" + bmc +
          "\"}}]}}";
  ASSERT_TRUE(request.FromJson(text.data(), text.size()));
}

}  // namespace korvex_test
