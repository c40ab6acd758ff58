// What every fuzz target shares: a check that turns a broken property into a
// crash libFuzzer records (with the input that caused it), and a silent log
// so that millions of runs do not flood the terminal.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Foundation/NSLog.h"

namespace lumora::fuzz {

[[noreturn]] inline void failed(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: property broken: %s\n", file, line, what);
  std::abort();
}

/// The library logs on malformed input by design; that is not a finding.
inline void quietLog() {
  setLogSink([](std::string_view) {});
}

}  // namespace lumora::fuzz

#define FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : ::lumora::fuzz::failed(#condition, __FILE__, __LINE__))
