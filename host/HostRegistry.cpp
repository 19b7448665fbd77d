// The stand-alone host's configuration store: CRegistry over a process-wide
// tree of keys with named string values, filled in memory or from a
// registry file (format and error codes: docs/REGISTRY.md).
//
// Keys are stored by their full path; a key also exists when only keys
// below it were given (the file names "[A\B\C]", so "A" and "A\B" exist
// too). Paths and value names are compared byte for byte, case-sensitive.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "util/Fd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>

// The local-machine root. Modules only compare and pass the pointer.
class CRegistryNode {
 public:
  const char* m_Name;
};

namespace {

CRegistryNode g_LocalMachine{"LocalMachine"};

using CValues = std::map<std::string, std::string>;
using CKeys = std::map<std::string, CValues>;

struct CStore {
  std::mutex m_Mutex;
  CKeys m_Keys;
};

CStore& Store() {
  static CStore* const store = new CStore;
  return *store;
}

// Last-error codes (CRegistry::m_LastError and the results of Open and
// QueryValue), numbered after the host platform's own codes.
constexpr long kOk = 0;
constexpr long kKeyNotFound = 2;
constexpr long kValueNotFound = 3;
constexpr long kInvalidHandle = 6;
constexpr long kInvalidParameter = 87;

const char* const kProductPrefix = "SOFTWARE\\Halvane\\";

// A well-formed key path: "" (the root itself) or non-empty components
// joined by single backslashes.
bool ValidKeyPath(const std::string& path) {
  if (path.empty()) return true;
  if (path.front() == '\\' || path.back() == '\\') return false;
  return path.find("\\\\") == std::string::npos;
}

// Store lock held.
bool KeyExistsLocked(const CKeys& keys, const std::string& path) {
  if (path.empty()) return true;
  if (keys.find(path) != keys.end()) return true;
  const std::string below = path + "\\";
  auto next = keys.lower_bound(below);
  return next != keys.end() && next->first.compare(0, below.size(), below) == 0;
}

// ----- registry file parsing ----------------------------------------------

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string Trim(const std::string& text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

// Reads the file whole; false with the reason in *why.
bool ReadFile(const char* path, std::string& content, std::string& why) {
  const korvex::CFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) {
    why = std::strerror(errno);
    return false;
  }
  constexpr std::size_t kLimit = 16u * 1024u * 1024u;
  const int error = korvex::ReadToEnd(fd.Get(), content, kLimit);
  if (error != 0) {
    why = std::strerror(error);
    return false;
  }
  if (content.size() > kLimit) {
    why = "file larger than 16 MiB";
    return false;
  }
  return true;
}

// The text of a quoted value: body starts after the opening quote. False
// with *why set when the quote is not closed, an escape is unknown or
// anything but blanks follows the closing quote.
bool Unquote(const std::string& body, std::string& value, std::string& why) {
  value.clear();
  std::size_t i = 0;
  for (; i < body.size(); ++i) {
    const char c = body[i];
    if (c == '"') break;
    if (c != '\\') {
      value.push_back(c);
      continue;
    }
    if (++i == body.size()) {
      why = "unterminated quoted value";
      return false;
    }
    switch (body[i]) {
      case '\\':
        value.push_back('\\');
        break;
      case '"':
        value.push_back('"');
        break;
      case 'n':
        value.push_back('\n');
        break;
      case 't':
        value.push_back('\t');
        break;
      case 'r':
        value.push_back('\r');
        break;
      default:
        why = std::string("unknown escape \"\\") + body[i] + "\" in quoted value";
        return false;
    }
  }
  if (i == body.size()) {
    why = "unterminated quoted value";
    return false;
  }
  for (++i; i < body.size(); ++i) {
    if (!IsBlank(body[i])) {
      why = "text after the closing quote";
      return false;
    }
  }
  return true;
}

// The parser's place in the file: the key that values go into and the
// line being read, for the error text.
struct CParse {
  const char* m_Path;
  CKeys& m_Keys;
  std::string& m_Error;
  std::string m_CurrentKey;
  bool m_InKey = false;
  std::size_t m_LineNumber = 0;

  bool Fail(const std::string& what) {
    m_Error = std::string(m_Path) + ":" + std::to_string(m_LineNumber) + ": " + what;
    return false;
  }
};

// "[key path]"
bool ParseKeyLine(const std::string& line, CParse& parse) {
  const std::size_t close = line.find(']');
  if (close == std::string::npos) return parse.Fail("missing \"]\" after key path");
  if (!Trim(line.substr(close + 1)).empty()) return parse.Fail("text after \"]\"");
  const std::string key = Trim(line.substr(1, close - 1));
  if (key.empty()) return parse.Fail("empty key path");
  if (!ValidKeyPath(key)) {
    return parse.Fail("malformed key path \"" + key + "\" (empty component)");
  }
  parse.m_CurrentKey = key;
  parse.m_InKey = true;
  parse.m_Keys[key];  // a key without values exists too
  return true;
}

// "name = value" or "name = \"quoted value\""
bool ParseValueLine(const std::string& line, CParse& parse) {
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) {
    return parse.Fail("expected \"[key path]\" or \"name = value\"");
  }
  const std::string name = Trim(line.substr(0, equals));
  if (name.empty()) return parse.Fail("value without a name");
  if (!parse.m_InKey) return parse.Fail("value \"" + name + "\" before the first [key path]");
  std::string value = Trim(line.substr(equals + 1));
  if (!value.empty() && value[0] == '"') {
    std::string why;
    std::string unquoted;
    if (!Unquote(value.substr(1), unquoted, why)) return parse.Fail(why);
    value = std::move(unquoted);
  }
  CValues& values = parse.m_Keys[parse.m_CurrentKey];
  if (values.find(name) != values.end()) {
    return parse.Fail("duplicate value \"" + name + "\" in key \"" + parse.m_CurrentKey + "\"");
  }
  values.emplace(name, std::move(value));
  return true;
}

bool ParseLine(std::string raw, CParse& parse) {
  if (!raw.empty() && raw.back() == '\r') raw.pop_back();
  if (raw.find('\0') != std::string::npos) return parse.Fail("NUL byte in line");
  const std::string line = Trim(raw);
  if (line.empty() || line[0] == '#' || line[0] == ';') return true;
  return line[0] == '[' ? ParseKeyLine(line, parse) : ParseValueLine(line, parse);
}

bool ParseRegistry(const std::string& content, const char* path, CKeys& keys, std::string& error) {
  CParse parse{path, keys, error, std::string(), false, 0};
  std::size_t start = 0;
  while (start < content.size()) {
    std::size_t end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    ++parse.m_LineNumber;
    if (!ParseLine(content.substr(start, end - start), parse)) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

CRegistryNode* CRegistry::MLocalMachine = &g_LocalMachine;

CRegistry::CRegistry() : m_LastError(0), m_pOpenKey(nullptr) {}

CRegistry::~CRegistry() { Close(); }

int CRegistry::GetProductRegistryRoot(std::string& key, const char* productName) {
  if (productName == nullptr || *productName == '\0') return 0;
  if (std::strchr(productName, '\\') != nullptr) return 0;  // one component only
  const std::string root = halvane::ProductRootKey(productName);
  CStore& store = Store();
  std::lock_guard<std::mutex> lock(store.m_Mutex);
  if (!KeyExistsLocked(store.m_Keys, root)) return 0;
  key = root;
  return 1;
}

// access is accepted for the host's signature; the store is readable to all.
long CRegistry::Open(const char* keyPath, CRegistryNode* root, int /*access*/) {
  Close();
  long result = kOk;
  if (root != MLocalMachine) {
    result = kInvalidHandle;
  } else if (keyPath == nullptr || !ValidKeyPath(keyPath)) {
    result = kInvalidParameter;
  } else {
    CStore& store = Store();
    std::lock_guard<std::mutex> lock(store.m_Mutex);
    if (KeyExistsLocked(store.m_Keys, keyPath)) {
      m_pOpenKey = new std::string(keyPath);
    } else {
      result = kKeyNotFound;
    }
  }
  m_LastError = static_cast<unsigned int>(result);
  return result;
}

// node null reads from the opened key; MLocalMachine reads from the root
// (which holds no values); the opened key's own handle is accepted too.
long CRegistry::QueryValue(std::string& value, const char* valueName, CRegistryNode* node) {
  long result = kOk;
  const std::string* keyPath = nullptr;
  static const std::string rootPath;
  if (node == nullptr || node == static_cast<CRegistryNode*>(m_pOpenKey)) {
    keyPath = static_cast<const std::string*>(m_pOpenKey);
  } else if (node == MLocalMachine) {
    keyPath = &rootPath;
  }
  if (keyPath == nullptr) {
    result = kInvalidHandle;
  } else if (valueName == nullptr) {
    result = kInvalidParameter;
  } else {
    CStore& store = Store();
    std::lock_guard<std::mutex> lock(store.m_Mutex);
    auto key = store.m_Keys.find(*keyPath);
    if (key == store.m_Keys.end()) {
      // The key may have lost its values (ClearRegistry, a new file) since
      // it was opened; one that exists only through its subkeys has none.
      result = KeyExistsLocked(store.m_Keys, *keyPath) ? kValueNotFound : kKeyNotFound;
    } else {
      auto found = key->second.find(valueName);
      if (found == key->second.end()) {
        result = kValueNotFound;
      } else {
        value = found->second;
      }
    }
  }
  m_LastError = static_cast<unsigned int>(result);
  return result;
}

void CRegistry::Close() {
  delete static_cast<std::string*>(m_pOpenKey);
  m_pOpenKey = nullptr;
}

namespace halvane {

void ClearRegistry() {
  CStore& store = Store();
  std::lock_guard<std::mutex> lock(store.m_Mutex);
  store.m_Keys.clear();
}

void SetRegistryValue(const std::string& keyPath, const std::string& valueName,
                      const std::string& value) {
  if (keyPath.empty() || !ValidKeyPath(keyPath)) return;  // no such key can ever be opened
  CStore& store = Store();
  std::lock_guard<std::mutex> lock(store.m_Mutex);
  store.m_Keys[keyPath][valueName] = value;
}

bool LoadRegistryFile(const char* path, std::string* error) {
  std::string why;
  if (path == nullptr || *path == '\0') {
    if (error != nullptr) *error = "registry file: no path given";
    return false;
  }
  std::string content;
  if (!ReadFile(path, content, why)) {
    if (error != nullptr) *error = std::string(path) + ": cannot read registry file: " + why;
    return false;
  }
  CKeys keys;
  if (!ParseRegistry(content, path, keys, why)) {
    if (error != nullptr) *error = why;
    return false;
  }
  CStore& store = Store();
  std::lock_guard<std::mutex> lock(store.m_Mutex);
  store.m_Keys.swap(keys);
  return true;
}

std::string ProductRootKey(const char* productName) {
  return std::string(kProductPrefix) + (productName != nullptr ? productName : "");
}

}  // namespace halvane
