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
  {
    NSUserDefaults first(file);
    first.setObject(Number::numberWithBool(true), "DisconnectFlag");
    first.setObject(Number::numberWithInt(-59), "power");
    first.setObject(Number(18446744073709551615ull), "huge");
    first.setObject(Number(2.0), "ratio");
    first.setObject(std::string("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"), "uuid");
    first.setObject(Bytes{0x01, 0xAB}, "blob");
    first.setObject(Bytes{}, "empty");
    first.setObject(std::string("gone"), "removed");
    first.removeObjectForKey("removed");
  }
  NSUserDefaults second(file);  // a new process reading the same file
  const struct {
    const char* key;
    Object value;
  } expected[] = {
      {"DisconnectFlag", Number(true)},
      {"power", Number(-59)},
      {"huge", Number(18446744073709551615ull)},
      {"ratio", Number(2.0)},
      {"uuid", std::string("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0")},
      {"blob", Bytes{0x01, 0xAB}},
      {"empty", Bytes{}},
  };
  for (const auto& e : expected) {
    const auto got = second.objectForKey(e.key);
    ASSERT_TRUE(got) << e.key;
    EXPECT_EQ(*got, e.value) << e.key;
    if (const auto* n = std::get_if<Number>(&e.value)) {
      EXPECT_EQ(std::get<Number>(*got).kind(), n->kind()) << e.key;
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
    EXPECT_EQ(d.boolForKey("key"), c.expected) << std::visit(
        [](const auto& v) {
          if constexpr (std::is_same_v<std::decay_t<decltype(v)>, Number>) return v.stringValue();
          if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>) return v;
          return std::string("bytes");
        },
        c.value);
  }
  d.setObject(std::nullopt, "key");  // a null value removes the key
  EXPECT_FALSE(d.objectForKey("key"));
}

TEST(UserDefaults, UnreadableFileIsReportedOnceAndReadAsEmpty) {
  const char* damaged[] = {"{not json", "[1, 2, 3]", "", "{\"a\": 1"};
  for (const char* text : damaged) {
    SCOPED_TRACE(text);
    TempDir dir;
    const auto file = dir.file("defaults.json");
    writeFile(file, text);
    LogCapture log;
    NSUserDefaults d(file);
    EXPECT_FALSE(d.objectForKey("a"));
    EXPECT_FALSE(d.synchronize());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(file.string()), std::string::npos) << lines[0];

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
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(file.string()), std::string::npos) << lines[0];
}

TEST(UserDefaults, SynchronizeSeesAnotherWriter) {
  TempDir dir;
  const auto file = dir.file("defaults.json");
  NSUserDefaults reader(file);
  EXPECT_TRUE(reader.synchronize());  // no file yet is not a failure
  NSUserDefaults(file).setObject(std::string("v"), "k");
  EXPECT_FALSE(reader.objectForKey("k"));
  EXPECT_TRUE(reader.synchronize());
  EXPECT_EQ(reader.objectForKey("k"), Object(std::string("v")));
}

TEST(UserDefaults, ConcurrentWritersLoseNothing) {
  TempDir dir;
  const auto file = dir.file("defaults.json");
  NSUserDefaults d(file);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&d, t] {
      for (int i = 0; i < 5; ++i)
        d.setObject(Number(i), "t" + std::to_string(t) + "_" + std::to_string(i));
    });
  }
  for (auto& th : threads) th.join();
  NSUserDefaults reread(file);
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(reread.objectForKey("t" + std::to_string(t) + "_" + std::to_string(i)),
                Object(Number(i)));
    }
  }
}

// Environment changes for one test, undone afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

class StandardDefaults : public ::testing::Test {
 protected:
  void TearDown() override {
    NSUserDefaults::setStandardPath({});
    NSUserDefaults::resetStandardUserDefaults();
  }
  TempDir dir_;
};

TEST_F(StandardDefaults, PathRulesInPrecedence) {
  const auto envFile = dir_.file("env.json");
  const auto xdg = dir_.path() / "xdg";
  const auto home = dir_.path() / "home";
  ScopedEnv homeEnv("HOME", home.c_str());
  {
    ScopedEnv lumora("LUMORA_DEFAULTS", envFile.c_str());
    ScopedEnv xdgEnv("XDG_CONFIG_HOME", xdg.c_str());
    NSUserDefaults::resetStandardUserDefaults();
    EXPECT_EQ(NSUserDefaults::standardUserDefaults()->path(), envFile);

    NSUserDefaults::setStandardPath(dir_.file("explicit.json"));
    EXPECT_EQ(NSUserDefaults::standardUserDefaults()->path(), dir_.file("explicit.json"));
    NSUserDefaults::setStandardPath({});
  }
  {
    ScopedEnv lumora("LUMORA_DEFAULTS", nullptr);
    ScopedEnv xdgEnv("XDG_CONFIG_HOME", xdg.c_str());
    NSUserDefaults::resetStandardUserDefaults();
    EXPECT_EQ(NSUserDefaults::standardUserDefaults()->path(), xdg / "lumora" / "defaults.json");
  }
  {
    ScopedEnv lumora("LUMORA_DEFAULTS", "");
    ScopedEnv xdgEnv("XDG_CONFIG_HOME", nullptr);
    NSUserDefaults::resetStandardUserDefaults();
    EXPECT_EQ(NSUserDefaults::standardUserDefaults()->path(),
              home / ".config" / "lumora" / "defaults.json");
  }
}

TEST_F(StandardDefaults, SharedUntilResetThenReloadedFromDisk) {
  const auto file = dir_.file("defaults.json");
  ScopedEnv lumora("LUMORA_DEFAULTS", file.c_str());
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
