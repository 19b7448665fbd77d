// The operator's output of em-host's commands (see Output.h).
#include "host/emhost/cli/Output.h"

#include <cstdio>
#include <unistd.h>

double SecondsSince(EmClock::time_point start) {
  return std::chrono::duration<double>(EmClock::now() - start).count();
}

std::string DurationText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f s", seconds);
  return text;
}

std::string AgeText(unsigned long long seconds) {
  struct CUnit {
    unsigned long long m_Seconds;
    const char* m_Name;
  };
  static const CUnit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
  for (std::size_t i = 0; i + 1 < sizeof(kUnits) / sizeof(kUnits[0]); ++i) {
    if (seconds < kUnits[i].m_Seconds) continue;
    const CUnit& next = kUnits[i + 1];
    return std::to_string(seconds / kUnits[i].m_Seconds) + " " + kUnits[i].m_Name + " " +
           std::to_string(seconds % kUnits[i].m_Seconds / next.m_Seconds) + " " + next.m_Name;
  }
  return std::to_string(seconds) + " s";
}

void Complain(const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "em-host: %s\n", text.c_str());
  std::fflush(stderr);
}

CProgress::CProgress(unsigned int heartbeatSec)
    : CProgress(heartbeatSec, ::isatty(STDOUT_FILENO) == 1) {}

CProgress::CProgress(unsigned int heartbeatSec, bool terminal)
    : m_Terminal(terminal), m_HeartbeatSec(heartbeatSec), m_NextBeat(heartbeatSec) {}

void CProgress::State(const std::string& line) {
  ClearTick();
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void CProgress::Tick(const std::string& text, double seconds, const std::string& detail) {
  if (!m_Terminal) {
    Heartbeat(text, seconds);
    return;
  }
  std::printf("\r%s... %d s%s%s\033[K", text.c_str(), static_cast<int>(seconds),
              detail.empty() ? "" : ", ", detail.c_str());
  std::fflush(stdout);
  m_Ticking = true;
}

void CProgress::ClearTick() {
  if (!m_Ticking) return;
  std::printf("\r\033[K");
  std::fflush(stdout);
  m_Ticking = false;
}

void CProgress::Heartbeat(const std::string& text, double seconds) {
  if (m_HeartbeatSec == 0 || seconds < m_NextBeat) return;
  std::printf("%s, %d s\n", text.c_str(), static_cast<int>(seconds));
  std::fflush(stdout);
  while (m_NextBeat <= seconds) m_NextBeat += m_HeartbeatSec;
}
