// The one fact the benchmark and its trivial tool share: the environment
// variable that names the FIFO the tool stamps into. The tool cannot
// inherit a descriptor from the benchmark: the host starts every tool under
// a supervisor that closes all inherited descriptors from 3 up, but it
// passes the environment on.
#pragma once

namespace korvex_bench {

constexpr char kStampPathVariable[] = "KORVEX_BENCH_STAMP_PATH";

}  // namespace korvex_bench
