// `lumora demo`: the library's main job told end to end on the simulated air.
// An emulator advertises, a finder ranges it among the scenario's beacons,
// connects to it by name, writes, reads, disconnects quietly, connects again
// and sees the link drop. Every status event is printed as it arrives.
#include <fmt/format.h>
#include <stdlib.h>

#include <filesystem>
#include <system_error>

#include "Commands.h"
#include "Emulator.h"
#include "Finder.h"
#include "Foundation/NSUserDefaults.h"
#include "Lumora/Lumora.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

using json = Json;

namespace {

// The built-in scenario already has a beacon 1/2 of the default UUID; 10/11
// keeps the emulator apart in ranging and shows the hex naming ("ab").
constexpr std::uint16_t kMajor = 10;
constexpr std::uint16_t kMinor = 11;
constexpr Seconds kRangingTime{3.5};
constexpr Seconds kStepLimit{5};

// The demo's own user-defaults file, so that its "DisconnectFlag" never
// touches the user's settings; removed with its folder afterwards.
class PrivateDefaults {
 public:
  PrivateDefaults() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumora-demo-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw Failure(fmt::format("cannot make a temporary folder: {}",
                                std::error_code(errno, std::generic_category()).message()));
    }
    folder_ = pattern;
    NSUserDefaults::setStandardPath(folder_ / "defaults.json");
  }
  ~PrivateDefaults() {
    NSUserDefaults::setStandardPath({});
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  PrivateDefaults(const PrivateDefaults&) = delete;
  PrivateDefaults& operator=(const PrivateDefaults&) = delete;

 private:
  std::filesystem::path folder_;
};

// Thrown when Ctrl-C ends a step; the demo then tidies up and exits 130.
struct Interrupted {};

class Demo {
 public:
  explicit Demo(Session& session) : session_(session), out_(session.out()) {}

  void step(std::string_view text) {
    ++step_;
    out_.text("");
    out_.emit(fmt::format("[{}] {}", step_, text),
              json{{"event", "step"}, {"step", step_}, {"text", std::string(text)}});
  }
  void say(std::string_view text) {
    out_.emit(fmt::format("    {}", text), json{{"event", "note"}, {"text", std::string(text)}});
  }
  // A step that did not happen ends the demo: Ctrl-C quietly, anything else
  // as a failure naming the step.
  void require(bool ok, std::string_view what) {
    if (ok) return;
    if (session_.interrupted()) throw Interrupted{};
    throw Failure(fmt::format("demo step {}: {}", step_, what));
  }

 private:
  Session& session_;
  Output& out_;
  int step_ = 0;
};

}  // namespace

int runDemo(Session& session) {
  const PrivateDefaults privateDefaults;
  session.openRadio();
  const auto air = session.air();
  if (!air) {
    throw UsageError(
        fmt::format("the demo needs the simulated air, not {}", session.radioDescription()));
  }
  Output& out = session.out();
  const auto started = RunLoop::Clock::now();
  Demo demo(session);
  out.text(fmt::format("Lumora demo ({}) on the {}", versionProject(), session.radioDescription()));

  const auto ap = TQBeaconAP::sharedDefaults();
  const Uuid uuid = *ap->defaultProximityUUID();
  const std::string name = emulatorName(kMajor, kMinor);
  const Bytes written{0x01, 0x02, 0x03};
  const std::string replyText = "Lumora";
  const Bytes reply(replyText.begin(), replyText.end());

  // Declared in this order so that the finder and the emulator go before the
  // delegates and logs they call.
  auto emulatorLog = std::make_shared<EmulatorLog>(out, "    emulator  ", "emulator");
  EmulatorApp emulatorApp(emulatorLog, reply);
  auto powers = PowerBook::start();
  BeaconPrinter printer(out, powers, "    beacon    ");
  StatusLog finderLog(out, &printer, "    finder    ", "finder");
  auto emulator = std::make_shared<ToolEmulator>(emulatorLog);
  auto finder = std::make_shared<ToolFinder>();
  const Finally tidy([&] {
    finder->setDelegate(nullptr);
    finder.reset();
    powers->stop();
    emulator->shutDown();
  });

  std::string doing = "starting";
  const Progress progress(out, [&] {
    const Seconds elapsed = RunLoop::Clock::now() - started;
    return fmt::format("demo: {} ({:.0f} s)", doing, elapsed.count());
  });

  try {
    demo.step(fmt::format(
        "An emulator (TQBleProcess) advertises uuid {} major {} minor {}; its local name is "
        "\"{}\" (major and minor in hex)",
        uuid.UUIDString(), kMajor, kMinor, name));
    emulator->setDelegate(&emulatorApp);
    emulator->initStartTQBeacon(uuid, Number(kMajor), Number(kMinor), std::nullopt);
    demo.require(session.waitUntil([&] { return emulatorLog->isAdvertising(); }, kStepLimit),
                 "the emulator did not start advertising");

    demo.step(fmt::format(
        "A finder (TQBleFinder) ranges the three TQBeaconAP UUIDs for {:g} s: the emulator and "
        "the scenario's beacons, with distance estimates",
        kRangingTime.count()));
    doing = "ranging";
    warnAboutRanging(out);
    TQBleFinder::RegionList regions;
    for (const auto& u : ap->supportedProximityUUIDs()) {
      regions.push_back(std::make_shared<CLBeaconRegion>(
          u, std::optional<std::uint16_t>{}, std::optional<std::uint16_t>{}, u.UUIDString()));
    }
    finder->setDelegate(&finderLog);
    finder->initTQFinder();
    finder->StartTQFinder(regions);
    session.runFor(kRangingTime);
    demo.require(!session.interrupted(), "interrupted");
    finder->StopTQFinder();
    powers->stop();
    demo.say(fmt::format("{} beacon{} ranged", printer.seen(), printer.seen() == 1 ? "" : "s"));

    Link link(session, finder, finderLog);
    demo.step(fmt::format("The finder connects to \"{}\" by its advertised local name", name));
    doing = "connecting";
    demo.require(link.connect(name, kStepLimit), "no connection to the emulator");

    demo.step(fmt::format("It writes {} to the emulator's FF0C characteristic", hex(written)));
    doing = "writing";
    demo.require(link.send(written, kStepLimit), "the write was not answered");
    demo.require(session.waitUntil([&] { return emulatorLog->writes() > 0; }, kStepLimit),
                 "the emulator did not receive the bytes");

    demo.step(
        fmt::format("It reads FFCC; the emulator answers with the bytes of \"{}\"", replyText));
    doing = "reading";
    demo.require(link.read(kStepLimit), "the read was not answered");
    demo.require(session.waitUntil([&] { return emulatorLog->reads() > 0; }, kStepLimit),
                 "the emulator did not see the read");
    for (auto it = finderLog.events().rbegin(); it != finderLog.events().rend(); ++it) {
      if (it->code == TQStatus::RecvData.code && it->data) {
        demo.say(fmt::format("the finder received \"{}\"",
                             printable(std::string(it->data->begin(), it->data->end()))));
        break;
      }
    }

    demo.step(
        "A quiet disconnection: the application stores true under \"DisconnectFlag\" "
        "first, so no loss is reported");
    doing = "disconnecting";
    demo.require(link.disconnect(true, kStepLimit), "the disconnection was not confirmed");
    demo.say(fmt::format("\"DisconnectFlag\" now reads {}",
                         NSUserDefaults::standardUserDefaults()->boolForKey(TQDisconnectFlagKey)
                             ? "true"
                             : "false"));

    demo.step(fmt::format("The finder connects to \"{}\" again, and the emulator goes away", name));
    doing = "connecting again";
    demo.require(link.connect(name, kStepLimit), "no second connection to the emulator");
    doing = "dropping the link";
    // Releasing the shared peripheral manager takes the emulator off the air,
    // as switching the device off would: the finder sees a drop it did not ask for.
    demo.say("the emulator switches itself off (DestroyTQBeacon releases its peripheral manager)");
    emulator->DestroyTQBeacon();
    demo.require(link.waitForDrop(kStepLimit), "the link did not drop");
    demo.require(finderLog.count(TQStatus::ConnectionLost) > 0,
                 "the drop was not reported as \"beacon connection lost\"");
  } catch (const Interrupted&) {
    out.stopProgress();
    out.note("demo interrupted");
    return kInterruptedExit;
  }

  out.stopProgress();
  const Seconds elapsed = RunLoop::Clock::now() - started;
  out.text("");
  out.emit(fmt::format("Demo finished in {:.1f} s.", elapsed.count()),
           json{{"event", "finished"}, {"seconds", elapsed.count()}});
  return 0;
}

}  // namespace lumora::tool
