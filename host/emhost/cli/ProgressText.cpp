// Formatting of a transfer's progress.
#include "host/emhost/cli/ProgressText.h"

#include <cstdio>

std::string ByteCount(std::uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof(text), "%llu B", static_cast<unsigned long long>(bytes));
    return text;
  }
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < sizeof(kUnits) / sizeof(kUnits[0])) {
    value /= 1024.0;
    ++unit;
  }
  std::snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string TransferProgressText(std::uint64_t copied, std::uint64_t total, double seconds) {
  std::string text = ByteCount(copied);
  if (total != 0) {
    const unsigned percent = static_cast<unsigned>(copied >= total ? 100 : copied * 100 / total);
    text += " of " + ByteCount(total) + " (" + std::to_string(percent) + " %)";
  }
  if (seconds > 0.0) {
    char rate[32];
    // Decimal megabytes, the unit disks are rated in.
    std::snprintf(rate, sizeof(rate), ", %.0f MB/s", static_cast<double>(copied) / 1e6 / seconds);
    text += rate;
  }
  return text;
}
