// Captures of the air: the link layer's wire format (CRC, channels,
// addresses, the advertising split), and the pcap file a scripted trace
// turns into, read back packet by packet.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>

#include "Recorders.h"
#include "backends/sim/Pcap.h"
#include "support/TempDir.h"

namespace lumora::sim::test {
namespace {

Bytes hex(std::string_view text) {
  return bytesFromHex(text).value();
}

std::string hexOf(const std::uint8_t* data, std::size_t size) {
  std::string out;
  char two[3];
  for (std::size_t i = 0; i < size; ++i) {
    std::snprintf(two, sizeof two, "%02X", data[i]);
    out += two;
  }
  return out;
}

std::uint32_t le(const Bytes& b, std::size_t at, int bytes) {
  std::uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | b.at(at + static_cast<std::size_t>(i));
  return v;
}

// --- Wire format ---------------------------------------------------------------

struct CrcCase {
  const char* what;
  const char* pdu;  // header and payload
  const char* crc;  // as sent, first byte first
};

TEST(CaptureWire, CrcMatchesKnownPackets) {
  const CrcCase cases[] = {
      // Heard on channel 37 by a hardware sniffer: ADV_IND, random AdvA
      // 76:FE:16:50:95:4D, flags 1A, Apple manufacturer data type 0x10.
      {"captured ADV_IND", "4014 4D955016FE76 02011A 0AFF4C0010050B1C0EA836", "5AF004"},
      // Worked by another implementation of the link layer's CRC.
      {"empty ADV_IND", "0006 000000000000", "5A3960"},
      {"SCAN_REQ", "030C AAAAAAAAAAAA BBBBBBBBBBBB", "07B261"},
  };
  for (const auto& c : cases) {
    const auto crc = pcap::crc24(hex(c.pdu), pcap::kAdvertisingCrcInit);
    EXPECT_EQ(hexOf(crc.data(), crc.size()), c.crc) << c.what;
  }
  // The register starts from the connection's CRCInit, not a constant.
  EXPECT_NE(pcap::crc24(hex("0100"), 0x123456), pcap::crc24(hex("0100"), 0x654321));
}

TEST(CaptureWire, ChannelsAndAddresses) {
  const std::pair<int, int> channels[] = {{37, 0},  {38, 12}, {39, 39}, {0, 1},
                                          {10, 11}, {11, 13}, {36, 38}, {40, 0xFF}};
  for (auto [index, rf] : channels) {
    EXPECT_EQ(pcap::rfChannel(static_cast<std::uint8_t>(index)), rf) << "channel " << index;
  }
  const auto a = pcap::addressBytes("C0:FF:EE:00:00:1a");
  ASSERT_TRUE(a);
  EXPECT_EQ(hexOf(a->data(), a->size()), "1A0000EEFFC0");
  for (const char* bad : {"", "C0:FF:EE:00:00", "C0-FF-EE-00-00-01", "G0:FF:EE:00:00:01",
                          "C0:FF:EE:00:00:01:02", "C0:FF:EE:00:00:+1"}) {
    EXPECT_FALSE(pcap::addressBytes(bad)) << bad;
  }
}

// Flags, the name "Near" and an iBeacon frame: 36 bytes, too long for one
// advertisement.
constexpr const char* kFlags = "020106";
constexpr const char* kName = "05094E656172";
constexpr const char* kBeacon =
    "1AFF 4C00 0215 E2C56DB5DFFB48D2B060D0F5A71096E0 0001 0002 C5";  // company, type, uuid, ...

std::string repeat(std::string_view piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

struct SplitCase {
  const char* what;
  std::string data;
  std::string adv;
  std::string rsp;
};

TEST(CaptureWire, AdvertisingDataIsSplitAsAHostWould) {
  const std::string flags = kFlags;
  const std::string beacon = "1AFF4C000215E2C56DB5DFFB48D2B060D0F5A71096E000010002C5";
  const std::string uuids = "0B030F180A180D1819181A18";  // five 16-bit service UUIDs
  const SplitCase cases[] = {
      {"fits", flags + kBeacon, flags + beacon, ""},
      {"the name moves", flags + kName + kBeacon, flags + beacon, kName},
      {"then the last structure that fits there", flags + kName + uuids + kBeacon, flags + beacon,
       kName + uuids},
      {"what fits nowhere is left out", flags + kName + kBeacon + "1BFF" + repeat("00", 26),
       flags + beacon, kName},
      {"a name too long is shortened", flags + "2209" + repeat("41", 33) + kBeacon, flags + beacon,
       "1E08" + repeat("41", 29)},
      {"a malformed tail is dropped", flags + "05094E65", flags, ""},
      {"a zero length ends the data", flags + "00" + kName, flags, ""},
  };
  for (const auto& c : cases) {
    const auto [adv, rsp] = pcap::splitAdvertisingData(hex(c.data));
    EXPECT_EQ(hexOf(adv.data(), adv.size()), c.adv) << c.what;
    EXPECT_EQ(hexOf(rsp.data(), rsp.size()), c.rsp) << c.what;
    EXPECT_LE(adv.size(), pcap::kMaxAdvertisingData) << c.what;
    EXPECT_LE(rsp.size(), pcap::kMaxAdvertisingData) << c.what;
  }
}

// --- The file ------------------------------------------------------------------------

struct Record {
  std::uint64_t micros = 0;
  Bytes phdr;  // the 10-byte RF header
  std::uint32_t accessAddress = 0;
  Bytes pdu;
  Bytes crc;
};

// Reads a capture back, checking the layout of every record on the way.
std::vector<Record> readCapture(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const Bytes file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::vector<Record> out;
  EXPECT_GE(file.size(), 24u);
  if (file.size() < 24) return out;
  EXPECT_EQ(le(file, 0, 4), 0xA1B2C3D4u);  // microsecond times, little-endian
  EXPECT_EQ(le(file, 4, 2), 2u);
  EXPECT_EQ(le(file, 6, 2), 4u);
  EXPECT_EQ(le(file, 16, 4), 0xFFFFu);
  EXPECT_EQ(le(file, 20, 4), pcap::kLinkType);
  for (std::size_t at = 24; at < file.size();) {
    const std::size_t size = le(file, at + 8, 4);
    EXPECT_EQ(le(file, at + 12, 4), size);
    const std::size_t body = at + 16;
    EXPECT_LE(body + size, file.size());
    EXPECT_GE(size, 10u + 4 + 2 + 3);
    if (body + size > file.size() || size < 19) break;
    Record r;
    r.micros = std::uint64_t{le(file, at, 4)} * 1000000 + le(file, at + 4, 4);
    r.phdr.assign(file.begin() + static_cast<std::ptrdiff_t>(body),
                  file.begin() + static_cast<std::ptrdiff_t>(body + 10));
    r.accessAddress = le(file, body + 10, 4);
    r.pdu.assign(file.begin() + static_cast<std::ptrdiff_t>(body + 14),
                 file.begin() + static_cast<std::ptrdiff_t>(body + size - 3));
    r.crc.assign(file.begin() + static_cast<std::ptrdiff_t>(body + size - 3),
                 file.begin() + static_cast<std::ptrdiff_t>(body + size));
    EXPECT_EQ(r.pdu.size(), 2u + r.pdu.at(1)) << "PDU length field";
    out.push_back(std::move(r));
    at = body + size;
  }
  return out;
}

std::string addressText(const Bytes& pdu, std::size_t at) {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", pdu[at + 5], pdu[at + 4],
                pdu[at + 3], pdu[at + 2], pdu[at + 1], pdu[at]);
  return text;
}

// "ADV_IND C0:FF:EE:00:00:10 0201..." or "M>S start 0600040012...".
std::string summary(const Record& r) {
  const std::uint16_t direction = (le(r.phdr, 8, 2) >> 7) & 7;
  if (direction == 0) {
    static const std::map<int, std::string> names = {{0, "ADV_IND"},     {2, "ADV_NONCONN_IND"},
                                                     {3, "SCAN_REQ"},    {4, "SCAN_RSP"},
                                                     {5, "CONNECT_IND"}, {6, "ADV_SCAN_IND"}};
    const int type = r.pdu[0] & 0x0F;
    std::string text = names.at(type) + " " + addressText(r.pdu, 2);
    if (type == 3 || type == 5) return text + " " + addressText(r.pdu, 8);
    return text + " " + hexOf(r.pdu.data() + 8, r.pdu.size() - 8);
  }
  std::string text = direction == 2 ? "M>S " : "S>M ";
  const int llid = r.pdu[0] & 3;
  if (llid == 1 && r.pdu[1] == 0) return text + "empty";
  text += llid == 1 ? "continue " : llid == 2 ? "start " : "control ";
  return text + hexOf(r.pdu.data() + 2, r.pdu.size() - 2);
}

constexpr const char* kBeaconAddress = "C0:FF:EE:00:00:01";
constexpr const char* kDevice = "C0:FF:EE:00:00:10";
constexpr const char* kCentral = "5C:00:00:00:00:02";

struct Step {
  TraceEvent event;
  std::vector<std::string> packets;  // what it adds to the file, in order
};

TraceEvent trace(std::string kind, std::string from, std::string to, std::string detail,
                 std::string payload = "") {
  TraceEvent e;
  e.kind = std::move(kind);
  e.from = std::move(from);
  e.to = std::move(to);
  e.detail = std::move(detail);
  e.payload = hex(payload);
  return e;
}

TEST(CaptureFile, ATraceBecomesTheLinkLayerPackets) {
  const std::string beaconAd = std::string(kFlags) + kName + kBeacon;
  const std::string beaconAdv = "0201061AFF4C000215E2C56DB5DFFB48D2B060D0F5A71096E000010002C5";
  const std::string thirty(60, '1');
  const std::string lostCause = "dropped: The connection has timed out unexpectedly.";
  const std::string goneCause = "dropped: The specified device has disconnected from us.";
  const std::string refusal = "Reading is not permitted.";  // the air's wording of ATT 0x02

  const std::vector<Step> script = {
      {trace("adv", kBeaconAddress, "", "rssi -60", beaconAd),
       {"ADV_SCAN_IND C0:FF:EE:00:00:01 " + beaconAdv,
        "SCAN_REQ 5C:00:00:00:00:01 C0:FF:EE:00:00:01", "SCAN_RSP C0:FF:EE:00:00:01 05094E656172"}},
      {trace("adv", kBeaconAddress, "", "lost", beaconAd), {}},
      {trace("adv", "C0:FF:EE:00:00:02", "", "rssi -75", std::string(kFlags) + kBeacon),
       {"ADV_NONCONN_IND C0:FF:EE:00:00:02 " + beaconAdv}},
      {trace("adv", kDevice, "", "rssi -70", "020106 0B094C756D6F726144656D6F"),
       {"ADV_IND C0:FF:EE:00:00:10 0201060B094C756D6F726144656D6F"}},
      {trace("adv", "not an address", "", "rssi -70", kFlags), {}},
      {trace("connect", kCentral, kDevice, "refused"), {}},
      {trace("connect", kCentral, kDevice, "connected"),
       {"CONNECT_IND 5C:00:00:00:00:02 C0:FF:EE:00:00:10"}},
      // L2CAP length and channel 4, then the ATT PDU: Write Request of 01 02 03 to 0x0003.
      {trace("write", kCentral, kDevice, "0x0003", "010203"),
       {"M>S start 06000400120300010203", "S>M empty"}},
      {trace("answer", kCentral, kDevice, "0x0003 written"), {"M>S empty", "S>M start 0100040013"}},
      {trace("read", kCentral, kDevice, "0x0005"), {"M>S start 030004000A0500", "S>M empty"}},
      {trace("answer", kDevice, kCentral, "0x0005", "4C756D6F7261"),
       {"M>S empty", "S>M start 070004000B4C756D6F7261"}},
      {trace("read", kCentral, kDevice, "0x0009 offset 4"),
       {"M>S start 050004000C09000400", "S>M empty"}},
      // Error Response: the request's opcode (Read Blob), its handle, the code.
      {trace("answer", kDevice, kCentral, "0x0009 " + refusal),
       {"M>S empty", "S>M start 05000400010C090002"}},
      {trace("answer", kDevice, kCentral, "0x0007"), {}},
      {trace("notify", kDevice, kCentral, "0x0003 echo", "010203"),
       {"M>S empty", "S>M start 060004001B0300010203"}},
      {trace("write", kCentral, kDevice, "0x0003 without response", "AA"),
       {"M>S start 04000400520300AA", "S>M empty"}},
      // 37 bytes of L2CAP: 27 in the first PDU, the rest in a continuation.
      {trace("write", kCentral, kDevice, "0x0003", thirty),
       {"M>S start 21000400120300" + thirty.substr(0, 40), "S>M empty",
        "M>S continue " + thirty.substr(40), "S>M empty"}},
      {trace("disconnect", kCentral, kDevice, "requested"), {"M>S control 0213", "S>M empty"}},
      {trace("write", kCentral, kDevice, "0x0003", "01"), {}},
      {trace("connect", kCentral, kDevice, "connected"),
       {"CONNECT_IND 5C:00:00:00:00:02 C0:FF:EE:00:00:10"}},
      {trace("disconnect", kCentral, kDevice, goneCause), {"M>S empty", "S>M control 0213"}},
      {trace("connect", kCentral, kDevice, "connected"),
       {"CONNECT_IND 5C:00:00:00:00:02 C0:FF:EE:00:00:10"}},
      {trace("disconnect", kCentral, kDevice, lostCause), {}},
  };

  lumora::test::TempDir dir;
  const std::string path = dir.file("air.pcap").string();
  const auto epoch = std::chrono::system_clock::time_point(std::chrono::seconds(1000));
  std::vector<std::string> expected;
  {
    auto capture = Capture::open(path, epoch, [](const std::string& address) {
      return address == kDevice          ? std::optional<bool>(true)
             : address == kBeaconAddress ? std::optional<bool>(false)
                                         : std::nullopt;
    });
    Nanos t{0};
    for (const Step& step : script) {
      TraceEvent e = step.event;
      e.time = t;
      t += std::chrono::milliseconds(10);
      capture->onTrace(e);
      expected.insert(expected.end(), step.packets.begin(), step.packets.end());
    }
    EXPECT_EQ(capture->packets(), expected.size());
    EXPECT_TRUE(capture->ok());
  }

  const auto records = readCapture(path);
  std::vector<std::string> seen;
  for (const Record& r : records) seen.push_back(summary(r));
  EXPECT_EQ(seen, expected);
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front().micros, 1000000000u);  // the epoch plus the first event's time

  // What a reader checks packet by packet: the CRC with the channel's (or
  // the announced connection's) CRCInit, the reference access address, the
  // channel, the signal of what was heard, the sequence numbers, the times.
  std::map<std::uint32_t, std::uint32_t> crcInitOf;
  std::map<std::uint32_t, int> lastCentralSn;
  std::uint64_t lastMicros = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Record& r = records[i];
    const std::string what = "packet " + std::to_string(i) + ": " + seen[i];
    const std::uint16_t flags = static_cast<std::uint16_t>(le(r.phdr, 8, 2));
    const bool advertising = r.accessAddress == pcap::kAdvertisingAccessAddress;
    EXPECT_EQ(le(r.phdr, 4, 4), r.accessAddress) << what;
    EXPECT_EQ(flags & 0x0031, 0x0031) << what;  // dewhitened, reference and offenses valid
    EXPECT_GE(r.micros, lastMicros) << what;
    lastMicros = r.micros;
    if (advertising) {
      EXPECT_EQ(r.phdr[0], 0) << what;  // channel 37
      if ((r.pdu[0] & 0x0F) == 5) crcInitOf[le(r.pdu, 14, 4)] = le(r.pdu, 18, 3);
    } else {
      EXPECT_NE(r.phdr[0], 0) << what;
      EXPECT_NE(r.phdr[0], 12) << what;
      EXPECT_LT(r.phdr[0], 39) << what;
      ASSERT_TRUE(crcInitOf.count(r.accessAddress)) << what << ": no CONNECT_IND announced it";
      const int sn = (r.pdu[0] >> 3) & 1;
      const int nesn = (r.pdu[0] >> 2) & 1;
      if (((flags >> 7) & 7) == 2) {
        auto last = lastCentralSn.find(r.accessAddress);
        if (last != lastCentralSn.end()) {
          EXPECT_NE(sn, last->second) << what;
        }
        lastCentralSn[r.accessAddress] = sn;
        ASSERT_LT(i + 1, records.size()) << what << ": no answer";
        EXPECT_EQ(records[i + 1].phdr[0], r.phdr[0]) << what << ": the answer's channel";
      } else {
        EXPECT_NE(nesn, lastCentralSn[r.accessAddress]) << what << ": acknowledges";
      }
    }
    const std::uint32_t init = advertising ? pcap::kAdvertisingCrcInit : crcInitOf[r.accessAddress];
    const auto crc = pcap::crc24(r.pdu, init);
    EXPECT_EQ(r.crc, Bytes(crc.begin(), crc.end())) << what;
  }
  // Heard packets carry their signal; the local side's own do not.
  EXPECT_EQ(static_cast<std::int8_t>(records[0].phdr[1]), -60);
  EXPECT_TRUE(le(records[0].phdr, 8, 2) & 0x0002);
  EXPECT_FALSE(le(records[1].phdr, 8, 2) & 0x0002);              // the local scanner's SCAN_REQ
  EXPECT_EQ(static_cast<std::int8_t>(records[7].phdr[1]), -70);  // the device's first S>M
}

TEST(CaptureFile, AScenarioCapturesItsAirUntilTheAirGoes) {
  lumora::test::TempDir dir;
  const std::string path = dir.file("scenario.pcap").string();
  auto air = loadScenario(R"({"capture": ")" + path + R"(", "devices": [
      {"address": "C0:FF:EE:00:00:01", "noiseSigma": 0, "distance": 1,
       "ibeacon": {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": 2}}]})");
  air->advance(std::chrono::seconds(1));
  air.reset();
  const auto records = readCapture(path);
  ASSERT_GE(records.size(), 8u);
  for (const Record& r : records) {
    EXPECT_EQ(summary(r), "ADV_NONCONN_IND C0:FF:EE:00:00:01 " + std::string(kFlags) +
                              "1AFF4C000215E2C56DB5DFFB48D2B060D0F5A71096E000010002C5");
    EXPECT_EQ(static_cast<std::int8_t>(r.phdr[1]), -59);
  }

  for (const auto& [json, message] : std::vector<std::pair<std::string, std::string>>{
           {R"({"capture": ""})", "capture: expected a file name"},
           {R"({"capture": 7})", "capture: expected a string"},
           {R"({"capture": ")" + dir.file("no/such/folder.pcap").string() + "\"}",
            "capture: " + dir.file("no/such/folder.pcap").string() + ": cannot create"}}) {
    try {
      loadScenario(json);
      ADD_FAILURE() << "accepted " << json;
    } catch (const ScenarioError& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
  }
}

}  // namespace
}  // namespace lumora::sim::test
