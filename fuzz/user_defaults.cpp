// The file-backed user defaults reading whatever is on disk. A file that does
// not parse reads as empty, never a crash; one that does must survive a
// write-through unchanged: every value the store read comes back, of the
// same kind, from the file the store writes.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Check.h"
#include "Foundation/NSUserDefaults.h"

using namespace lumora;

namespace {

std::filesystem::path folder;

bool sameObject(const Object& a, const Object& b) {
  if (a.index() != b.index()) return false;
  if (const auto* n = std::get_if<Number>(&a)) {
    const auto& m = std::get<Number>(b);
    return n->kind() == m.kind() && *n == m;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quietLog();
  // tmpfs when there is one: the store fsyncs every write.
  std::string pattern = (std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp") +
                        std::string("/lumora-fuzz-XXXXXX");
  if (!mkdtemp(pattern.data())) std::abort();
  folder = pattern;
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto path = folder / "defaults.json";
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  // The keys the file names, when it is a JSON object at all.
  std::vector<std::string> keys;
  const auto document = nlohmann::json::parse(data, data + size, nullptr, false);
  if (document.is_object())
    for (const auto& [key, value] : document.items()) keys.push_back(key);

  NSUserDefaults first(path);
  FUZZ_CHECK(first.synchronize() == document.is_object());
  for (const auto& key : keys) (void)first.boolForKey(key);

  // Any change writes the whole store through; a second store reads it back.
  const std::string probe = "\x01probe";
  first.setObject(Number(true), probe);
  NSUserDefaults second(path);
  FUZZ_CHECK(second.synchronize());
  FUZZ_CHECK(second.boolForKey(probe));
  for (const auto& key : keys) {
    if (key == probe) continue;
    const auto before = first.objectForKey(key);
    const auto after = second.objectForKey(key);
    FUZZ_CHECK(before.has_value() == after.has_value());
    if (before) FUZZ_CHECK(sameObject(*before, *after));
  }
  return 0;
}
