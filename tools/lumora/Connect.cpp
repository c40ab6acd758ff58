// `lumora connect`: the finder's whole connection path to one named device,
// with every status event printed as it arrives.
#include <fmt/format.h>

#include "Commands.h"
#include "Finder.h"
#include "Foundation/NSUserDefaults.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

namespace {

// How long a requested disconnection may take to be confirmed.
constexpr Seconds kDisconnectLimit{5};

}  // namespace

int runConnect(Session& session, const ConnectOptions& options) {
  std::vector<Bytes> payloads;
  for (const auto& text : options.send) payloads.push_back(parseHexArgument(text, "--send"));
  session.openRadio();
  Output& out = session.out();

  // A flag left true by an interrupted quiet disconnection would make a real
  // drop of this link look requested; nor does this run leave one behind for
  // a disconnection that never came.
  const auto clearStaleFlag = [] {
    auto defaults = NSUserDefaults::standardUserDefaults();
    if (defaults->boolForKey(TQDisconnectFlagKey)) {
      defaults->setObject(Number::numberWithBool(false), TQDisconnectFlagKey);
    }
  };
  clearStaleFlag();

  StatusLog log(out, nullptr);
  auto finder = std::make_shared<ToolFinder>();
  finder->setDelegate(&log);
  finder->initTQFinder();
  Link link(session, finder, log);

  const std::string name = printable(options.name);
  const Deadline deadline(Seconds(options.seconds));
  std::string step = "connecting to \"" + name + "\"";
  const Progress progress(out, [&] { return fmt::format("{}: {}", step, deadline.describe()); });

  // Giving up drops the finder: its manager closes the link and stops
  // scanning without further events.
  const auto giveUp = [&](const std::string& why) -> int {
    out.stopProgress();
    finder->setDelegate(nullptr);
    finder.reset();
    clearStaleFlag();
    if (session.interrupted()) return kInterruptedExit;
    throw Failure(why);
  };
  const auto lost = [&] { return fmt::format("the link to \"{}\" was lost", name); };

  if (!link.connect(options.name, deadline.left())) {
    if (log.count(TQStatus::ConnectPeripheral) == 0) {
      return giveUp(
          fmt::format("no device named \"{}\" connected within {:g} s", name, options.seconds));
    }
    return giveUp(link.up() ? fmt::format("discovery on \"{}\" did not finish within {:g} s", name,
                                          options.seconds)
                            : lost());
  }

  for (const auto& payload : payloads) {
    step = "writing to \"" + name + "\"";
    if (!link.send(payload, deadline.left())) {
      return giveUp(link.up() ? fmt::format("\"{}\" did not answer a write within {:g} s", name,
                                            options.seconds)
                              : lost());
    }
    if (auto error = finder->lastWriteError()) {
      out.note(fmt::format("\"{}\" refused a write: {}", name, printable(*error)));
    }
  }

  if (options.read) {
    step = "reading from \"" + name + "\"";
    if (!link.read(deadline.left())) {
      return giveUp(link.up() ? fmt::format("\"{}\" did not answer the read within {:g} s", name,
                                            options.seconds)
                              : lost());
    }
  }

  step = "disconnecting from \"" + name + "\"";
  if (!link.disconnect(options.quietDisconnect, kDisconnectLimit)) {
    return giveUp(fmt::format("the disconnection from \"{}\" was not confirmed", name));
  }
  out.stopProgress();
  finder->setDelegate(nullptr);
  return 0;
}

}  // namespace lumora::tool
