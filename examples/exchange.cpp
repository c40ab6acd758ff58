// Exchange: connects to a beacon device by its advertised name, sends it a few
// bytes, reads its answer and disconnects.
//
//   exchange [SECONDS] [NAME]      (defaults: 5, "LumoraDemo")
//
// SECONDS bounds the whole conversation: if the device is not found or stops
// answering, we give up after that long. Every status event the finder sends
// is printed as it arrives, so the output shows the connection's whole road:
// 90 "TQBeacon Conneting...", the scan, 50 "Connect Peripheral", the write,
// the read, 80 "BLE RECV DATA" with the bytes and finally 51.
//
// "LumoraDemo" lives in the simulated air's built-in scenario, the radio used
// unless LUMORA_BACKEND names another: it answers reads of FFCC with a
// greeting and echoes what we write to FF0C.
#include <Foundation/NSUserDefaults.h>
#include <Foundation/RunLoop.h>
#include <Lumora/Lumora.h>
#include <backends/Radio.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using Clock = lumora::RunLoop::Clock;
using namespace std::chrono_literals;

// The bytes as text, with anything unprintable shown as '.'.
std::string printable(const lumora::Bytes& bytes) {
  std::string text;
  for (auto b : bytes) text += std::isprint(b) ? static_cast<char>(b) : '.';
  return text;
}

// Our finder delegate. Lumora calls it on the main thread, inside the run
// loop that main() runs, so the counters need no lock.
class Conversation : public lumora::TQBleFinderDelegate {
 public:
  void didDiscoverBeacon(const lumora::CLBeaconList&,
                         const std::shared_ptr<lumora::CLBeaconRegion>&) override {}

  void didstate(std::int32_t state, const std::string& Msg, const lumora::Data& data) override {
    std::printf("%d %s", state, Msg.c_str());
    if (state == lumora::TQStatus::RecvData.code && data) {
      std::printf(": %s \"%s\"", lumora::TQBleFinder::getHexString(data).c_str(),
                  printable(*data).c_str());
      ++values;
      lastValueAt = Clock::now();
    }
    std::printf("\n");
    if (state == lumora::TQStatus::DidDisconnect.code) disconnected = true;
  }

  int values = 0;
  Clock::time_point lastValueAt{};
  bool disconnected = false;
};

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 5.0;
  const std::string name = argc > 2 ? argv[2] : "LumoraDemo";
  if (!(seconds > 0 && seconds < 3600)) {
    std::fprintf(stderr, "usage: %s [SECONDS] [NAME]   (0 < SECONDS < 3600)\n", argv[0]);
    return 2;
  }
  try {
    std::printf("talking to \"%s\" on %s\n", name.c_str(),
                lumora::radio::Backend::current()->name().c_str());
  } catch (const lumora::radio::BackendError& e) {
    std::fprintf(stderr, "no radio: %s\n", e.what());
    return 1;
  }

  auto& loop = lumora::RunLoop::main();
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(seconds));
  // Runs the main run loop, where the finder's callbacks arrive, until
  // `done` holds or our time is up.
  const auto waitFor = [&](const auto& done) {
    while (!done()) {
      const auto now = Clock::now();
      if (now >= deadline) return false;
      loop.runUntil(done, std::min<Clock::duration>(deadline - now, 50ms));
    }
    return true;
  };

  Conversation app;
  auto finder = std::make_shared<lumora::TQBleFinder>();  // make_shared is required
  finder->setDelegate(&app);
  finder->initTQFinder();

  // Connect: the finder scans for the name, links up and discovers the
  // device's services. It keeps the data characteristic once discovery has
  // found it, which is when the device is ready for us.
  finder->TQBeacon_Connect(name);
  bool ok = waitFor([&] { return finder->dataCharacteristic() != nullptr; });
  if (!ok) std::printf("no data characteristic on \"%s\" within %g s\n", name.c_str(), seconds);

  if (ok) {
    finder->TQBeacon_SendData(lumora::Bytes{0x01, 0x02, 0x03});  // to every FF0C
    finder->TQBeacon_ReqReadData();                              // from every FFCC
    // Values arrive as 80 "BLE RECV DATA". The read's answer comes after the
    // write's (a link serves one request at a time); wait until the device
    // has been quiet for a moment after the first value.
    ok = waitFor([&] { return app.values > 0 && Clock::now() - app.lastValueAt > 300ms; });
    if (!ok) std::printf("nothing received within %g s\n", seconds);
  }

  // A quiet disconnection: with "DisconnectFlag" set, the finder reports only
  // 51, not "beacon connection lost", and clears the flag again.
  if (finder->peripheral()) {
    lumora::NSUserDefaults::standardUserDefaults()->setObject(lumora::Number(true),
                                                              lumora::TQDisconnectFlagKey);
    finder->TQBeacon_Disconnect();
    if (!waitFor([&] { return app.disconnected; })) {
      std::printf("the disconnection was not confirmed\n");
      ok = false;
    }
  }

  std::printf("%s\n", ok ? "done" : "failed");
  return ok ? 0 : 1;
}
