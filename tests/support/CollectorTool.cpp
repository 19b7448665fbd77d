// The fake collector's shell body.
#include "tests/support/CollectorTool.h"

namespace korvex_test {

std::string CollectorBody(const std::string& scratch, const std::string& ready,
                          const std::string& marker, bool talks) {
  const std::string sleeper = "sleep " + marker;
  std::string body = "mkdir -p '" + scratch + "' && echo data > '" + scratch + "/big'\n";
  body += "trap 'rm -rf \"" + scratch + "\"; exit 143' TERM\n";
  if (talks) {
    body +=
        "echo '{\"id\":1,\"event\":\"reply\",\"message\":\"from the tool\"}'\n"
        "read line && echo \"tool read: $line\"\n";
  }
  body += "timeout 300 " + sleeper + " &\n";
  body += "setsid sh -c '" + sleeper + "' &\n";
  body += "( " + sleeper + " & )\n";
  body += sleeper + " &\n";
  body += "touch '" + ready + "'\nwait\n";
  return body;
}

}  // namespace korvex_test
