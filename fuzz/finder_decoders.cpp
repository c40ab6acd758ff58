// The finder's pure helpers and the decoder ranging uses, on arbitrary bytes.
// Besides never reading past the buffer, the two beacon decoders must agree
// on every frame, a decoded frame must be rebuilt byte for byte by the region
// that advertises it, and every hex form must read back to the same bytes.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Check.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Bytes.h"
#include "Foundation/Uuid.h"
#include "Lumora/TQBleFinder.h"

using namespace lumora;

namespace {

constexpr std::uint8_t kPrefix[] = {0x4C, 0x00, 0x02, 0x15};
constexpr std::size_t kFrame = 25;

std::string withoutBlanks(const std::string& text) {
  std::string out;
  for (char c : text)
    if (c != ' ' && c != '\n') out.push_back(c);
  return out;
}

std::string upper(std::string text) {
  for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

void checkDecoders(const Bytes& bytes) {
  const Data data = bytes;
  const bool prefixed = bytes.size() >= 4 && std::memcmp(bytes.data(), kPrefix, 4) == 0;
  FUZZ_CHECK(TQBleFinder::advDataIsBeacon(data) == (prefixed && bytes.size() > 4));

  const auto info = TQBleFinder::getBeaconInfoFromData(data);
  FUZZ_CHECK(info.has_value() == (bytes.size() >= kFrame));
  const auto frame = parseIBeacon(bytes.data(), bytes.size());
  FUZZ_CHECK(frame.has_value() == (prefixed && bytes.size() >= kFrame));
  if (info) {
    FUZZ_CHECK(info->dictionary().size() == 4);
    FUZZ_CHECK(Uuid::fromString(info->uuid).has_value());
  }
  if (!frame) return;

  // The finder and ranging read the same identity out of a frame.
  FUZZ_CHECK(info && info->uuid == frame->uuid.UUIDString());
  FUZZ_CHECK(info->major.unsignedShortValue() == frame->major);
  FUZZ_CHECK(info->minor.unsignedShortValue() == frame->minor);
  FUZZ_CHECK(info->power.intValue() == frame->measuredPower);

  // The region that advertises this identity sends exactly these 25 bytes.
  CLBeaconRegion region(frame->uuid, std::optional<std::uint16_t>(frame->major),
                        std::optional<std::uint16_t>(frame->minor), "fuzz");
  FUZZ_CHECK(region.matches(frame->uuid, frame->major, frame->minor));
  const auto ad = region.peripheralDataWithMeasuredPower(Number(int{frame->measuredPower}));
  FUZZ_CHECK(ad && ad->manufacturerData);
  FUZZ_CHECK(*ad->manufacturerData == Bytes(bytes.begin(), bytes.begin() + kFrame));
}

void checkHex(const Bytes& bytes) {
  const Data data = bytes;
  const std::string lower = TQBleFinder::getHexString(data);
  FUZZ_CHECK(lower.size() == 2 * bytes.size());
  FUZZ_CHECK(std::all_of(lower.begin(), lower.end(), [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) &&
           !std::isupper(static_cast<unsigned char>(c));
  }));
  FUZZ_CHECK(bytesFromHex(lower) == bytes);

  const std::string plain = TQBleFinder::hexRepresentation(data, false);
  FUZZ_CHECK(plain == upper(lower));
  const std::string spaced = TQBleFinder::hexRepresentation(data, true);
  FUZZ_CHECK(spaced.size() == plain.size() + bytes.size() / 4);
  FUZZ_CHECK(withoutBlanks(spaced) == plain);

  // The platform text form: "<" groups of four bytes ">".
  const std::string text = description(data);
  FUZZ_CHECK(text.size() >= 2 && text.front() == '<' && text.back() == '>');
  FUZZ_CHECK(bytesFromHex(std::string_view(text).substr(1, text.size() - 2)) == bytes);
}

// The same bytes read as text someone typed: a parse that succeeds accounts
// for every hex digit in it, in order.
void checkHexText(const Bytes& bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto parsed = bytesFromHex(text);
  if (parsed) {
    std::string digits;
    for (char c : text)
      if (std::isxdigit(static_cast<unsigned char>(c)))
        digits.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    FUZZ_CHECK(TQBleFinder::getHexString(*parsed) == digits);
  }
  if (const auto uuid = Uuid::fromString(text)) {
    FUZZ_CHECK(uuid->UUIDString() == upper(std::string(text)));
  }
}

void checkDistance(const Bytes& bytes) {
  if (bytes.size() < 12) return;
  std::int32_t power;
  double rssi;
  std::memcpy(&power, bytes.data(), sizeof power);
  std::memcpy(&rssi, bytes.data() + 4, sizeof rssi);
  const auto distance = TQBleFinder::calculatedDistance(Number(power), Number(rssi));
  FUZZ_CHECK(distance.has_value() == (rssi != 0.0));
  // Any power, any reading: a number comes back, never undefined behaviour.
  if (distance) (void)distance->doubleValue();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  // A copy of exactly `size` bytes, so that a read past the end is a
  // heap overflow AddressSanitizer sees.
  const Bytes bytes(input, input + size);
  checkDecoders(bytes);
  checkHex(bytes);
  checkHexText(bytes);
  checkDistance(bytes);
  return 0;
}
