#include "Foundation/NSUserDefaults.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>

#include "Foundation/NSLog.h"

namespace lumora {

namespace {

using json = nlohmann::json;

// Bytes are kept as {"$data": "hex"}: JSON has no byte type, and a plain hex
// string would read back as text.
constexpr const char* kDataKey = "$data";

std::string plainHex(const Bytes& bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) {
    text.push_back(digits[b >> 4]);
    text.push_back(digits[b & 0x0F]);
  }
  return text;
}

json encode(const Object& value) {
  if (const auto* n = std::get_if<Number>(&value)) {
    switch (n->kind()) {
      case Number::Kind::Bool:
        return json(n->boolValue());
      case Number::Kind::Signed:
        return json(n->longLongValue());
      case Number::Kind::Unsigned:
        // longLongValue() is the modular reading: converting back is exact.
        return json(static_cast<std::uint64_t>(n->longLongValue()));
      case Number::Kind::Double:
        return json(n->doubleValue());  // NaN and infinities have no JSON form: null
    }
  }
  if (const auto* s = std::get_if<std::string>(&value)) return json(*s);
  json data = json::object();
  data[kDataKey] = plainHex(std::get<Bytes>(value));
  return data;
}

// Values of a kind this store never writes (null, arrays, other objects) are
// skipped rather than failing the whole file.
std::optional<Object> decode(const json& value) {
  switch (value.type()) {
    case json::value_t::boolean:
      return Number(value.get<bool>());
    case json::value_t::number_integer:
      return Number(static_cast<long long>(value.get<std::int64_t>()));
    case json::value_t::number_unsigned: {
      // JSON does not keep signedness and the parser reads every non-negative
      // integer as unsigned; a value in signed range comes back signed.
      const auto u = value.get<std::uint64_t>();
      if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return Number(static_cast<long long>(u));
      }
      return Number(static_cast<unsigned long long>(u));
    }
    case json::value_t::number_float:
      return Number(value.get<double>());
    case json::value_t::string:
      return value.get<std::string>();
    case json::value_t::object: {
      const auto it = value.find(kDataKey);
      if (value.size() != 1 || it == value.end() || !it->is_string()) return std::nullopt;
      auto bytes = bytesFromHex(it->get<std::string>());
      if (!bytes) return std::nullopt;
      return std::move(*bytes);
    }
    default:
      return std::nullopt;
  }
}

bool writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

std::string errnoText(int error) {
  return std::strerror(error);
}

std::filesystem::path defaultStandardPath() {
  if (const char* explicitPath = std::getenv("LUMORA_DEFAULTS"); explicitPath && *explicitPath) {
    return explicitPath;
  }
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') {
    return std::filesystem::path(xdg) / "lumora" / "defaults.json";
  }
  std::filesystem::path home;
  if (const char* env = std::getenv("HOME"); env && *env) {
    home = env;
  } else {
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
      home = found->pw_dir;
    }
  }
  if (home.empty()) home = ".";
  return home / ".config" / "lumora" / "defaults.json";
}

// The process-wide store. `generation` tells a store created before a reset
// or a path change from a current one.
struct StandardState {
  std::mutex mutex;
  std::shared_ptr<NSUserDefaults> store;
  std::filesystem::path overridePath;
  std::uint64_t generation = 0;
};

StandardState& standard() {
  static auto* state = new StandardState;  // used until the very end of the process
  return *state;
}

}  // namespace

NSUserDefaults::NSUserDefaults(std::filesystem::path file) : path_(std::move(file)) {
  std::optional<std::string> report;
  {
    std::lock_guard lock(mutex_);
    bool ok = true;
    report = load(ok);
  }
  if (report) NSLog(*report);
}

std::shared_ptr<NSUserDefaults> NSUserDefaults::standardUserDefaults() {
  auto& state = standard();
  std::filesystem::path path;
  std::uint64_t generation;
  {
    std::lock_guard lock(state.mutex);
    if (state.store) return state.store;
    path = state.overridePath.empty() ? defaultStandardPath() : state.overridePath;
    generation = state.generation;
  }
  // Loaded outside the lock: loading may log, and a log sink is application
  // code. Two threads racing here both load; the first one kept wins.
  auto created = std::make_shared<NSUserDefaults>(std::move(path));
  std::lock_guard lock(state.mutex);
  if (state.generation != generation) return created;  // reset meanwhile: not kept
  if (!state.store) state.store = std::move(created);
  return state.store;
}

void NSUserDefaults::setStandardPath(std::filesystem::path file) {
  std::shared_ptr<NSUserDefaults> old;  // released after the lock
  auto& state = standard();
  std::lock_guard lock(state.mutex);
  state.overridePath = std::move(file);
  old = std::move(state.store);
  ++state.generation;
}

void NSUserDefaults::resetStandardUserDefaults() {
  std::shared_ptr<NSUserDefaults> old;
  auto& state = standard();
  std::lock_guard lock(state.mutex);
  old = std::move(state.store);
  ++state.generation;
}

std::optional<Object> NSUserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void NSUserDefaults::setObject(std::optional<Object> value, std::string_view forKey) {
  std::optional<std::string> report;
  {
    std::lock_guard lock(mutex_);
    if (value) {
      values_.insert_or_assign(std::string(forKey), std::move(*value));
    } else {
      const auto it = values_.find(forKey);
      if (it == values_.end()) return;
      values_.erase(it);
    }
    report = store();
  }
  if (report) NSLog(*report);
}

void NSUserDefaults::removeObjectForKey(std::string_view key) {
  setObject(std::nullopt, key);
}

bool NSUserDefaults::boolForKey(std::string_view key) const {
  const auto value = objectForKey(key);
  if (!value) return false;
  if (const auto* n = std::get_if<Number>(&*value)) return n->boolValue();
  if (const auto* s = std::get_if<std::string>(&*value)) {
    std::string lower;
    for (char c : *s) lower.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c));
    return lower == "yes" || lower == "true" || lower == "1";
  }
  return false;
}

bool NSUserDefaults::synchronize() {
  std::optional<std::string> report;
  bool ok = true;
  {
    std::lock_guard lock(mutex_);
    report = load(ok);
  }
  if (report) NSLog(*report);
  return ok;
}

std::optional<std::string> NSUserDefaults::load(bool& ok) {
  values_.clear();
  ok = true;
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  std::string failure;
  std::string text;
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      reportedUnreadable_ = false;
      return std::nullopt;  // nothing stored yet
    }
    failure = "cannot read " + path_.string() + ": " + errnoText(errno);
  } else {
    char buffer[65536];
    while (true) {
      const ssize_t got = ::read(fd, buffer, sizeof buffer);
      if (got < 0) {
        if (errno == EINTR) continue;
        failure = "cannot read " + path_.string() + ": " + errnoText(errno);
        break;
      }
      if (got == 0) break;
      text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
  }
  if (failure.empty()) {
    try {
      const json document = json::parse(text);
      if (!document.is_object()) {
        failure = "cannot parse " + path_.string() + ": the top level is not an object";
      } else {
        for (const auto& [key, value] : document.items()) {
          if (auto object = decode(value)) values_.emplace(key, std::move(*object));
        }
      }
    } catch (const json::exception& e) {
      failure = "cannot parse " + path_.string() + ": " + e.what();
    }
  }
  if (failure.empty()) {
    reportedUnreadable_ = false;
    return std::nullopt;
  }
  values_.clear();
  ok = false;
  if (std::exchange(reportedUnreadable_, true)) return std::nullopt;
  return "NSUserDefaults: " + failure;
}

std::optional<std::string> NSUserDefaults::store() {
  std::string text;
  try {
    json document = json::object();
    for (const auto& [key, value] : values_) document[key] = encode(value);
    // Text that is not UTF-8 is stored with replacement characters rather
    // than failing the whole write.
    text = document.dump(2, ' ', false, json::error_handler_t::replace);
    text.push_back('\n');
  } catch (const std::exception& e) {
    return "NSUserDefaults: cannot encode " + path_.string() + ": " + e.what();
  }

  std::filesystem::path folder = path_.parent_path();
  if (folder.empty()) folder = ".";
  std::error_code ignored;
  std::filesystem::create_directories(folder, ignored);

  std::string temp = (folder / (path_.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkstemp(temp.data());
  if (fd < 0) return "NSUserDefaults: cannot write " + path_.string() + ": " + errnoText(errno);
  const auto fail = [&](const char* step) -> std::optional<std::string> {
    const int error = errno;
    ::unlink(temp.c_str());
    return "NSUserDefaults: cannot write " + path_.string() + " (" + step +
           "): " + errnoText(error);
  };
  ::fchmod(fd, 0644);
  if (!writeAll(fd, text) || ::fsync(fd) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return fail("write");
  }
  if (::close(fd) != 0) return fail("close");
  // The rename is the commit point: before it the old file is intact, after
  // it the new one is complete on disk.
  if (::rename(temp.c_str(), path_.c_str()) != 0) return fail("rename");
  reportedUnreadable_ = false;
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);  // makes the rename itself durable
    ::close(dir);
  }
  return std::nullopt;
}

}  // namespace lumora
