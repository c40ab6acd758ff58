// `lumora emulate`: this machine as a beacon, through a TQBleProcess; prints
// what centrals write and answers their reads with --reply.
#include <fmt/format.h>

#include "Commands.h"
#include "Emulator.h"
#include "Lumora/TQBeaconAP.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

int runEmulate(Session& session, const EmulateOptions& options) {
  const Uuid uuid = options.uuid.empty() ? *TQBeaconAP::sharedDefaults()->defaultProximityUUID()
                                         : parseUuidArgument(options.uuid, "--uuid");
  Data reply;
  if (options.reply) reply = parseHexArgument(*options.reply, "--reply");
  session.openRadio();
  Output& out = session.out();

  auto log = std::make_shared<EmulatorLog>(out);
  EmulatorApp app(log, reply);
  auto emulator = std::make_shared<ToolEmulator>(log);
  emulator->setDelegate(&app);
  std::optional<Number> power;
  if (options.power) power = Number(*options.power);
  const Finally stop([&] { emulator->shutDown(); });
  emulator->initStartTQBeacon(uuid, Number(options.major), Number(options.minor), power);

  const std::string name = emulatorName(static_cast<std::uint16_t>(options.major),
                                        static_cast<std::uint16_t>(options.minor));
  std::optional<Seconds> limit;
  if (options.seconds) limit = Seconds(*options.seconds);
  const Deadline deadline(limit);
  const Progress progress(out, [&] {
    return fmt::format("emulating \"{}\" ({}): {}, {} write{}, {} read{}", name,
                       log->isAdvertising() ? "advertising" : "starting", deadline.describe(),
                       log->writes(), log->writes() == 1 ? "" : "s", log->reads(),
                       log->reads() == 1 ? "" : "s");
  });
  session.runFor(limit);
  out.stopProgress();

  emulator->shutDown();  // before the verdict below: no report may arrive after it
  if (!log->isAdvertising() && !session.interrupted()) {
    const auto state = log->lastState();
    throw Failure(fmt::format("the emulator never advertised (Bluetooth: {})",
                              state ? stateName(*state) : std::string_view("no state reported")));
  }
  return 0;
}

}  // namespace lumora::tool
