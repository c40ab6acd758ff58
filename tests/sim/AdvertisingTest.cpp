// Advertising in the simulated air: determinism, the path-loss model,
// packet loss, movement, power and scan filters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "Recorders.h"

namespace lumora::sim::test {
namespace {

DeviceConfig beacon(std::string address, double distance) {
  DeviceConfig c;
  c.address = std::move(address);
  c.localName = "B-" + c.address.substr(15);
  c.manufacturerData = Bytes{0x4C, 0x00, 0x02, 0x15, 0x01};
  c.distance = distance;
  return c;
}

std::shared_ptr<Air> noisyAir(std::uint64_t seed) {
  auto air = Air::create({.seed = seed});
  air->setTraceLimit(100000);
  auto a = beacon("C0:00:00:00:00:01", 2.0);
  a.packetLoss = 0.2;
  air->addDevice(a);
  air->addDevice(beacon("C0:00:00:00:00:02", 5.0));
  air->addDevice(beacon("C0:00:00:00:00:03", 0.5));
  return air;
}

std::vector<std::string> traceLines(const Air& air) {
  std::vector<std::string> lines;
  for (const auto& e : air.trace()) {
    lines.push_back(std::to_string(e.time.count()) + " " + e.kind + " " + e.from + " " + e.to +
                    " " + e.detail + " " + description(e.payload));
  }
  return lines;
}

// The trace carries each advertisement's time, payload and RSSI (or its loss).
TEST(AirAdvertising, SameSeedGivesTheSameTraceAndAnotherSeedAnother) {
  std::vector<std::vector<std::string>> traces;
  for (std::uint64_t seed : {7, 7, 8}) {
    auto air = noisyAir(seed);
    ReportSink sink;
    sink.observe(*air);
    air->advance(3s);
    traces.push_back(traceLines(*air));
  }
  ASSERT_GT(traces[0].size(), 60u);
  EXPECT_EQ(traces[0], traces[1]);
  EXPECT_NE(traces[0], traces[2]);
}

struct PathLossCase {
  double distance;
  int txPower;
  double exponent;
  double sigma;
  double expected;  // mean dBm
};

class AirPathLoss : public ::testing::TestWithParam<PathLossCase> {};

TEST_P(AirPathLoss, MeanRssiFollowsTheLogDistanceModel) {
  const PathLossCase p = GetParam();
  auto air = Air::create({.seed = 3});
  DeviceConfig c = beacon("C0:00:00:00:00:01", p.distance);
  c.txPowerAt1m = p.txPower;
  c.pathLossExponent = p.exponent;
  c.rssiNoiseSigma = p.sigma;
  air->addDevice(c);
  air->setTraceLimit(0);
  ReportSink sink;
  sink.observe(*air);
  air->advance(120s);

  ASSERT_GT(sink.reports->size(), 1000u);
  EXPECT_NEAR(sink.meanRssi(c.address), p.expected, 0.3);
  for (const auto& r : *sink.reports) {
    ASSERT_GE(r.rssi, -127);
    ASSERT_LE(r.rssi, 20);
  }
}

INSTANTIATE_TEST_SUITE_P(Model, AirPathLoss,
                         ::testing::Values(PathLossCase{1.0, -59, 2.0, 2.0, -59.0},
                                           PathLossCase{4.0, -59, 2.0, 2.0,
                                                        -59.0 - 20.0 * std::log10(4.0)},
                                           PathLossCase{10.0, -65, 3.0, 1.0, -95.0},
                                           // Closer than 10 cm counts as 10 cm.
                                           PathLossCase{0.01, -59, 2.0, 0.0, -39.0},
                                           // Below the controller's range the reading is clamped.
                                           PathLossCase{1000.0, -59, 4.0, 0.0, -127.0}));

// One advertisement per interval plus a random delay of up to 10 ms; packet
// loss drops that share of them, as the trace shows.
TEST(AirAdvertising, AdvertisementsComeOncePerIntervalLessThoseLost) {
  auto air = Air::create({.seed = 11});
  DeviceConfig c = beacon("C0:00:00:00:00:01", 1.0);
  c.advertisingInterval = 100ms;
  c.packetLoss = 0.3;
  air->addDevice(c);
  air->setTraceLimit(100000);
  ReportSink sink;
  sink.observe(*air);
  air->advance(300s);

  std::vector<Nanos> sent;
  std::size_t lost = 0;
  for (const auto& e : air->trace()) {
    if (e.kind != "adv") continue;
    sent.push_back(e.time);
    if (e.detail == "lost") ++lost;
  }
  ASSERT_GT(sent.size(), 2500u);
  for (std::size_t i = 1; i < sent.size(); ++i) {
    ASSERT_GE(sent[i] - sent[i - 1], 100ms);
    ASSERT_LE(sent[i] - sent[i - 1], 110ms);
  }
  EXPECT_EQ(sink.reports->size(), sent.size() - lost);
  EXPECT_NEAR(static_cast<double>(lost) / static_cast<double>(sent.size()), 0.3, 0.03);
}

TEST(AirAdvertising, MovementAlongWaypointsChangesRssi) {
  auto air = Air::create({.seed = 2});
  DeviceConfig c = beacon("C0:00:00:00:00:01", 1.0);
  c.rssiNoiseSigma = 0;
  // Receiver at the origin: from 1 m to 10 m over ten seconds, then stays.
  c.path = {{0s, {1.0, 0.0}}, {10s, {10.0, 0.0}}};
  air->addDevice(c);
  ReportSink sink;
  sink.observe(*air);
  air->advance(30s);

  ASSERT_FALSE(sink.reports->empty());
  for (const auto& r : *sink.reports) {
    const double t = std::chrono::duration<double>(r.time).count();
    const double x = t >= 10 ? 10.0 : 1.0 + 0.9 * t;
    ASSERT_EQ(r.rssi, std::lround(-59 - 20 * std::log10(x))) << "at " << t << " s";
  }
  EXPECT_EQ(sink.reports->back().rssi, -79);

  sink.handle.reset();  // dropping the observation stops its reports
  const std::size_t heard = sink.reports->size();
  air->advance(1s);
  EXPECT_EQ(sink.reports->size(), heard);
}

TEST(AirAdvertising, NothingIsHeardWhileThePowerIsOffAndScansMustRestart) {
  auto air = Air::create({.seed = 4, .initialState = CBManagerState::PoweredOff});
  air->addDevice(beacon("C0:00:00:00:00:01", 1.0));
  auto recorder = std::make_shared<CentralRecorder>();
  auto session = air->openCentral(recorder);
  ReportSink sink;
  sink.observe(*air);
  session->startScan({});  // refused while off
  air->advance(2s);
  EXPECT_TRUE(sink.reports->empty());
  EXPECT_TRUE(recorder->reports().empty());

  air->setAdapterState(CBManagerState::PoweredOn);
  air->advance(1s);
  EXPECT_GT(sink.reports->size(), 5u);       // observations resume by themselves
  EXPECT_TRUE(recorder->reports().empty());  // scans do not
  session->startScan({});
  air->advance(1s);
  EXPECT_GT(recorder->reports().size(), 5u);

  air->setAdapterState(CBManagerState::PoweredOff);
  EXPECT_EQ(session->state(), CBManagerState::PoweredOff);
  recorder->clear();
  air->advance(2s);
  air->setAdapterState(CBManagerState::PoweredOn);
  air->advance(1s);
  EXPECT_EQ(recorder->log(), (Lines{"state 4", "state 5"}));
  EXPECT_TRUE(recorder->reports().empty());
}

TEST(AirAdvertising, ScanFilterPassesOnlyAdvertisedServices) {
  auto air = Air::create({.seed = 4});
  DeviceConfig battery = beacon("C0:00:00:00:00:01", 1.0);
  battery.serviceUUIDs = {CBUUID::UUIDWithString("180F")};
  air->addDevice(battery);
  air->addDevice(beacon("C0:00:00:00:00:02", 1.0));
  auto recorder = std::make_shared<CentralRecorder>();
  auto session = air->openCentral(recorder);
  session->startScan({.services = std::vector<CBUUID>{CBUUID::UUIDWithString("180F")}});
  air->advance(2s);

  const auto reports = recorder->reports();
  ASSERT_FALSE(reports.empty());
  for (const auto& r : reports) EXPECT_EQ(r.address, "C0:00:00:00:00:01");
}

TEST(AirAdvertising, ChangesOfContentAndStateShowInLaterReports) {
  auto air = Air::create({.seed = 4});
  auto device = air->addDevice(beacon("C0:00:00:00:00:01", 1.0));
  ReportSink sink;
  sink.observe(*air);
  air->advance(1s);
  device->setLocalName("Renamed");
  device->setManufacturerData(std::nullopt);
  air->advance(1s);
  ASSERT_FALSE(sink.reports->empty());
  EXPECT_EQ(sink.reports->back().advertisement.localName, "Renamed");
  EXPECT_FALSE(sink.reports->back().advertisement.manufacturerData);
  EXPECT_EQ(sink.reports->front().advertisement.localName, "B-01");

  device->setAdvertising(false);
  const std::size_t heard = sink.reports->size();
  air->advance(2s);
  EXPECT_EQ(sink.reports->size(), heard);
  device->setAdvertising(true);
  air->advance(1s);
  EXPECT_GT(sink.reports->size(), heard);

  air->removeDevice(device->address());
  const std::size_t before = sink.reports->size();
  air->advance(1s);
  EXPECT_EQ(sink.reports->size(), before);
  EXPECT_TRUE(air->deviceAddresses().empty());
}

TEST(AirAdvertising, TraceKeepsTheNewestEventsAndStreamsToASink) {
  auto air = Air::create({.seed = 4});
  air->addDevice(beacon("C0:00:00:00:00:01", 1.0));
  std::vector<TraceEvent> streamed;
  air->setTraceSink([&](const TraceEvent& e) { streamed.push_back(e); });
  air->setTraceLimit(5);
  air->advance(2s);

  const auto kept = air->trace();
  ASSERT_EQ(kept.size(), 5u);
  ASSERT_GT(streamed.size(), 15u);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(kept[i].time, streamed[streamed.size() - 5 + i].time);
  }
  // Flags, the complete local name "B-01", then the manufacturer data.
  EXPECT_EQ(kept.back().payload, (Bytes{0x02, 0x01, 0x06, 0x05, 0x09, 'B', '-', '0', '1', 0x06,
                                        0xFF, 0x4C, 0x00, 0x02, 0x15, 0x01}));
  air->setAdapterState(CBManagerState::PoweredOff);
  air->settle();
  EXPECT_EQ(air->trace().back().kind, "power");
  EXPECT_EQ(air->trace().back().detail, "poweredOff");
}

TEST(AirAdvertising, TimersRunInOrderAndCanBeCancelled) {
  auto air = Air::create({});
  std::vector<int> fired;
  air->scheduleAfter(30ms, [&] { fired.push_back(3); });
  air->scheduleAfter(10ms, [&] { fired.push_back(1); });
  const auto cancelled = air->scheduleAfter(20ms, [&] { fired.push_back(2); });
  air->scheduleAfter(10ms, [&] { fired.push_back(11); });
  air->cancelScheduled(cancelled);
  air->advance(25ms);
  EXPECT_EQ(fired, (std::vector<int>{1, 11}));
  EXPECT_EQ(air->now(), 25ms);
  air->advance(5ms);
  EXPECT_EQ(fired, (std::vector<int>{1, 11, 3}));
}

}  // namespace
}  // namespace lumora::sim::test
