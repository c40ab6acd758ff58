// Captures of the simulated air: the trace turned into the link-layer
// packets a sniffer beside the local adapter would have recorded, written as
// pcap (link type 256). Nothing here runs unless a capture is the air's
// trace sink, so the air's own path pays nothing for it.
#include "backends/sim/Pcap.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

#include "backends/sim/AirImpl.h"

namespace lumora::sim {

// --- Wire format ---------------------------------------------------------------

namespace pcap {

std::array<std::uint8_t, 3> crc24(const Bytes& pdu, std::uint32_t init) {
  // Register position i is bit i; every data bit, least significant first,
  // meets position 23 and the sum enters at position 0 and at the taps of
  // x^24 + x^10 + x^9 + x^6 + x^4 + x^3 + x + 1.
  std::uint32_t lfsr = init & 0xFFFFFF;
  for (const std::uint8_t byte : pdu) {
    for (int bit = 0; bit < 8; ++bit) {
      const std::uint32_t in = ((byte >> bit) ^ (lfsr >> 23)) & 1u;
      lfsr = (lfsr << 1) & 0xFFFFFF;
      if (in) lfsr ^= 0x00065B;
    }
  }
  // The CRC leaves from position 23 down, and a byte on the air carries its
  // first bit in bit 0: each byte is the register's bits in reverse.
  const auto reversed = [](std::uint32_t bits) {
    std::uint8_t out = 0;
    for (int i = 0; i < 8; ++i) {
      if (bits & (1u << i)) out = static_cast<std::uint8_t>(out | (0x80u >> i));
    }
    return out;
  };
  return {reversed(lfsr >> 16), reversed(lfsr >> 8), reversed(lfsr)};
}

std::uint8_t rfChannel(std::uint8_t channelIndex) {
  if (channelIndex == 37) return 0;
  if (channelIndex == 38) return 12;
  if (channelIndex == 39) return 39;
  if (channelIndex <= 10) return static_cast<std::uint8_t>(channelIndex + 1);
  if (channelIndex <= 36) return static_cast<std::uint8_t>(channelIndex + 2);
  return 0xFF;  // no such channel; readers show it as illegal
}

namespace {

struct Structure {
  std::size_t order = 0;  // place in the data it came from
  std::uint8_t type = 0;
  Bytes bytes;  // length byte included
};

bool isName(const Structure& s) {
  return s.type == 0x08 || s.type == 0x09;
}

std::size_t sizeOf(const std::vector<Structure>& list) {
  std::size_t n = 0;
  for (const Structure& s : list) n += s.bytes.size();
  return n;
}

Bytes join(std::vector<Structure> list) {
  std::sort(list.begin(), list.end(),
            [](const Structure& a, const Structure& b) { return a.order < b.order; });
  Bytes out;
  for (const Structure& s : list) out.insert(out.end(), s.bytes.begin(), s.bytes.end());
  return out;
}

}  // namespace

std::pair<Bytes, Bytes> splitAdvertisingData(const Bytes& data) {
  std::vector<Structure> all;
  for (std::size_t i = 0; i < data.size();) {
    const std::size_t length = data[i];
    // A zero length ends the data early; a length past the end is malformed.
    if (length == 0 || i + 1 + length > data.size()) break;
    all.push_back({all.size(), data[i + 1],
                   Bytes(data.begin() + static_cast<std::ptrdiff_t>(i),
                         data.begin() + static_cast<std::ptrdiff_t>(i + 1 + length))});
    i += length + 1;
  }
  if (sizeOf(all) <= kMaxAdvertisingData) return {join(all), {}};

  std::vector<Structure> adv;
  std::vector<Structure> response;
  for (Structure& s : all) (isName(s) ? response : adv).push_back(std::move(s));
  // The first name, shortened if need be, is what the response must carry.
  while (sizeOf(response) > kMaxAdvertisingData) {
    if (response.size() > 1) {
      response.pop_back();
      continue;
    }
    Bytes& name = response.front().bytes;
    name.resize(kMaxAdvertisingData);
    name[0] = static_cast<std::uint8_t>(kMaxAdvertisingData - 1);
    name[1] = 0x08;  // shortened local name
  }
  // The flags stay; from the back, what still fits the response moves
  // there, and what fits nowhere is left out.
  const auto movable = [](const Structure& s) { return s.type != 0x01; };
  while (sizeOf(adv) > kMaxAdvertisingData) {
    const std::size_t room = kMaxAdvertisingData - sizeOf(response);
    auto fits = std::find_if(adv.rbegin(), adv.rend(), [&](const Structure& s) {
      return movable(s) && s.bytes.size() <= room;
    });
    if (fits != adv.rend()) {
      response.push_back(std::move(*fits));
      adv.erase(std::next(fits).base());
      continue;
    }
    auto last = std::find_if(adv.rbegin(), adv.rend(), movable);
    adv.erase(last == adv.rend() ? std::prev(adv.end()) : std::next(last).base());
  }
  return {join(std::move(adv)), join(std::move(response))};
}

std::optional<std::array<std::uint8_t, 6>> addressBytes(const std::string& text) {
  if (text.size() != 17) return std::nullopt;
  std::array<std::uint8_t, 6> out{};
  for (std::size_t i = 0; i < 6; ++i) {
    const char* first = text.data() + 3 * i;
    if (i < 5 && first[2] != ':') return std::nullopt;
    std::uint8_t value = 0;
    const auto [end, error] = std::from_chars(first, first + 2, value, 16);
    if (error != std::errc{} || end != first + 2) return std::nullopt;
    out[5 - i] = value;  // least significant byte first on the air
  }
  return out;
}

}  // namespace pcap

// --- The capture -----------------------------------------------------------------

namespace {

using Address = std::array<std::uint8_t, 6>;

constexpr Nanos kInterFrameSpace = std::chrono::microseconds(150);
constexpr std::uint8_t kAdvertisingChannel = 37;
constexpr std::size_t kMaxDataPayload = 27;  // an LL data PDU without length extension
/// The local adapter's scanner, as it asks for scan responses: the address
/// the air gives its first central session.
constexpr const char* kScannerAddress = "5C:00:00:00:00:01";

// Advertising PDU types.
constexpr std::uint8_t kAdvInd = 0x0;
constexpr std::uint8_t kAdvNonconnInd = 0x2;
constexpr std::uint8_t kScanReq = 0x3;
constexpr std::uint8_t kScanRsp = 0x4;
constexpr std::uint8_t kConnectInd = 0x5;
constexpr std::uint8_t kAdvScanInd = 0x6;
// Every address of the air is a random one (no public company id).
constexpr std::uint8_t kTxRandom = 0x40;
constexpr std::uint8_t kRxRandom = 0x80;

// Data PDU LLIDs.
constexpr std::uint8_t kContinuation = 0x1;  // or an empty PDU
constexpr std::uint8_t kL2capStart = 0x2;
constexpr std::uint8_t kControl = 0x3;
constexpr std::uint8_t kTerminateInd = 0x02;
constexpr std::uint8_t kRemoteUserTerminated = 0x13;

// ATT opcodes.
constexpr std::uint8_t kErrorRsp = 0x01;
constexpr std::uint8_t kReadReq = 0x0A;
constexpr std::uint8_t kReadRsp = 0x0B;
constexpr std::uint8_t kReadBlobReq = 0x0C;
constexpr std::uint8_t kReadBlobRsp = 0x0D;
constexpr std::uint8_t kWriteReq = 0x12;
constexpr std::uint8_t kWriteRsp = 0x13;
constexpr std::uint8_t kNotification = 0x1B;
constexpr std::uint8_t kWriteCmd = 0x52;
constexpr std::uint16_t kAttChannel = 0x0004;

// Pseudo-header flags and directions.
constexpr std::uint16_t kDewhitened = 0x0001;
constexpr std::uint16_t kSignalValid = 0x0002;
constexpr std::uint16_t kReferenceValid = 0x0010;
constexpr std::uint16_t kOffensesValid = 0x0020;
enum class Direction : std::uint16_t {
  Advertising = 0,
  CentralToPeripheral = 2,
  PeripheralToCentral = 3
};

// Connection parameters a link is opened with: 7.5 ms, the shortest
// interval, is the nearest to the air's few milliseconds per step.
constexpr std::uint16_t kIntervalUnits = 6;      // x 1.25 ms
constexpr std::uint16_t kTimeoutUnits = 72;      // x 10 ms
constexpr std::uint8_t kWindowSize = 1;          // x 1.25 ms
constexpr std::uint8_t kSleepClockAccuracy = 5;  // 31 to 50 ppm

void putLe(Bytes& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

std::uint64_t splitmix(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// The link layer's rules for a connection's access address: not the
// advertising one nor one bit away from it, not four equal bytes, no run of
// more than six equal bits, at most 24 transitions, two of them in the top
// six bits.
bool usableAccessAddress(std::uint32_t aa) {
  if (std::popcount(aa ^ pcap::kAdvertisingAccessAddress) <= 1) return false;
  if ((aa & 0xFF) * 0x01010101u == aa) return false;
  int run = 1;
  int transitions = 0;
  int topTransitions = 0;
  for (int bit = 1; bit < 32; ++bit) {
    if (((aa >> bit) & 1u) == ((aa >> (bit - 1)) & 1u)) {
      if (++run > 6) return false;
    } else {
      run = 1;
      ++transitions;
      if (bit >= 27) ++topTransitions;
    }
  }
  return transitions <= 24 && topTransitions >= 2;
}

// "0x0003 ..." -> 0x0003 and what follows the handle's blank.
std::optional<std::pair<std::uint16_t, std::string_view>> handleAndRest(std::string_view detail) {
  if (detail.size() < 6 || detail.substr(0, 2) != "0x") return std::nullopt;
  std::uint16_t handle = 0;
  const auto [end, error] = std::from_chars(detail.data() + 2, detail.data() + 6, handle, 16);
  if (error != std::errc{} || end != detail.data() + 6) return std::nullopt;
  std::string_view rest = detail.substr(6);
  if (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  return std::pair{handle, rest};
}

// The ATT error code of an answer's error text (the air's own wording).
std::uint8_t attCodeOf(std::string_view text) {
  for (int code = 0x01; code <= 0x11; ++code) {
    if (detail::attError(static_cast<CBATTError>(code)).text == text) {
      return static_cast<std::uint8_t>(code);
    }
  }
  return static_cast<std::uint8_t>(CBATTError::UnlikelyError);
}

Bytes attPdu(std::uint8_t opcode, std::optional<std::uint16_t> handle, const Bytes& value = {}) {
  Bytes att{opcode};
  if (handle) putLe(att, *handle, 2);
  att.insert(att.end(), value.begin(), value.end());
  Bytes l2cap;
  putLe(l2cap, att.size(), 2);
  putLe(l2cap, kAttChannel, 2);
  l2cap.insert(l2cap.end(), att.begin(), att.end());
  return l2cap;
}

}  // namespace

class Capture::Impl {
 public:
  Impl(std::string path, std::FILE* file, std::chrono::system_clock::time_point epoch,
       ConnectableLookup connectable)
      : path_(std::move(path)), file_(file), epoch_(epoch), connectable_(std::move(connectable)) {}

  ~Impl() {
    if (file_) std::fclose(file_);
  }

  void onTrace(const TraceEvent& e) {
    // The lookup may take the air's lock: it runs before this capture's own.
    std::optional<bool> connectable;
    if (e.kind == "adv" && connectable_) connectable = connectable_(e.from);

    std::lock_guard lock(mutex_);
    if (!ok_) return;
    if (e.kind == "adv") {
      advertisement(e, connectable.value_or(false));
    } else if (e.kind == "connect") {
      connect(e);
    } else if (e.kind == "read" || e.kind == "write") {
      request(e);
    } else if (e.kind == "answer") {
      answer(e);
    } else if (e.kind == "notify") {
      notify(e);
    } else if (e.kind == "disconnect") {
      disconnect(e);
    }
    if (ok_ && std::fflush(file_) != 0) ok_ = false;
  }

  std::size_t packets() const {
    std::lock_guard lock(mutex_);
    return packets_;
  }
  bool ok() const {
    std::lock_guard lock(mutex_);
    return ok_;
  }
  const std::string& path() const { return path_; }

  /// The pcap file header: microsecond times, link type 256.
  bool writeHeader() {
    Bytes header;
    putLe(header, 0xA1B2C3D4, 4);
    putLe(header, 2, 2);
    putLe(header, 4, 2);
    putLe(header, 0, 4);  // time zone: UTC
    putLe(header, 0, 4);  // accuracy
    putLe(header, 0xFFFF, 4);
    putLe(header, pcap::kLinkType, 4);
    return std::fwrite(header.data(), 1, header.size(), file_) == header.size() &&
           std::fflush(file_) == 0;
  }

 private:
  struct Packet {
    Nanos at{0};
    std::uint8_t channel = kAdvertisingChannel;
    std::uint32_t accessAddress = pcap::kAdvertisingAccessAddress;
    std::uint32_t crcInit = pcap::kAdvertisingCrcInit;
    std::optional<int> rssi;  // heard from a remote sender
    Direction direction = Direction::Advertising;
    Bytes pdu;
  };

  struct Request {
    std::uint8_t opcode = 0;
    std::uint16_t handle = 0;
  };

  struct Link {
    std::string central;
    std::string peripheral;
    std::uint32_t accessAddress = 0;
    std::uint32_t crcInit = 0;
    std::uint8_t hop = 5;
    std::uint8_t unmapped = 0;  // channel of the last event
    std::uint32_t events = 0;
    Nanos nextEvent{0};
    std::deque<Request> requests;  // ATT requests not answered yet, oldest first
  };

  // Writes one packet at `at` or, to keep the file in time order, right
  // after the one before; returns when it ends on the air (1 Mbit/s).
  Nanos write(const Packet& p) {
    const Nanos at = std::max(p.at, cursor_);
    const std::size_t onAir = 4 + p.pdu.size() + 3;
    Bytes record;
    record.reserve(16 + 10 + onAir);
    const auto wall = epoch_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(at);
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(wall.time_since_epoch()).count();
    putLe(record, static_cast<std::uint64_t>(micros / 1000000), 4);
    putLe(record, static_cast<std::uint64_t>(micros % 1000000), 4);
    putLe(record, 10 + onAir, 4);
    putLe(record, 10 + onAir, 4);
    std::uint16_t flags = kDewhitened | kReferenceValid | kOffensesValid;
    if (p.rssi) flags |= kSignalValid;
    flags = static_cast<std::uint16_t>(flags | (static_cast<std::uint16_t>(p.direction) << 7));
    record.push_back(pcap::rfChannel(p.channel));
    record.push_back(static_cast<std::uint8_t>(static_cast<std::int8_t>(p.rssi.value_or(0))));
    record.push_back(0);  // noise: the air has no noise floor
    record.push_back(0);  // access address offenses
    putLe(record, p.accessAddress, 4);
    putLe(record, flags, 2);
    putLe(record, p.accessAddress, 4);
    record.insert(record.end(), p.pdu.begin(), p.pdu.end());
    const auto crc = pcap::crc24(p.pdu, p.crcInit);
    record.insert(record.end(), crc.begin(), crc.end());
    if (std::fwrite(record.data(), 1, record.size(), file_) != record.size()) {
      ok_ = false;
      return at;
    }
    ++packets_;
    const Nanos end = at + std::chrono::microseconds(8 * (1 + onAir));
    cursor_ = end;
    return end;
  }

  std::optional<int> rssiOf(const std::string& address) const {
    auto it = rssi_.find(address);
    if (it == rssi_.end()) return std::nullopt;
    return it->second;
  }

  static Bytes advertisingPdu(std::uint8_t type, const Address& first, const Address* second,
                              const Bytes& data) {
    Bytes pdu{static_cast<std::uint8_t>(type | kTxRandom | (second ? kRxRandom : 0)), 0};
    pdu.insert(pdu.end(), first.begin(), first.end());
    if (second) pdu.insert(pdu.end(), second->begin(), second->end());
    pdu.insert(pdu.end(), data.begin(), data.end());
    pdu[1] = static_cast<std::uint8_t>(pdu.size() - 2);
    return pdu;
  }

  void advertisement(const TraceEvent& e, bool connectable) {
    // Only what was heard: "rssi -63", not "lost".
    constexpr std::string_view kHeard = "rssi ";
    if (e.detail.compare(0, kHeard.size(), kHeard) != 0) return;
    int rssi = 0;
    const char* digits = e.detail.data() + kHeard.size();
    if (std::from_chars(digits, e.detail.data() + e.detail.size(), rssi).ec != std::errc{}) return;
    const auto adva = pcap::addressBytes(e.from);
    if (!adva) return;
    rssi_[e.from] = rssi;

    const auto [adv, response] = pcap::splitAdvertisingData(e.payload);
    std::uint8_t type = connectable ? kAdvInd : kAdvNonconnInd;
    if (!connectable && !response.empty()) type = kAdvScanInd;
    Packet p;
    p.at = e.time;
    p.rssi = rssi;
    p.pdu = advertisingPdu(type, *adva, nullptr, adv);
    Nanos end = write(p);
    if (response.empty()) return;

    const Address scanner = *pcap::addressBytes(kScannerAddress);
    Packet request;
    request.at = end + kInterFrameSpace;
    request.pdu = advertisingPdu(kScanReq, scanner, &*adva, {});
    end = write(request);
    Packet reply;
    reply.at = end + kInterFrameSpace;
    reply.rssi = rssi;
    reply.pdu = advertisingPdu(kScanRsp, *adva, nullptr, response);
    write(reply);
  }

  static std::pair<std::string, std::string> key(const std::string& a, const std::string& b) {
    return a < b ? std::pair{a, b} : std::pair{b, a};
  }

  Link* linkBetween(const std::string& a, const std::string& b) {
    auto it = links_.find(key(a, b));
    return it == links_.end() ? nullptr : &it->second;
  }

  void connect(const TraceEvent& e) {
    if (e.detail != "connected") return;  // refused or failed: no link came up
    const auto initiator = pcap::addressBytes(e.from);
    const auto advertiser = pcap::addressBytes(e.to);
    if (!initiator || !advertiser) return;

    Link link;
    link.central = e.from;
    link.peripheral = e.to;
    do {
      link.accessAddress = static_cast<std::uint32_t>(splitmix(random_));
    } while (!usableAccessAddress(link.accessAddress));
    const std::uint64_t more = splitmix(random_);
    link.crcInit = static_cast<std::uint32_t>(more & 0xFFFFFF);
    link.hop = static_cast<std::uint8_t>(5 + (more >> 32) % 12);

    Bytes data;
    putLe(data, link.accessAddress, 4);
    putLe(data, link.crcInit, 3);
    data.push_back(kWindowSize);
    putLe(data, 0, 2);  // window offset
    putLe(data, kIntervalUnits, 2);
    putLe(data, 0, 2);  // peripheral latency
    putLe(data, kTimeoutUnits, 2);
    putLe(data, 0x1FFFFFFFFFull, 5);  // every data channel in use
    data.push_back(static_cast<std::uint8_t>(link.hop | (kSleepClockAccuracy << 5)));
    Packet p;
    p.at = e.time;
    p.pdu = advertisingPdu(kConnectInd, *initiator, &*advertiser, data);
    link.nextEvent = write(p) + std::chrono::microseconds(1250);
    links_[key(e.from, e.to)] = std::move(link);
  }

  // One connection event: the central sends, the peripheral answers; the
  // side with nothing to say sends an empty PDU. Every exchange succeeds, so
  // in event k both sides send sequence number k mod 2 and the central
  // expects k mod 2 next, the peripheral k + 1 mod 2.
  void event(Link& link, Nanos at, bool centralSends, std::uint8_t llid, const Bytes& payload) {
    const std::uint32_t k = link.events++;
    link.unmapped = static_cast<std::uint8_t>((link.unmapped + link.hop) % 37);
    const auto header = [](std::uint8_t id, std::uint32_t nesn, std::uint32_t sn,
                           const Bytes& body) {
      Bytes pdu{static_cast<std::uint8_t>(id | (nesn & 1u) << 2 | (sn & 1u) << 3),
                static_cast<std::uint8_t>(body.size())};
      pdu.insert(pdu.end(), body.begin(), body.end());
      return pdu;
    };
    Packet m;
    m.at = std::max(at, link.nextEvent);
    m.channel = link.unmapped;
    m.accessAddress = link.accessAddress;
    m.crcInit = link.crcInit;
    m.direction = Direction::CentralToPeripheral;
    m.rssi = rssiOf(link.central);
    m.pdu = header(centralSends ? llid : kContinuation, k, k, centralSends ? payload : Bytes{});
    const Nanos end = write(m);
    Packet s = m;
    s.at = end + kInterFrameSpace;
    s.direction = Direction::PeripheralToCentral;
    s.rssi = rssiOf(link.peripheral);
    s.pdu = header(centralSends ? kContinuation : llid, k + 1, k, centralSends ? Bytes{} : payload);
    link.nextEvent = write(s) + std::chrono::microseconds(1250);
  }

  // An L2CAP PDU in as many events as its fragments need.
  void send(Link& link, Nanos at, bool centralSends, const Bytes& l2cap) {
    for (std::size_t at0 = 0; at0 < l2cap.size(); at0 += kMaxDataPayload) {
      const std::size_t n = std::min(kMaxDataPayload, l2cap.size() - at0);
      const Bytes part(l2cap.begin() + static_cast<std::ptrdiff_t>(at0),
                       l2cap.begin() + static_cast<std::ptrdiff_t>(at0 + n));
      event(link, at, centralSends, at0 == 0 ? kL2capStart : kContinuation, part);
    }
  }

  void request(const TraceEvent& e) {
    Link* link = linkBetween(e.from, e.to);
    const auto parsed = handleAndRest(e.detail);
    if (!link || !parsed) return;
    const auto [handle, rest] = *parsed;
    if (e.kind == "read") {
      // A virtual central's read names its offset ("offset 4").
      constexpr std::string_view kOffset = "offset ";
      std::uint16_t offset = 0;
      if (rest.substr(0, kOffset.size()) == kOffset) {
        std::from_chars(rest.data() + kOffset.size(), rest.data() + rest.size(), offset);
      }
      if (offset == 0) {
        link->requests.push_back({kReadReq, handle});
        send(*link, e.time, true, attPdu(kReadReq, handle));
      } else {
        link->requests.push_back({kReadBlobReq, handle});
        Bytes offsetBytes;
        putLe(offsetBytes, offset, 2);
        send(*link, e.time, true, attPdu(kReadBlobReq, handle, offsetBytes));
      }
    } else if (rest == "without response") {
      send(*link, e.time, true, attPdu(kWriteCmd, handle, e.payload));
    } else {
      // A batch of a virtual central arrives joined: one request for all.
      link->requests.push_back({kWriteReq, handle});
      send(*link, e.time, true, attPdu(kWriteReq, handle, e.payload));
    }
  }

  void answer(const TraceEvent& e) {
    Link* link = linkBetween(e.from, e.to);
    const auto parsed = handleAndRest(e.detail);
    if (!link || !parsed) return;
    const auto [handle, rest] = *parsed;
    auto asked = std::find_if(link->requests.begin(), link->requests.end(),
                              [h = handle](const Request& r) { return r.handle == h; });
    if (asked == link->requests.end()) return;  // the rest of a batch: already answered
    const Request r = *asked;
    link->requests.erase(asked);
    Bytes l2cap;
    if (!rest.empty() && rest != "written") {
      l2cap = attPdu(kErrorRsp, std::nullopt,
                     Bytes{r.opcode, static_cast<std::uint8_t>(handle & 0xFF),
                           static_cast<std::uint8_t>(handle >> 8), attCodeOf(rest)});
    } else if (r.opcode == kWriteReq) {
      l2cap = attPdu(kWriteRsp, std::nullopt);
    } else {
      l2cap = attPdu(r.opcode == kReadReq ? kReadRsp : kReadBlobRsp, std::nullopt, e.payload);
    }
    send(*link, e.time, false, l2cap);
  }

  void notify(const TraceEvent& e) {
    Link* link = linkBetween(e.from, e.to);
    const auto parsed = handleAndRest(e.detail);
    if (!link || !parsed) return;
    send(*link, e.time, false, attPdu(kNotification, parsed->first, e.payload));
  }

  void disconnect(const TraceEvent& e) {
    auto it = links_.find(key(e.from, e.to));
    if (it == links_.end()) return;
    Link& link = it->second;
    const Bytes terminate{kTerminateInd, kRemoteUserTerminated};
    if (e.detail == "cancelled" || e.detail == "requested") {
      event(link, e.time, true, kControl, terminate);
    } else if (e.detail == "dropped: " + detail::peerGoneError().text) {
      event(link, e.time, false, kControl, terminate);
    }
    // Any other drop (a time-out, the adapter powering off) is silence.
    links_.erase(it);
  }

  const std::string path_;
  std::FILE* const file_;
  const std::chrono::system_clock::time_point epoch_;
  const ConnectableLookup connectable_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  bool ok_ = true;
  std::size_t packets_ = 0;
  Nanos cursor_{0};
  std::uint64_t random_ = 0x4C554D4F5241ull;  // link parameters, the same every run
  std::map<std::string, int> rssi_;           // last heard, by advertiser
  std::map<std::pair<std::string, std::string>, Link> links_;
};

Capture::Capture(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Capture::~Capture() = default;

std::shared_ptr<Capture> Capture::open(const std::string& path,
                                       std::chrono::system_clock::time_point epoch,
                                       ConnectableLookup connectable) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) throw CaptureError(path + ": cannot create: " + std::strerror(errno));
  auto impl = std::make_unique<Impl>(path, file, epoch, std::move(connectable));
  if (!impl->writeHeader()) throw CaptureError(path + ": cannot write: " + std::strerror(errno));
  return std::shared_ptr<Capture>(new Capture(std::move(impl)));
}

std::shared_ptr<Capture> Capture::start(const std::shared_ptr<Air>& air, const std::string& path) {
  if (!air) throw std::invalid_argument("Capture::start needs an air");
  // Whether an advertiser takes connections is the air's state, not its
  // trace: asked under the air's lock, which trace sinks never hold.
  std::weak_ptr<detail::AirImpl> weak = std::dynamic_pointer_cast<detail::AirImpl>(air);
  ConnectableLookup connectable = [weak](const std::string& address) -> std::optional<bool> {
    auto inside = weak.lock();
    if (!inside) return std::nullopt;
    std::lock_guard lock(inside->mutex_);
    if (auto device = inside->deviceLocked(address)) return device->connectable;
    if (inside->peripheralAtLocked(address)) return true;
    return std::nullopt;
  };
  const auto epoch = std::chrono::system_clock::now() -
                     std::chrono::duration_cast<std::chrono::system_clock::duration>(air->now());
  auto capture = open(path, epoch, std::move(connectable));
  air->setTraceSink([capture](const TraceEvent& e) { capture->onTrace(e); });
  return capture;
}

void Capture::onTrace(const TraceEvent& event) {
  impl_->onTrace(event);
}

std::size_t Capture::packets() const {
  return impl_->packets();
}

bool Capture::ok() const {
  return impl_->ok();
}

const std::string& Capture::path() const {
  return impl_->path();
}

}  // namespace lumora::sim
