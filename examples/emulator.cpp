// Emulator: makes this machine a beacon that centrals can talk to.
//
//   emulator [SECONDS]      (default 3)
//
// The emulator advertises the first default proximity UUID with major 10 and
// minor 11, under the local name "ab" (major and minor in hex), and serves
// one GATT service: what a central writes to FF0C reaches us, and a read of
// FFCC is answered with the bytes of "Lumora". After SECONDS it stops.
//
// On real hardware (LUMORA_BACKEND=bluez) any phone or `lumora connect ab`
// from another machine can talk to it. The simulated air, the default radio,
// exists only inside this process, so there we play the visiting central
// ourselves with one of the air's virtual centrals: it connects, writes
// 01 02 03, reads, and leaves.
#include <Foundation/Dispatch.h>
#include <Foundation/RunLoop.h>
#include <Lumora/Lumora.h>
#include <backends/Radio.h>
#include <backends/sim/Air.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

namespace {

const lumora::Bytes kReply{'L', 'u', 'm', 'o', 'r', 'a'};

std::string hex(const lumora::Data& data) {
  return data ? lumora::TQBleFinder::getHexString(data) : "(null)";
}

std::string outcome(lumora::CBATTError result) {
  if (result == lumora::CBATTError::Success) return "success";
  return "ATT error " + std::to_string(static_cast<int>(result));
}

// Serves the two characteristics. Lumora calls it on worker threads, never
// the main thread, and possibly two at once: it touches only atomics and
// constants, and prints whole lines.
class Replies : public lumora::TQBleProcessDelegate {
 public:
  lumora::Data tqbleprocess_didReqReadData() override {
    ++reads;
    std::printf("a central read FFCC; we answer %s\n", hex(kReply).c_str());
    return kReply;
  }
  void tqbleprocess_didRevData(const lumora::Data& data) override {
    ++writes;
    std::printf("a central wrote %s to FF0C\n", hex(data).c_str());
  }

  std::atomic<int> reads{0};
  std::atomic<int> writes{0};
};

// TQBleProcess does not tell the application when advertising has begun; a
// subclass can, since the platform callbacks are virtual. The override runs
// on a worker thread and hands its news to the main queue.
class Emulator : public lumora::TQBleProcess {
 public:
  explicit Emulator(std::function<void()> onAdvertising)
      : onAdvertising_(std::move(onAdvertising)) {}

  void peripheralManagerDidStartAdvertising(
      const std::shared_ptr<lumora::CBPeripheralManager>& manager,
      lumora::ErrorRef error) override {
    TQBleProcess::peripheralManagerDidStartAdvertising(manager, error);
    if (error) {
      std::printf("advertising failed: %s\n", error->text.c_str());
      return;
    }
    lumora::dispatch_get_main_queue()->async(onAdvertising_);
  }

 private:
  const std::function<void()> onAdvertising_;
};

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 3.0;
  if (!(seconds > 0 && seconds < 86400)) {
    std::fprintf(stderr, "usage: %s [SECONDS]   (0 < SECONDS < 86400)\n", argv[0]);
    return 2;
  }
  std::shared_ptr<lumora::radio::Backend> radio;
  try {
    radio = lumora::radio::Backend::current();  // LUMORA_BACKEND, else the simulated air
  } catch (const lumora::radio::BackendError& e) {
    std::fprintf(stderr, "no radio: %s\n", e.what());
    return 1;
  }
  std::printf("emulating a beacon for %g s on %s\n", seconds, radio->name().c_str());

  const lumora::Uuid uuid = *lumora::TQBeaconAP::sharedDefaults()->defaultProximityUUID();
  const std::uint16_t major = 10;
  const std::uint16_t minor = 11;
  char name[16];
  std::snprintf(name, sizeof name, "%x%x", major, minor);  // the emulator's own naming rule

  // Our visitor on the simulated air. Its completions run on the main run
  // loop, like everything the air does in real time.
  const auto air = std::dynamic_pointer_cast<lumora::sim::Air>(radio);
  std::shared_ptr<lumora::sim::VirtualCentral> visitor;
  bool visitDone = false;
  const auto visit = [&] {
    std::printf("advertising as \"%s\": uuid %s, major %u, minor %u\n", name,
                uuid.UUIDString().c_str(), major, minor);
    if (!air || visitor) return;
    visitor = air->addCentral();
    if (!visitor->connectByName(name)) {
      std::printf("visitor: nobody advertises \"%s\"\n", name);
      return;
    }
    const auto ff0c = lumora::CBUUID::UUIDWithString("FF0C");
    const auto ffcc = lumora::CBUUID::UUIDWithString("FFCC");
    visitor->write(ff0c, {0x01, 0x02, 0x03}, [&, ffcc](lumora::CBATTError result) {
      std::printf("visitor: wrote 010203 to FF0C: %s\n", outcome(result).c_str());
      visitor->read(ffcc, 0, [&](lumora::CBATTError result, const lumora::Data& value) {
        std::printf("visitor: read FFCC: %s, %s\n", outcome(result).c_str(), hex(value).c_str());
        visitor->disconnect();
        visitDone = true;
      });
    });
  };

  Replies replies;
  auto emulator = std::make_shared<Emulator>(visit);  // make_shared is required
  emulator->setDelegate(&replies);
  // Null measured power: the default, -59 dBm at one metre.
  emulator->initStartTQBeacon(uuid, lumora::Number(major), lumora::Number(minor), std::nullopt);
  // It starts by itself once Bluetooth is powered on; requests are served
  // while the main run loop runs.
  lumora::RunLoop::main().runFor(std::chrono::duration_cast<lumora::RunLoop::Clock::duration>(
      std::chrono::duration<double>(seconds)));

  // StopTQBeacon withdraws the service and stops advertising, but only while
  // Bluetooth is powered on; DestroyTQBeacon lets the manager go in any state.
  if (!emulator->StopTQBeacon()) emulator->DestroyTQBeacon();
  emulator->setDelegate(nullptr);
  // A request that began before the line above may still be running on a
  // worker: `replies` must outlive it.
  lumora::dispatch::waitForGlobalIdle();

  std::printf("served %d writes and %d reads\n", replies.writes.load(), replies.reads.load());
  if (air && !visitDone) {
    std::printf("the visitor did not finish\n");
    return 1;
  }
  return 0;
}
