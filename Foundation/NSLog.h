// The system log: one free-text line per call.
//
//   lumora::NSLog("Scanning started");
//   auto previous = lumora::setLogSink([](std::string_view line) { ... });
//
// The default sink writes "2026-11-21 14:57:06.123 program[pid] text" on
// stderr. A sink replaces it process-wide (tests capture lines this way); the
// sink is called on the thread that logs, one line at a time, never
// concurrently with itself, with the log's lock held. A sink must therefore
// not call NSLog (such a nested line bypasses the sink and goes to stderr) nor
// wait for another thread that logs. It may call setLogSink.
#pragma once

#include <functional>
#include <string_view>

namespace lumora {

using LogSink = std::function<void(std::string_view line)>;

/// Writes one line (the text as given: no level, tag or prefix is added
/// except by the default sink's time and process stamp).
void NSLog(std::string_view line);

/// Installs `sink` (an empty function restores the default) and returns the
/// one it replaces (empty if it was the default). A line being written
/// meanwhile is finished first: once this returns, the old sink is not called
/// again, so its captures may be destroyed.
LogSink setLogSink(LogSink sink);

}  // namespace lumora
