// The progress line of a transfer on a terminal: bytes, share and rate.
#pragma once

#include <cstdint>
#include <string>

// "1.2 GiB of 4.0 GiB (30 %), 850 MB/s": copied of total bytes after
// seconds. Without a total (0) the share is left out; before any time has
// passed, the rate.
std::string TransferProgressText(std::uint64_t copied, std::uint64_t total, double seconds);

// A byte count in the binary unit that keeps it short: "512 B", "3.4 MiB".
std::string ByteCount(std::uint64_t bytes);
