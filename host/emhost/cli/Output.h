// What em-host writes for the operator while a command runs: complaints on
// standard error, and the progress of long waits on standard output (a
// line rewritten in place on a terminal; state lines and heartbeats on a
// pipe or file). The tool's own output never comes here (it goes to the
// tool log).
#pragma once

#include <chrono>
#include <string>

using EmClock = std::chrono::steady_clock;

double SecondsSince(EmClock::time_point start);
// "12.3 s"
std::string DurationText(double seconds);
// How long ago something happened, in the two largest units: "42 s",
// "5 min 3 s", "2 h 5 min", "3 d 4 h".
std::string AgeText(unsigned long long seconds);
// "em-host: TEXT" on standard error, after what standard output holds.
void Complain(const std::string& text);

class CProgress {
 public:
  // heartbeatSec: on a pipe or file, a line this often while a wait goes
  // on (0: none). terminal: rewrite one line instead (default: whether
  // standard output is a terminal).
  explicit CProgress(unsigned int heartbeatSec = 0);
  CProgress(unsigned int heartbeatSec, bool terminal);

  // A change of state, one line of its own.
  void State(const std::string& line);
  // The wait goes on after seconds; detail is shown on a terminal only.
  void Tick(const std::string& text, double seconds, const std::string& detail = "");
  // Removes a rewritten line before anything else is written.
  void ClearTick();

 private:
  void Heartbeat(const std::string& text, double seconds);

  bool m_Terminal;
  bool m_Ticking = false;
  unsigned int m_HeartbeatSec;
  double m_NextBeat;
};
