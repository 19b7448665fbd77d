// A fake collector that behaves like a real one, for tests of how a run
// ends: it makes a scratch directory that only its TERM trap removes, starts
// a child under timeout (a process group of its own), a child in a new
// session, a grandchild reparented away from it and a sleeper it waits
// for, then touches a ready file. Every sleeper of its tree carries a
// marker on its command line ("sleep MARKER"), which is how a test finds
// the tree in /proc.
#pragma once

#include <string>

namespace korvex_test {

// The shell body (without the #! line). talks: it also prints a JSON line
// and reads a line of its input first, as a tool that would disturb a
// protocol stream it was wrongly given.
std::string CollectorBody(const std::string& scratch, const std::string& ready,
                          const std::string& marker, bool talks = false);

}  // namespace korvex_test
