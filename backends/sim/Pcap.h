// Captures of the simulated air that Wireshark and tshark read.
//
//   auto air = lumora::sim::Air::create();
//   auto capture = lumora::sim::Capture::start(air, "air.pcap");
//   ... run the application on the air ...
//   // every packet is on disk as soon as it crossed the air; the file is
//   // closed when the air and `capture` are both gone.
//
// What crosses the air is written as a sniffer sitting next to the local
// adapter would have recorded it, in a pcap file of link type 256
// (LINKTYPE_BLUETOOTH_LE_LL_WITH_PHDR): a 10-byte RF pseudo-header (RF
// channel, signal power, access-address check, direction), then the link
// layer packet itself (access address, PDU header and payload, CRC).
//
// - Advertising, on channel 37: ADV_IND for an advertiser that takes
//   connections, ADV_NONCONN_IND for one that does not. Advertising data that
//   would not fit the 31 bytes of a legacy advertisement is split as a host
//   splits it for its controller: the local name (then, while the
//   advertisement is still too long, the last structures that fit there)
//   moves to the scan response, which the local adapter's scanner asks for
//   (SCAN_REQ, then SCAN_RSP); an advertiser that answers scan requests but
//   takes no connections sends ADV_SCAN_IND, since ADV_NONCONN_IND cannot be
//   scanned. Lost advertisements were not heard and are not written.
// - Connections: CONNECT_IND, then one connection event per exchange on the
//   data channels (channel selection #1 over all 37 channels), with the
//   L2CAP/ATT PDUs of reads, writes, their answers and notifications, and
//   LL_TERMINATE_IND when a side ends the link. A link lost to a time-out or
//   to the adapter powering off simply falls silent, as it would on the air.
//   Service discovery is not written (the trace keeps no attribute list).
//
// Threads: onTrace() may be called from any thread (the air calls it on its
// own thread and on the callers of VirtualCentral operations); a capture
// holds its own lock and never calls back into application code.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "Foundation/Bytes.h"
#include "backends/sim/Air.h"

namespace lumora::sim {

/// The capture file cannot be opened or written.
class CaptureError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Capture {
 public:
  /// Tells whether the advertiser at an address takes connections; empty
  /// when the address is unknown (it is then taken as not connectable).
  using ConnectableLookup = std::function<std::optional<bool>(const std::string& address)>;

  /// Opens (truncating) `path` and makes the capture the air's trace sink,
  /// replacing any sink set before (an application that wants a sink of its
  /// own too calls onTrace() from it). Packet times are the wall clock of
  /// now plus the air time passed since. Throws CaptureError when the file
  /// cannot be created.
  static std::shared_ptr<Capture> start(const std::shared_ptr<Air>& air, const std::string& path);

  /// A capture fed only through onTrace(): air time zero is `epoch`.
  static std::shared_ptr<Capture> open(const std::string& path,
                                       std::chrono::system_clock::time_point epoch,
                                       ConnectableLookup connectable = {});

  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /// Writes the packets one trace line stands for (none for most kinds).
  void onTrace(const TraceEvent& event);

  /// Packets written so far.
  std::size_t packets() const;
  /// False once a write failed (a full disk): nothing more is written.
  bool ok() const;
  const std::string& path() const;

 private:
  class Impl;
  explicit Capture(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// The link layer's wire format, as the capture writes it.
namespace pcap {

/// Link type 256: LINKTYPE_BLUETOOTH_LE_LL_WITH_PHDR.
inline constexpr std::uint32_t kLinkType = 256;
inline constexpr std::uint32_t kAdvertisingAccessAddress = 0x8E89BED6;
inline constexpr std::uint32_t kAdvertisingCrcInit = 0x555555;
/// Legacy advertising data and scan response data are at most this long.
inline constexpr std::size_t kMaxAdvertisingData = 31;

/// The CRC of a PDU (header and payload) as it goes on the air, first byte
/// first: the 24-bit LFSR of the link layer preset with `init` (0x555555 on
/// the advertising channels, the connection's CRCInit on a link).
std::array<std::uint8_t, 3> crc24(const Bytes& pdu, std::uint32_t init);

/// The RF channel (0..39, (MHz - 2402) / 2) of a channel index: advertising
/// channels 37, 38, 39 are RF 0, 12, 39; data channels fill the rest in order.
std::uint8_t rfChannel(std::uint8_t channelIndex);

/// Splits advertising data (AD structures) into what fits an advertisement
/// and what goes to the scan response, each at most 31 bytes. Data that fits
/// stays whole with an empty response. Otherwise the local name goes to the
/// response (shortened, type 0x08, if it is too long even there); then, as
/// long as the advertisement is too long, the last structure after the flags
/// that still fits the response moves there, and one that fits nowhere is
/// left out. Each part keeps the original order. A malformed structure ends
/// the data.
std::pair<Bytes, Bytes> splitAdvertisingData(const Bytes& data);

/// A device address as the link layer sends it (least significant byte
/// first) from its "C0:FF:EE:00:00:01" text; empty for other text.
std::optional<std::array<std::uint8_t, 6>> addressBytes(const std::string& text);

}  // namespace pcap

}  // namespace lumora::sim
