// emhost_docgen: writes em-host's manual page and bash completion at build
// time, from the same tables em-host's --help and parser use.
//
//   emhost_docgen --man FILE --completion FILE --date YYYY-MM-DD
#include "host/emhost/cli/Docs.h"

#include <cstdio>
#include <fstream>
#include <string>

namespace {

bool Write(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (out) return true;
  std::fprintf(stderr, "emhost_docgen: cannot write %s\n", path.c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  std::string man;
  std::string completion;
  std::string date;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    std::string* value = option == "--man"          ? &man
                         : option == "--completion" ? &completion
                         : option == "--date"       ? &date
                                                    : nullptr;
    if (value == nullptr) break;
    *value = argv[i + 1];
  }
  if (man.empty() || completion.empty() || date.empty() || argc != 7) {
    std::fprintf(stderr, "usage: emhost_docgen --man FILE --completion FILE --date YYYY-MM-DD\n");
    return 2;
  }
  return Write(man, EmHostManPage(date)) && Write(completion, EmHostBashCompletion()) ? 0 : 1;
}
