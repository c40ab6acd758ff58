// Scenario files: JSON in, an air out. The whole file is checked before any
// air is built, and every complaint names the JSON path of the field it is
// about ("devices[2].ibeacon.major: expected an integer 0..65535"). The
// format is described in docs/scenarios.md.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string_view>

#include "Foundation/Uuid.h"
#include "backends/sim/AirImpl.h"
#include "backends/sim/Pcap.h"

namespace lumora::sim {
namespace {

using json = nlohmann::json;

constexpr std::size_t kMaxDepth = 64;
constexpr std::uintmax_t kMaxFileSize = 16u << 20;

/// One value of the document with its path, and typed readers that throw
/// ScenarioError naming that path.
class Node {
 public:
  Node(const json& value, std::string path) : value_(value), path_(std::move(path)) {}

  [[noreturn]] void fail(const std::string& what) const { failAt(path_, what); }
  [[noreturn]] static void failAt(const std::string& path, const std::string& what) {
    throw ScenarioError((path.empty() ? std::string("scenario") : path) + ": " + what);
  }

  const std::string& path() const { return path_; }
  const json& raw() const { return value_; }

  /// An object whose keys are all in `allowed`.
  void object(std::initializer_list<std::string_view> allowed) const {
    if (!value_.is_object()) fail("expected an object");
    for (const auto& [key, v] : value_.items()) {
      if (std::find(allowed.begin(), allowed.end(), key) != allowed.end()) continue;
      std::string names;
      for (std::string_view a : allowed) names += (names.empty() ? "" : ", ") + std::string(a);
      failAt(childPath(key), "unknown key (expected one of: " + names + ")");
    }
  }

  bool has(std::string_view key) const { return value_.contains(key); }
  std::optional<Node> find(std::string_view key) const {
    if (!value_.contains(key)) return std::nullopt;
    return child(key);
  }
  Node at(std::string_view key) const {
    if (!value_.contains(key)) failAt(childPath(key), "required");
    return child(key);
  }

  std::vector<Node> array() const {
    if (!value_.is_array()) fail("expected an array");
    std::vector<Node> items;
    for (std::size_t i = 0; i < value_.size(); ++i) {
      items.emplace_back(value_[i], path_ + "[" + std::to_string(i) + "]");
    }
    return items;
  }

  std::int64_t integer(std::int64_t lo, std::int64_t hi) const {
    auto bad = [&] {
      fail("expected an integer " + std::to_string(lo) + ".." + std::to_string(hi));
    };
    if (value_.is_number_unsigned()) {
      const auto u = value_.get<std::uint64_t>();
      if (hi < 0 || u > static_cast<std::uint64_t>(hi) ||
          (lo > 0 && u < static_cast<std::uint64_t>(lo))) {
        bad();
      }
      return static_cast<std::int64_t>(u);
    }
    if (value_.is_number_integer()) {
      const auto i = value_.get<std::int64_t>();
      if (i < lo || i > hi) bad();
      return i;
    }
    if (value_.is_number_float()) {
      const double d = value_.get<double>();
      if (!std::isfinite(d) || d != std::floor(d) || d < static_cast<double>(lo) ||
          d > static_cast<double>(hi)) {
        bad();
      }
      return static_cast<std::int64_t>(d);
    }
    bad();
    return 0;
  }

  std::uint64_t seed() const {
    if (value_.is_number_unsigned()) return value_.get<std::uint64_t>();
    return static_cast<std::uint64_t>(integer(0, INT64_MAX));
  }

  double number(double lo, double hi) const {
    std::ostringstream range;
    range << lo << ".." << hi;
    if (!value_.is_number()) fail("expected a number " + range.str());
    const double d = value_.get<double>();
    if (!std::isfinite(d) || d < lo || d > hi) fail("expected a number " + range.str());
    return d;
  }

  bool boolean() const {
    if (!value_.is_boolean()) fail("expected true or false");
    return value_.get<bool>();
  }

  const std::string& string() const {
    if (!value_.is_string()) fail("expected a string");
    return value_.get_ref<const std::string&>();
  }

  Bytes hex() const {
    if (!value_.is_string()) fail("expected hex bytes such as \"4C000215\"");
    auto bytes = bytesFromHex(string());
    if (!bytes) fail("expected hex bytes such as \"4C000215\"");
    return *bytes;
  }

  CBUUID uuid() const {
    if (!value_.is_string()) fail("expected a UUID (\"FF0C\" or 8-4-4-4-12 hex digits)");
    auto uuid = CBUUID::fromString(string());
    if (!uuid) fail("expected a UUID (\"FF0C\" or 8-4-4-4-12 hex digits)");
    return *uuid;
  }

  /// One of `names` (by name) or its index 0..names.size()-1.
  int choice(std::initializer_list<std::string_view> names) const {
    std::string list;
    for (std::string_view n : names) list += (list.empty() ? "" : ", ") + std::string(n);
    if (value_.is_string()) {
      const std::string& s = string();
      int i = 0;
      for (std::string_view n : names) {
        if (s == n) return i;
        ++i;
      }
      fail("expected one of: " + list);
    }
    if (value_.is_number()) return static_cast<int>(integer(0, std::ssize(names) - 1));
    fail("expected one of: " + list);
  }

 private:
  std::string childPath(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
  }
  // Only for keys that are present: a const lookup of a missing key is not
  // allowed.
  Node child(std::string_view key) const {
    return Node(value_.at(std::string(key)), childPath(key));
  }

  const json& value_;
  std::string path_;
};

// Nesting is bounded before the parser sees the text, so no document can run
// the parser or the tree's teardown out of stack.
void checkDepth(std::string_view text) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) {
        throw ScenarioError("scenario: nested deeper than " + std::to_string(kMaxDepth) +
                            " levels");
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
}

// Names in the order of their values.
const std::initializer_list<std::string_view> kStates = {
    "unknown", "resetting", "unsupported", "unauthorized", "poweredOff", "poweredOn"};
const std::initializer_list<std::string_view> kAuthorizations = {
    "notDetermined", "restricted", "denied", "authorizedAlways", "authorizedWhenInUse"};

std::string address(const Node& n) {
  const std::string& text = n.string();
  bool ok = text.size() == 17;
  std::string upper = text;
  for (std::size_t i = 0; ok && i < text.size(); ++i) {
    if (i % 3 == 2) {
      ok = text[i] == ':';
    } else {
      ok = std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
      upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
    }
  }
  if (!ok) n.fail("expected an address such as \"C0:FF:EE:00:00:01\"");
  return upper;
}

std::uint8_t properties(const Node& n) {
  static constexpr std::pair<std::string_view, std::uint8_t> kNames[] = {
      {"broadcast", CBCharacteristicPropertyBroadcast},
      {"read", CBCharacteristicPropertyRead},
      {"writeWithoutResponse", CBCharacteristicPropertyWriteWithoutResponse},
      {"write", CBCharacteristicPropertyWrite},
      {"notify", CBCharacteristicPropertyNotify},
      {"indicate", CBCharacteristicPropertyIndicate},
      {"authenticatedSignedWrites", CBCharacteristicPropertyAuthenticatedSignedWrites},
      {"extendedProperties", CBCharacteristicPropertyExtendedProperties},
  };
  std::uint8_t bits = 0;
  for (const Node& item : n.array()) {
    const std::string& name = item.string();
    auto it = std::find_if(std::begin(kNames), std::end(kNames),
                           [&](const auto& p) { return p.first == name; });
    if (it == std::end(kNames)) {
      item.fail(
          "expected a property: broadcast, read, writeWithoutResponse, write, notify, "
          "indicate, authenticatedSignedWrites, extendedProperties");
    }
    bits |= it->second;
  }
  return bits;
}

// A scripted answer: bytes, or an ATT error code.
struct Step {
  CBATTError error = CBATTError::Success;
  Bytes value;
};

void reply(const Node& n, CharacteristicSpec& c) {
  const json& v = n.raw();
  if (v.is_string() && v.get_ref<const std::string&>() == "echo") {
    c.echoWrites = true;
    return;
  }
  const char* expected = "expected \"echo\", hex bytes, or [\"scripted\", answer, ...]";
  if (v.is_string()) {
    if (!bytesFromHex(v.get_ref<const std::string&>())) n.fail(expected);
    const Bytes fixed = n.hex();
    c.onRead = [fixed](std::uint16_t offset) -> std::pair<CBATTError, Bytes> {
      if (offset > fixed.size()) return {CBATTError::InvalidOffset, {}};
      return {CBATTError::Success, Bytes(fixed.begin() + offset, fixed.end())};
    };
    return;
  }
  if (!v.is_array() || v.empty() || !v[0].is_string() ||
      v[0].get_ref<const std::string&>() != "scripted") {
    n.fail(expected);
  }
  auto steps = std::make_shared<std::vector<Step>>();
  const std::vector<Node> items = n.array();
  if (items.size() < 2) n.fail("a script needs at least one answer after \"scripted\"");
  for (std::size_t i = 1; i < items.size(); ++i) {
    const Node& item = items[i];
    if (item.raw().is_object()) {
      item.object({"error"});
      steps->push_back({static_cast<CBATTError>(item.at("error").integer(1, 255)), {}});
    } else {
      steps->push_back({CBATTError::Success, item.hex()});
    }
  }
  // Reads step through the script; the last answer repeats. Handlers run on
  // the air's thread, one at a time, so the cursor needs no lock.
  auto next = std::make_shared<std::size_t>(0);
  c.onRead = [steps, next](std::uint16_t) -> std::pair<CBATTError, Bytes> {
    const Step& step = (*steps)[std::min(*next, steps->size() - 1)];
    if (*next < steps->size()) ++*next;
    return {step.error, step.value};
  };
}

CharacteristicSpec characteristic(const Node& n) {
  n.object({"uuid", "properties", "value", "reply"});
  CharacteristicSpec c;
  c.uuid = n.at("uuid").uuid();
  if (auto p = n.find("properties")) c.properties = properties(*p);
  if (auto v = n.find("value")) c.value = v->hex();
  if (auto r = n.find("reply")) reply(*r, c);
  return c;
}

ServiceSpec service(const Node& n) {
  n.object({"uuid", "primary", "characteristics"});
  ServiceSpec s;
  s.uuid = n.at("uuid").uuid();
  if (auto p = n.find("primary")) s.primary = p->boolean();
  if (auto list = n.find("characteristics")) {
    for (const Node& c : list->array()) s.characteristics.push_back(characteristic(c));
  }
  return s;
}

Bytes ibeacon(const Node& n, int& power) {
  n.object({"uuid", "major", "minor", "power"});
  const Node uuidNode = n.at("uuid");
  std::optional<Uuid> uuid;
  if (uuidNode.raw().is_string()) uuid = Uuid::fromString(uuidNode.string());
  if (!uuid) uuidNode.fail("expected a proximity UUID of 8-4-4-4-12 hex digits");
  const auto major = static_cast<std::uint16_t>(n.at("major").integer(0, 65535));
  const auto minor = static_cast<std::uint16_t>(n.at("minor").integer(0, 65535));
  power = -59;
  if (auto p = n.find("power")) power = static_cast<int>(p->integer(-128, 127));
  // Company 0x004C (little-endian), type 0x02, length 0x15, then the
  // proximity UUID, major and minor (big-endian) and the measured power.
  Bytes frame{0x4C, 0x00, 0x02, 0x15};
  frame.insert(frame.end(), uuid->bytes().begin(), uuid->bytes().end());
  frame.push_back(static_cast<std::uint8_t>(major >> 8));
  frame.push_back(static_cast<std::uint8_t>(major & 0xFF));
  frame.push_back(static_cast<std::uint8_t>(minor >> 8));
  frame.push_back(static_cast<std::uint8_t>(minor & 0xFF));
  frame.push_back(static_cast<std::uint8_t>(static_cast<std::int8_t>(power)));
  return frame;
}

Nanos millis(double ms) {
  return std::chrono::duration_cast<Nanos>(std::chrono::duration<double, std::milli>(ms));
}
Nanos seconds(double s) {
  return std::chrono::duration_cast<Nanos>(std::chrono::duration<double>(s));
}

struct DevicePlan {
  DeviceConfig config;
  ConnectBehaviour behaviour = ConnectBehaviour::Accept;
  Nanos connectDelay{0};
};

DevicePlan device(const Node& n) {
  n.object({"address", "name", "manufacturerData", "ibeacon", "serviceUUIDs", "intervalMs",
            "txPowerAt1m", "pathLossExponent", "distance", "path", "noiseSigma", "packetLoss",
            "advertising", "connectable", "connect", "connectDelayMs", "services"});
  DevicePlan plan;
  DeviceConfig& c = plan.config;
  if (auto a = n.find("address")) c.address = address(*a);
  if (auto name = n.find("name")) c.localName = name->string();
  if (n.has("manufacturerData") && n.has("ibeacon")) {
    n.at("ibeacon").fail("give either manufacturerData or ibeacon, not both");
  }
  if (auto m = n.find("manufacturerData")) c.manufacturerData = m->hex();
  std::optional<int> beaconPower;
  if (auto b = n.find("ibeacon")) {
    int power = 0;
    c.manufacturerData = ibeacon(*b, power);
    beaconPower = power;
  }
  if (auto list = n.find("serviceUUIDs")) {
    for (const Node& u : list->array()) c.serviceUUIDs.push_back(u.uuid());
  }
  if (auto i = n.find("intervalMs")) c.advertisingInterval = millis(i->number(20, 10240));
  // A beacon's measured power is, by definition, what is heard at one metre.
  if (beaconPower) c.txPowerAt1m = std::clamp(*beaconPower, -127, 20);
  if (auto t = n.find("txPowerAt1m")) c.txPowerAt1m = static_cast<int>(t->integer(-127, 20));
  if (auto e = n.find("pathLossExponent")) c.pathLossExponent = e->number(0.5, 10);
  if (n.has("distance") && n.has("path"))
    n.at("path").fail("give either distance or path, not both");
  if (auto d = n.find("distance")) c.distance = d->number(0, 100000);
  if (auto p = n.find("path")) {
    const std::vector<Node> points = p->array();
    if (points.empty()) p->fail("expected at least one waypoint");
    for (const Node& w : points) {
      w.object({"t", "x", "y"});
      Waypoint waypoint;
      const Node t = w.at("t");
      waypoint.at = seconds(t.number(0, 1e6));
      waypoint.position.x = w.at("x").number(-1e5, 1e5);
      waypoint.position.y = w.at("y").number(-1e5, 1e5);
      if (!c.path.empty() && waypoint.at < c.path.back().at) {
        t.fail("waypoints must be in time order");
      }
      c.path.push_back(waypoint);
    }
  }
  if (auto s = n.find("noiseSigma")) c.rssiNoiseSigma = s->number(0, 30);
  if (auto l = n.find("packetLoss")) c.packetLoss = l->number(0, 1);
  if (auto a = n.find("advertising")) c.advertising = a->boolean();
  if (auto list = n.find("services")) {
    for (const Node& s : list->array()) c.services.push_back(service(s));
  }
  // A device with a GATT database is there to be connected to.
  c.connectable = !c.services.empty();
  if (auto k = n.find("connectable")) c.connectable = k->boolean();
  if (auto b = n.find("connect")) {
    plan.behaviour = static_cast<ConnectBehaviour>(b->choice({"accept", "refuse", "ignore"}));
  }
  if (auto d = n.find("connectDelayMs")) plan.connectDelay = millis(d->number(0, 600000));
  return plan;
}

using Action = std::function<void(Air&)>;

struct TimedEvent {
  Nanos at{0};
  Action action;
};

TimedEvent timedEvent(const Node& n, const std::set<std::string>& addresses) {
  n.object({"at", "power", "locationAuthorization", "device", "advertising", "dropLink", "distance",
            "connectable", "remove"});
  TimedEvent e;
  e.at = seconds(n.at("at").number(0, 1e6));
  static constexpr std::string_view kActions[] = {
      "power",    "locationAuthorization", "advertising", "dropLink",
      "distance", "connectable",           "remove"};
  std::vector<std::string_view> given;
  for (std::string_view a : kActions) {
    if (n.has(a)) given.push_back(a);
  }
  if (given.size() != 1) {
    n.fail(
        "expected exactly one action: power, locationAuthorization, advertising, dropLink, "
        "distance, connectable or remove");
  }
  const std::string_view action = given.front();

  if (action == "power" || action == "locationAuthorization") {
    if (n.has("device")) n.at("device").fail(std::string("not used with ") + std::string(action));
    if (action == "power") {
      const auto state = static_cast<CBManagerState>(n.at("power").choice(kStates));
      e.action = [state](Air& air) { air.setAdapterState(state); };
    } else {
      const int status = n.at("locationAuthorization").choice(kAuthorizations);
      e.action = [status](Air& air) { air.setLocationAuthorization(status); };
    }
    return e;
  }

  const Node deviceNode = n.at("device");
  const std::string addr = address(deviceNode);
  if (!addresses.count(addr)) deviceNode.fail("no device of this scenario has address " + addr);
  // A device removed by an earlier event is gone: later events about it do
  // nothing.
  auto on = [addr](auto change) {
    return [addr, change](Air& air) {
      if (auto d = air.device(addr)) change(*d);
    };
  };
  if (action == "advertising") {
    const bool value = n.at("advertising").boolean();
    e.action = on([value](VirtualDevice& d) { d.setAdvertising(value); });
  } else if (action == "connectable") {
    const bool value = n.at("connectable").boolean();
    e.action = on([value](VirtualDevice& d) { d.setConnectable(value); });
  } else if (action == "distance") {
    const double value = n.at("distance").number(0, 100000);
    e.action = on([value](VirtualDevice& d) { d.setDistance(value); });
  } else if (action == "dropLink") {
    if (!n.at("dropLink").boolean()) n.at("dropLink").fail("expected true");
    e.action = on([](VirtualDevice& d) { d.dropLink(); });
  } else {
    if (!n.at("remove").boolean()) n.at("remove").fail("expected true");
    e.action = [addr](Air& air) { air.removeDevice(addr); };
  }
  return e;
}

}  // namespace

std::shared_ptr<Air> loadScenario(const std::string& text, AirOptions options) {
  checkDepth(text);
  json document;
  try {
    document = json::parse(text);
  } catch (const json::exception& e) {
    // Not only parse_error: a number too large for a double ("1e400") is an
    // out_of_range from the parser. The library's text is
    // "[json.exception.parse_error.101] parse error at line 1, column 2: ...";
    // the part after the bracketed tag is enough.
    std::string what = e.what();
    if (auto tag = what.find("] "); tag != std::string::npos) what.erase(0, tag + 2);
    throw ScenarioError("scenario: invalid JSON: " + what);
  }

  const Node root(document, "");
  root.object({"description", "seed", "adapter", "locationAuthorization", "linkLatencyMs",
               "localPeripheralDistance", "capture", "devices", "events"});
  if (auto d = root.find("description")) d->string();
  std::optional<std::string> capturePath;
  if (auto c = root.find("capture")) {
    capturePath = c->string();
    if (capturePath->empty()) c->fail("expected a file name");
  }
  if (auto s = root.find("seed")) options.seed = s->seed();
  if (auto a = root.find("adapter"))
    options.initialState = static_cast<CBManagerState>(a->choice(kStates));
  if (auto l = root.find("locationAuthorization")) {
    options.locationAuthorization = l->choice(kAuthorizations);
  }
  if (auto l = root.find("linkLatencyMs")) options.linkLatency = millis(l->number(0, 60000));
  std::optional<double> localDistance;
  if (auto d = root.find("localPeripheralDistance")) localDistance = d->number(0, 100000);

  std::vector<DevicePlan> devices;
  std::set<std::string> addresses;
  if (auto list = root.find("devices")) {
    for (const Node& n : list->array()) {
      DevicePlan plan = device(n);
      if (!plan.config.address.empty() && !addresses.insert(plan.config.address).second) {
        n.at("address").fail("duplicate address " + plan.config.address);
      }
      devices.push_back(std::move(plan));
    }
  }
  std::vector<TimedEvent> events;
  if (auto list = root.find("events")) {
    for (const Node& n : list->array()) events.push_back(timedEvent(n, addresses));
  }

  auto air = Air::create(options);
  if (capturePath) {
    // The air's trace sink keeps the capture for as long as the air lives.
    try {
      Capture::start(air, *capturePath);
    } catch (const CaptureError& e) {
      throw ScenarioError(std::string("capture: ") + e.what());
    }
  }
  if (localDistance) air->setLocalPeripheralDistance(*localDistance);
  for (DevicePlan& plan : devices) {
    auto d = air->addDevice(std::move(plan.config));
    d->setConnectBehaviour(plan.behaviour, plan.connectDelay);
  }
  for (TimedEvent& e : events) {
    // The timers live in this air's queue and run only inside it.
    Air* target = air.get();
    air->scheduleAfter(e.at, [target, action = std::move(e.action)] { action(*target); });
  }
  return air;
}

std::shared_ptr<Air> loadScenarioFile(const std::string& path, AirOptions options) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ScenarioError(path + ": cannot open: " + std::strerror(errno));
  std::string text;
  char buffer[65536];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (text.size() > kMaxFileSize) throw ScenarioError(path + ": larger than 16 MiB");
  }
  if (in.bad()) throw ScenarioError(path + ": cannot read: " + std::strerror(errno));
  try {
    return loadScenario(text, options);
  } catch (const ScenarioError& e) {
    throw ScenarioError(path + ": " + e.what());
  }
}

}  // namespace lumora::sim
