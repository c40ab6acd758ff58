// The built-in scenario: what the tool's demo and an application without a
// radio of its own see. Beacons of the three default proximity UUIDs at
// several distances (one walks by and back every two minutes), a lossy far
// one, and "LumoraDemo", a connectable device with the data characteristics
// a finder talks to: writes to "FF0C" come back as notifications and become
// its value, reads of "FFCC" answer "hello from LumoraDemo".
#include "backends/sim/Air.h"

namespace lumora::sim {

const std::string& defaultScenarioJson() {
  static const std::string text = R"json({
  "description": "Lumora demo air: five beacons and the connectable LumoraDemo device",
  "seed": 2024,
  "adapter": "poweredOn",
  "locationAuthorization": "authorizedAlways",
  "linkLatencyMs": 5,
  "devices": [
    {
      "address": "C0:FF:EE:00:00:01",
      "name": "Lumora-Near",
      "ibeacon": {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": 1,
                  "power": -59},
      "distance": 0.3
    },
    {
      "address": "C0:FF:EE:00:00:02",
      "name": "Lumora-Desk",
      "ibeacon": {"uuid": "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", "major": 2, "minor": 7,
                  "power": -59},
      "distance": 2.0
    },
    {
      "address": "C0:FF:EE:00:00:03",
      "name": "Lumora-Hall",
      "ibeacon": {"uuid": "74278BDA-B644-4520-8F0C-720EAF059935", "major": 3, "minor": 3,
                  "power": -61},
      "distance": 6.0,
      "intervalMs": 200
    },
    {
      "address": "C0:FF:EE:00:00:04",
      "name": "Lumora-Walker",
      "ibeacon": {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": 2,
                  "power": -59},
      "path": [
        {"t": 0, "x": 10.0, "y": 0.0},
        {"t": 30, "x": 0.5, "y": 0.0},
        {"t": 60, "x": -6.0, "y": 4.0},
        {"t": 90, "x": 0.5, "y": 0.0},
        {"t": 120, "x": 10.0, "y": 0.0}
      ]
    },
    {
      "address": "C0:FF:EE:00:00:05",
      "name": "Lumora-Far",
      "ibeacon": {"uuid": "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5", "major": 9, "minor": 42,
                  "power": -59},
      "distance": 12.0,
      "noiseSigma": 4.0,
      "packetLoss": 0.3
    },
    {
      "address": "C0:FF:EE:00:00:10",
      "name": "LumoraDemo",
      "distance": 1.5,
      "connectable": true,
      "services": [
        {
          "uuid": "CC00FFC0-0451-4000-B000-000000000000",
          "characteristics": [
            {"uuid": "B0702882-A295-A8AB-F734-031A98A512DE", "properties": ["read"],
             "value": "0001"},
            {"uuid": "B0702883-A295-A8AB-F734-031A98A512DE", "properties": ["read"],
             "value": "0002"},
            {"uuid": "FF0C", "properties": ["write", "writeWithoutResponse", "notify"],
             "reply": "echo"},
            {"uuid": "FFCC", "properties": ["read"],
             "reply": "68656C6C6F2066726F6D204C756D6F726144656D6F"}
          ]
        },
        {
          "uuid": "180F",
          "characteristics": [
            {"uuid": "2A19", "properties": ["read", "notify"], "value": "64"}
          ]
        }
      ]
    }
  ]
})json";
  return text;
}

}  // namespace lumora::sim
