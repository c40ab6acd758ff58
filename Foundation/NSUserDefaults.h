// Persisted application settings: the library's NSUserDefaults.
//
//   auto defaults = lumora::NSUserDefaults::standardUserDefaults();
//   defaults->setObject(lumora::Number::numberWithBool(true), "DisconnectFlag");
//   bool quiet = defaults->boolForKey("DisconnectFlag");
//
// Backed by a JSON file. The standard store lives at, in order of precedence:
// the path given to setStandardPath(), $LUMORA_DEFAULTS,
// $XDG_CONFIG_HOME/lumora/defaults.json, ~/.config/lumora/defaults.json.
// Every change is written through at once, atomically (temporary file in the
// same folder, flushed and fsynced, then renamed over the old one), so a crash
// leaves either the old or the new content, never a torn file. A file that does
// not parse is reported once on the log and read as empty; it is never a crash.
// All operations are thread-safe.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Object.h"

namespace lumora {

class NSUserDefaults {
 public:
  /// A store backed by `file` (created on first write; its folder too).
  explicit NSUserDefaults(std::filesystem::path file);

  /// The process-wide store, created on first use from the path rules above.
  static std::shared_ptr<NSUserDefaults> standardUserDefaults();
  /// Points the standard store at `file` (an empty path returns to the
  /// default rules); the next standardUserDefaults() reloads from there.
  static void setStandardPath(std::filesystem::path file);
  /// Forgets the standard store so that the next call reloads it from disk,
  /// as a new process would.
  static void resetStandardUserDefaults();

  std::optional<Object> objectForKey(std::string_view key) const;
  /// setObject:forKey:. A null value removes the key.
  void setObject(std::optional<Object> value, std::string_view forKey);
  void removeObjectForKey(std::string_view key);
  /// The boolean reading of the stored object: a number's boolValue, a text
  /// "YES"/"true"/"1" (any case) as true; missing or anything else is false.
  bool boolForKey(std::string_view key) const;
  /// Rereads the file (another process may have written it). Returns false if
  /// the file exists but could not be read or parsed.
  bool synchronize();

  const std::filesystem::path& path() const { return path_; }

 private:
  // Both run with mutex_ held and never log: they return the line to log, which
  // the caller writes after unlocking (a log sink is application code).
  // load() replaces values_ with the file's content; `ok` is false when the
  // file exists but could not be read or parsed.
  std::optional<std::string> load(bool& ok);
  std::optional<std::string> store();

  std::filesystem::path path_;
  mutable std::mutex mutex_;
  Dictionary values_;
  bool reportedUnreadable_ = false;  // the current bad file was already logged
};

}  // namespace lumora
