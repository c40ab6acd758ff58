// The file-backed settings store: persistence, encoding, damage handling.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "Foundation/NSUserDefaults.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using test::LogCapture;
using test::TempDir;

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

nlohmann::json readJson(const std::filesystem::path& path) {
  std::ifstream in(path);
  return nlohmann::json::parse(in);
}

TEST(UserDefaults, SurvivesARestartWithKinds) {
  TempDir dir;
  const auto file = dir.file("nested/folder/defaults.json");  // folders created on write
  const std::pair<const char*, Object> stored[] = {
      {"DisconnectFlag", Number::numberWithBool(true)},
      {"power", Number::numberWithInt(-59)},
      {"huge", Number(18446744073709551615ull)},
      {"ratio", Number(2.0)},
      {"uuid", std::string("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0")},
      {"blob", Bytes{0x01, 0xAB}},
      {"empty", Bytes{}},
  };
  {
    NSUserDefaults first(file);
    for (const auto& [key, value] : stored) first.setObject(value, key);
    first.setObject(std::string("gone"), "removed");
    first.removeObjectForKey("removed");
  }
  NSUserDefaults second(file);  // a new process reading the same file
  for (const auto& [key, value] : stored) {
    const auto got = second.objectForKey(key);
    ASSERT_TRUE(got) << key;
    EXPECT_EQ(*got, value) << key;
    if (const auto* n = std::get_if<Number>(&value)) {
      EXPECT_EQ(std::get<Number>(*got).kind(), n->kind()) << key;
    }
  }
  EXPECT_FALSE(second.objectForKey("removed"));
  EXPECT_FALSE(second.objectForKey("missing"));
  EXPECT_FALSE(second.boolForKey("missing"));

  // Other programs read the same file: the encoding is part of the contract.
  const auto json = readJson(file);
  EXPECT_TRUE(json["DisconnectFlag"].is_boolean());
  EXPECT_TRUE(json["power"].is_number_integer());
  EXPECT_TRUE(json["ratio"].is_number_float());
  EXPECT_EQ(json["blob"], nlohmann::json({{"$data", "01ab"}}));
  EXPECT_FALSE(json.contains("removed"));

  // A store re-reads the file only when told to.
  NSUserDefaults(file).setObject(std::string("v"), "k");
  EXPECT_FALSE(second.objectForKey("k"));
  EXPECT_TRUE(second.synchronize());
  EXPECT_EQ(second.objectForKey("k"), Object(std::string("v")));
  EXPECT_TRUE(NSUserDefaults(dir.file("none.json")).synchronize());  // no file is no failure
}

TEST(UserDefaults, BoolReadingOfStoredObjects) {
  TempDir dir;
  NSUserDefaults d(dir.file("defaults.json"));
  const struct {
    Object value;
    bool expected;
  } cases[] = {
      {Number(true), true},         {Number(false), false},
      {Number(0), false},           {Number(2), true},
      {Number(0.5), true},          {std::string("YES"), true},
      {std::string("yes"), true},   {std::string("True"), true},
      {std::string("1"), true},     {std::string("NO"), false},
      {std::string("2"), false},    {std::string(""), false},
      {std::string(" yes"), false}, {Bytes{0x01}, false},
  };
  for (const auto& c : cases) {
    d.setObject(c.value, "key");
    EXPECT_EQ(d.boolForKey("key"), c.expected) << "row " << &c - cases;
  }
  d.setObject(std::nullopt, "key");  // a null value removes the key
  EXPECT_FALSE(d.objectForKey("key"));
}

// Damage is reported once on the log, naming the file, and never thrown.
TEST(UserDefaults, UnreadableFileIsReportedOnceAndReadAsEmpty) {
  for (const char* text : {"{not json", "[1, 2, 3]", "", "{\"a\": 1"}) {
    SCOPED_TRACE(text);
    TempDir dir;
    const auto file = dir.file("defaults.json");
    writeFile(file, text);
    LogCapture log;
    NSUserDefaults d(file);
    EXPECT_FALSE(d.objectForKey("a"));
    EXPECT_FALSE(d.synchronize());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find(file.string()), std::string::npos) << log.lines()[0];

    // The next write replaces the damage with a readable file.
    d.setObject(Number(1), "a");
    EXPECT_TRUE(d.synchronize());
    EXPECT_EQ(NSUserDefaults(file).objectForKey("a"), Object(Number(1)));
    EXPECT_EQ(log.lines().size(), 1u);
  }
}

TEST(UserDefaults, UnwritableFolderIsLoggedNotThrown) {
  TempDir dir;
  writeFile(dir.file("blocker"), "a file where the folder should be");
  const auto file = dir.file("blocker/defaults.json");
  LogCapture log;
  NSUserDefaults d(file);
  d.setObject(Number(7), "k");
  EXPECT_EQ(d.objectForKey("k"), Object(Number(7)));  // kept for this process
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find(file.string()), std::string::npos) << log.lines()[0];
}

TEST(UserDefaults, ConcurrentWritersLoseNothing) {
  TempDir dir;
  const auto file = dir.file("defaults.json");
  auto key = [](int t, int i) { return "t" + std::to_string(t) + "_" + std::to_string(i); };
  {
    NSUserDefaults d(file);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 5; ++i) d.setObject(Number(i), key(t, i));
      });
    }
  }
  NSUserDefaults reread(file);
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 5; ++i) EXPECT_EQ(reread.objectForKey(key(t, i)), Object(Number(i)));
  }
}

// Sets (or with null unsets) an environment variable until destroyed.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(StandardDefaults, PathRulesInPrecedenceThenSharedUntilReset) {
  TempDir dir;
  const auto file = dir.file("env.json");
  const auto xdg = dir.path() / "xdg";
  ScopedEnv home("HOME", (dir.path() / "home").c_str());
  const struct {
    const char* lumora;
    const char* xdgHome;
    std::filesystem::path expected;
  } cases[] = {
      {file.c_str(), xdg.c_str(), file},
      {nullptr, xdg.c_str(), xdg / "lumora/defaults.json"},
      {"", nullptr, dir.path() / "home/.config/lumora/defaults.json"},
  };
  for (const auto& c : cases) {
    ScopedEnv lumora("LUMORA_DEFAULTS", c.lumora);
    ScopedEnv xdgEnv("XDG_CONFIG_HOME", c.xdgHome);
    NSUserDefaults::resetStandardUserDefaults();
    EXPECT_EQ(NSUserDefaults::standardUserDefaults()->path(), c.expected);
  }
  ScopedEnv lumora("LUMORA_DEFAULTS", file.c_str());
  NSUserDefaults::setStandardPath(dir.file("explicit.json"));  // wins over the environment
  EXPECT_EQ(NSUserDefaults::standardUserDefaults()->path(), dir.file("explicit.json"));
  NSUserDefaults::setStandardPath({});
  NSUserDefaults::resetStandardUserDefaults();

  const auto first = NSUserDefaults::standardUserDefaults();
  EXPECT_EQ(NSUserDefaults::standardUserDefaults(), first);
  first->setObject(Number::numberWithBool(true), "DisconnectFlag");
  // Another process changes the file; the shared store only sees it once reset.
  NSUserDefaults(file).setObject(std::string("other"), "written");
  EXPECT_FALSE(NSUserDefaults::standardUserDefaults()->objectForKey("written"));
  NSUserDefaults::resetStandardUserDefaults();
  const auto second = NSUserDefaults::standardUserDefaults();
  EXPECT_NE(second, first);
  EXPECT_TRUE(second->boolForKey("DisconnectFlag"));
  EXPECT_EQ(second->objectForKey("written"), Object(std::string("other")));
  NSUserDefaults::resetStandardUserDefaults();
}

// A writer killed at arbitrary moments must leave the old or the new file,
// never a mix: the reader always finds one complete value.
TEST(UserDefaults, KilledWriterNeverTearsTheFile) {
  TempDir dir;
  const auto file = dir.file("defaults.json");
  constexpr std::size_t kSize = 64 * 1024;
  NSUserDefaults(file).setObject(std::string(kSize, 'a'), "big");
  std::mt19937 random(12345);

  for (int round = 0; round < 8; ++round) {
    // The kill is aimed at the write phase, where a torn file would be made:
    // the parent hears of every modification in the folder and kills a
    // random (busy-looped) moment after the k-th one.
    const int watch = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    ASSERT_GE(inotify_add_watch(watch, dir.path().c_str(), IN_MODIFY), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // The parent's threads do not exist here: leave with _exit only.
      NSUserDefaults writer(file);
      for (int i = 1;; ++i) {
        writer.setObject(std::string(kSize, static_cast<char>('a' + i % 26)), "big");
      }
      _exit(1);
    }
    const int modifications = std::uniform_int_distribution<int>(1, 4)(random);
    alignas(inotify_event) char events[4096];
    for (int seen = 0; seen < modifications;) {
      const ssize_t got = ::read(watch, events, sizeof events);
      ASSERT_GT(got, 0);
      for (ssize_t at = 0; at < got; ++seen) {
        at += static_cast<ssize_t>(sizeof(inotify_event) +
                                   reinterpret_cast<const inotify_event*>(events + at)->len);
      }
    }
    volatile std::uint64_t spin = 0;
    const auto spins = std::uniform_int_distribution<std::uint64_t>(0, 50'000)(random);
    for (std::uint64_t i = 0; i < spins; ++i) spin = spin + 1;
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::close(watch);
    ASSERT_TRUE(WIFSIGNALED(status));

    LogCapture log;
    NSUserDefaults reader(file);
    const auto text = stringValue(reader.objectForKey("big"));
    ASSERT_TRUE(text) << "round " << round << ": " << (log.lines().empty() ? "" : log.lines()[0]);
    ASSERT_EQ(text->size(), kSize);
    EXPECT_EQ(text->find_first_not_of(text->front()), std::string::npos);
    EXPECT_TRUE(log.lines().empty());
  }
}

}  // namespace
}  // namespace lumora
