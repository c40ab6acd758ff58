// lumora: the command-line face of the Lumora library.
//
// Exit status: 0 done, 1 a run-time failure (no radio, no connection), 2 bad
// input (unknown option, malformed hex or UUID, a number out of range, a bad
// scenario file), 130 stopped by Ctrl-C before it was done. Errors are one
// line on stderr: "lumora: <what>".
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <iostream>

#include "Commands.h"
#include "Foundation/NSUserDefaults.h"
#include "Lumora/Lumora.h"
#include "Output.h"
#include "Session.h"
#include "Text.h"

namespace {

using namespace lumora;
using namespace lumora::tool;

constexpr int kUsageExit = 2;
constexpr int kFailureExit = 1;

CLI::Validator uuidText() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        if (Uuid::fromString(text)) return {};
        return fmt::format("malformed UUID '{}' (want 8-4-4-4-12 hex digits)", printable(text));
      },
      "");
}

void fail(std::string_view what) {
  std::string line = fmt::format("lumora: {}\n", what);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Bluetooth LE beacons from the command line: decode advertisements, estimate distances, "
      "range and scan, connect to a beacon device and talk to it, or make this machine a beacon. "
      "Runs on the simulated air unless told to use BlueZ.",
      "lumora"};
  app.fallthrough();
  app.require_subcommand(0, 1);

  GlobalOptions global;
  bool version = false;
  app.add_flag("--json", global.json, "Print one JSON object per output line");
  app.add_option("--backend", global.backend,
                 "Radio: sim (default), sim:SCENARIO.json, bluez or bluez:hciN "
                 "(default: $LUMORA_BACKEND, else the simulated air)")
      ->type_name("RADIO");
  app.add_option("--scenario", global.scenario, "Scenario file for the simulated air")
      ->type_name("FILE");
  app.add_option("--defaults", global.defaults,
                 "User-defaults file holding \"DisconnectFlag\" "
                 "(default: $LUMORA_DEFAULTS, else ~/.config/lumora/defaults.json)")
      ->type_name("FILE");
  app.add_flag("--log", global.log, "Show the library's log lines on stderr");
  app.add_flag("--version", version, "Print the version and exit");

  DecodeOptions decode;
  auto* decodeCmd = app.add_subcommand(
      "decode",
      "Tell whether manufacturer data (hex, company id first) is an iBeacon, and decode it");
  decodeCmd->add_option("HEX", decode.hex, "Manufacturer data, e.g. 4C000215...")
      ->required()
      ->type_name("HEX");

  DistanceOptions distance;
  auto* distanceCmd =
      app.add_subcommand("distance", "Estimate the distance to a beacon from its signal strength");
  distanceCmd->add_option("--power", distance.power, "Measured power at one metre, dBm")
      ->required()
      ->check(CLI::Range(-128, 127));
  distanceCmd->add_option("--rssi", distance.rssi, "Received signal strength, dBm (0: no reading)")
      ->required()
      ->check(CLI::Range(-128.0, 127.0));

  HexOptions hexOptions;
  auto* hexCmd = app.add_subcommand("hex", "Print bytes as hex text the way the finder does");
  hexCmd->add_option("HEX", hexOptions.hex, "Bytes as hex; several arguments are joined")
      ->required()
      ->type_name("HEX");
  auto* spacesFlag = hexCmd->add_flag("--spaces", hexOptions.spaces,
                                      "A blank after every 4 bytes, a line feed after every 16");
  hexCmd->add_flag("--lower", hexOptions.lower, "Lower-case digits, no separators")
      ->excludes(spacesFlag);

  RangeOptions range;
  double rangeSeconds = 0;
  int rangeMajor = 0, rangeMinor = 0;
  auto* rangeCmd = app.add_subcommand(
      "range", "Range beacon regions and print each beacon with its distance estimate");
  auto* rangeUuid =
      rangeCmd
          ->add_option("--uuid", range.uuid, "Proximity UUID (default: the three TQBeaconAP UUIDs)")
          ->check(uuidText())
          ->type_name("UUID");
  auto* rangeMajorOption = rangeCmd->add_option("--major", rangeMajor, "Only this major")
                               ->check(CLI::Range(0, 65535))
                               ->needs(rangeUuid);
  auto* rangeMinorOption = rangeCmd->add_option("--minor", rangeMinor, "Only this minor")
                               ->check(CLI::Range(0, 65535))
                               ->needs(rangeMajorOption);
  auto* rangeSecondsOption =
      rangeCmd->add_option("--seconds", rangeSeconds, "Stop after this long (default: Ctrl-C)")
          ->check(CLI::Range(0.0, 1e6).description(""))
          ->type_name("SECONDS");

  ScanOptions scan;
  double scanSeconds = 0;
  auto* scanCmd = app.add_subcommand("scan", "Print every advertising device once");
  auto* scanSecondsOption =
      scanCmd->add_option("--seconds", scanSeconds, "Stop after this long (default: Ctrl-C)")
          ->check(CLI::Range(0.0, 1e6).description(""))
          ->type_name("SECONDS");
  scanCmd->add_option("--pcap", global.pcap, "Write what crosses the simulated air to a pcap file")
      ->type_name("FILE");

  ConnectOptions connect;
  auto* connectCmd = app.add_subcommand(
      "connect", "Connect to a device by its advertised name, write, read, disconnect");
  connectCmd->add_option("NAME", connect.name, "The device's advertised local name")
      ->required()
      ->type_name("NAME");
  connectCmd->add_option("--send", connect.send, "Bytes (hex) to write to FF0C; may repeat")
      ->allow_extra_args(false)
      ->type_name("HEX");
  connectCmd->add_flag("--read", connect.read, "Read FFCC after the writes");
  connectCmd->add_flag("--quiet-disconnect", connect.quietDisconnect,
                       "Store true under \"DisconnectFlag\" first, so no loss is reported");
  connectCmd
      ->add_option("--seconds", connect.seconds,
                   "Time allowed to connect and exchange (default 10)")
      ->check(CLI::Range(0.0, 1e6).description(""))
      ->type_name("SECONDS");

  EmulateOptions emulate;
  int emulatePower = 0;
  std::string emulateReply;
  double emulateSeconds = 0;
  auto* emulateCmd = app.add_subcommand(
      "emulate", "Advertise as an iBeacon and serve the FF0C (write) / FFCC (read) service");
  emulateCmd->add_option("--uuid", emulate.uuid, "Proximity UUID (default: TQBeaconAP's default)")
      ->check(uuidText())
      ->type_name("UUID");
  emulateCmd->add_option("--major", emulate.major, "Major")
      ->required()
      ->check(CLI::Range(0, 65535));
  emulateCmd->add_option("--minor", emulate.minor, "Minor")
      ->required()
      ->check(CLI::Range(0, 65535));
  auto* emulatePowerOption =
      emulateCmd->add_option("--power", emulatePower, "Measured power at one metre (default -59)")
          ->check(CLI::Range(-128, 127));
  auto* emulateReplyOption =
      emulateCmd->add_option("--reply", emulateReply, "Bytes (hex) that answer every read")
          ->type_name("HEX");
  auto* emulateSecondsOption =
      emulateCmd->add_option("--seconds", emulateSeconds, "Stop after this long (default: Ctrl-C)")
          ->check(CLI::Range(0.0, 1e6).description(""))
          ->type_name("SECONDS");

  auto* demoCmd = app.add_subcommand(
      "demo", "Emulator and finder on the simulated air: range, connect, write, read, drop");
  demoCmd->add_option("--pcap", global.pcap, "Write what crosses the simulated air to a pcap file")
      ->type_name("FILE");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
    std::string what = e.what();
    while (!what.empty() && (what.back() == '\n' || what.back() == ' ')) what.pop_back();
    fail(what);
    return kUsageExit;
  }

  Output out(global.json);
  if (version) {
    out.emit(versionText(), Json{{"event", "version"},
                                 {"version", LumoraVersionNumber},
                                 {"project", versionProject()}});
    return 0;
  }
  if (app.get_subcommands().empty()) {
    fail("no command given (try lumora --help)");
    return kUsageExit;
  }

  if (rangeMajorOption->count() > 0) range.major = rangeMajor;
  if (rangeMinorOption->count() > 0) range.minor = rangeMinor;
  if (rangeSecondsOption->count() > 0) range.seconds = rangeSeconds;
  if (scanSecondsOption->count() > 0) scan.seconds = scanSeconds;
  if (emulatePowerOption->count() > 0) emulate.power = emulatePower;
  if (emulateReplyOption->count() > 0) emulate.reply = emulateReply;
  if (emulateSecondsOption->count() > 0) emulate.seconds = emulateSeconds;

  routeLibraryLog(global.log);
  if (!global.defaults.empty()) NSUserDefaults::setStandardPath(global.defaults);

  try {
    if (decodeCmd->parsed()) return runDecode(out, decode);
    if (distanceCmd->parsed()) return runDistance(out, distance);
    if (hexCmd->parsed()) return runHex(out, hexOptions);
    Session session(global, out);
    if (rangeCmd->parsed()) return runRange(session, range);
    if (scanCmd->parsed()) return runScan(session, scan);
    if (connectCmd->parsed()) return runConnect(session, connect);
    if (emulateCmd->parsed()) return runEmulate(session, emulate);
    if (demoCmd->parsed()) return runDemo(session);
  } catch (const UsageError& e) {
    fail(e.what());
    return kUsageExit;
  } catch (const Failure& e) {
    fail(e.what());
    return kFailureExit;
  } catch (const std::exception& e) {
    fail(fmt::format("unexpected error: {}", e.what()));
    return kFailureExit;
  }
  return 0;
}
