// The system log: one free-text line per call.
//
//   lumora::NSLog("Scanning started");
//   auto previous = lumora::setLogSink([](std::string_view line) { ... });
//
// The default sink writes "2026-11-21 14:57:06.123 program[pid] text" on
// stderr. A sink replaces it process-wide (tests capture lines this way); the
// sink is called on the thread that logs, one line at a time, never
// concurrently with itself.
#pragma once

#include <functional>
#include <string_view>

namespace lumora {

using LogSink = std::function<void(std::string_view line)>;

/// Writes one line (the text as given: no level, tag or prefix is added
/// except by the default sink's time and process stamp).
void NSLog(std::string_view line);

/// Installs `sink` (an empty function restores the default) and returns the
/// one it replaces.
LogSink setLogSink(LogSink sink);

}  // namespace lumora
