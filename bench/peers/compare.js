// The peer's side of bench/peers/run.sh: times the npm beacon parser on the
// payloads Lumora was timed on, checks that both decoded the same thing, and
// prints both sides per payload with the ratio.
//
//   node compare.js PAYLOADS.json NODE_MODULES_DIR LUMORA_RESULTS.json
//
// LUMORA_RESULTS.json is bench_peers' Google Benchmark JSON (medians of
// repetitions). Times are nanoseconds of CPU per payload, on both sides.
'use strict';

const fs = require('fs');
const path = require('path');

const [payloadFile, modulesArg, lumoraFile] = process.argv.slice(2);
if (!lumoraFile) {
  console.error('usage: node compare.js PAYLOADS.json NODE_MODULES_DIR LUMORA_RESULTS.json');
  process.exit(2);
}
// An absolute path: require() takes a bare relative one for a package name.
const modules = path.resolve(modulesArg);
const advlib = require(path.join(modules, 'advlib-ble'));
const manufacturers = require(path.join(modules, 'advlib-ble-manufacturers'));
const version = (name) =>
  JSON.parse(fs.readFileSync(path.join(modules, name, 'package.json'), 'utf8')).version;

const payloads = JSON.parse(fs.readFileSync(payloadFile, 'utf8')).payloads;

// What an application calls, per layer of the package:
// - the manufacturer data decoder, given the data with its company id first,
//   as Lumora's decoder is;
// - the package's entry point on the advertising data (the same bytes as one
//   AD structure), which finds the manufacturer data and calls the decoder.
function decodeManufacturerData(buf) {
  return manufacturers.processManufacturerSpecificData(buf.readUInt16LE(0), buf.subarray(2));
}
const libraries = [manufacturers];
const payloadOnly = { isPayloadOnly: true };
function processAdvertisingData(ad) {
  return advlib.process(ad, libraries, payloadOnly);
}
// The package has no distance estimate: Lumora's formula in plain JavaScript,
// for scale only.
function distance(txPower, rssi) {
  if (rssi === 0) return null;
  const ratio = (rssi * 1.0) / txPower;
  return ratio < 1.0 ? Math.pow(ratio, 10.0) : 0.89976 * Math.pow(ratio, 7.7095) + 0.111;
}

// CPU time per call, the median of seven rounds of at least 50 ms, after a
// warm-up long enough for the optimising compiler (below). CPU time rather than wall
// time keeps a busy machine out of the figures; run.sh starts node
// single-threaded, so the process's CPU time is this thread's. Every result
// feeds a sink so no call can be dropped.
let sink = 0;
function cpuNs() {
  const u = process.cpuUsage();
  return (u.user + u.system) * 1000;
}
function warmUp(fn, arg, arg2) {
  for (let i = 0; i < 300000; ++i) sink += fn(arg, arg2) === null ? 0 : 1;
}
function time(fn, arg, arg2) {
  let n = 1000;
  for (;;) {
    const start = cpuNs();
    for (let i = 0; i < n; ++i) sink += fn(arg, arg2) === null ? 0 : 1;
    if (cpuNs() - start > 50e6) break;
    n *= 2;
  }
  const rounds = [];
  for (let r = 0; r < 7; ++r) {
    const start = cpuNs();
    for (let i = 0; i < n; ++i) sink += fn(arg, arg2) === null ? 0 : 1;
    rounds.push((cpuNs() - start) / n);
  }
  rounds.sort((a, b) => a - b);
  return rounds[3];
}

// The peer's iBeacon in Lumora's words: "UUID-TEXT major minor power".
function asLumora(result) {
  const id = result && result.deviceIds && result.deviceIds[0];
  if (!id) return 'not an iBeacon';
  const [uuid, major, minor] = id.split('/');
  const u = uuid.toUpperCase();
  const text = [u.slice(0, 8), u.slice(8, 12), u.slice(12, 16), u.slice(16, 20), u.slice(20)].join('-');
  return `${text} ${parseInt(major, 16)} ${parseInt(minor, 16)} ${result.txPower}`;
}

const lumora = new Map();
for (const b of JSON.parse(fs.readFileSync(lumoraFile, 'utf8')).benchmarks) {
  if (b.run_type === 'aggregate' && b.aggregate_name !== 'median') continue;
  const scale = { ns: 1, us: 1e3, ms: 1e6, s: 1e9 }[b.time_unit];
  lumora.set(b.run_name || b.name, { ns: b.cpu_time * scale, label: b.label || '' });
}

// Every function on every payload first, so that no figure includes the
// compiler's work or a deoptimisation caused by a later payload.
const inputs = payloads.map((p) => {
  const data = Buffer.from(p.data, 'hex');
  const ad = Buffer.concat([Buffer.from([data.length + 1, 0xff]), data]);
  const peer = decodeManufacturerData(data);
  const power = peer && peer.deviceIds ? peer.txPower : -59;
  return { data, ad, peer, power };
});
for (let round = 0; round < 2; ++round) {
  for (const [i, p] of payloads.entries()) {
    warmUp(decodeManufacturerData, inputs[i].data);
    warmUp(processAdvertisingData, inputs[i].ad);
    warmUp(distance, inputs[i].power, p.rssi);
  }
}

const rows = [];
let met = 0;
let disagreements = 0;
for (const [i, p] of payloads.entries()) {
  const { data, ad, peer, power } = inputs[i];
  const mine = lumora.get(`decode/${p.name}`);
  const mineDistance = lumora.get(`distance/${p.name}`);
  if (!mine || !mineDistance) {
    console.error(`compare: no Lumora result for ${p.name}`);
    process.exit(1);
  }
  const agrees = asLumora(peer) === mine.label;
  if (!agrees) ++disagreements;
  const decodeNs = time(decodeManufacturerData, data);
  const processNs = time(processAdvertisingData, ad);
  const distanceNs = time(distance, power, p.rssi);
  const ratio = decodeNs / mine.ns;
  if (ratio >= 30) ++met;
  rows.push([
    p.name,
    mine.ns.toFixed(1),
    decodeNs.toFixed(1),
    `${ratio.toFixed(1)}x`,
    processNs.toFixed(1),
    `${(processNs / mine.ns).toFixed(1)}x`,
    mineDistance.ns.toFixed(1),
    distanceNs.toFixed(1),
    agrees ? 'same' : `peer: ${asLumora(peer)}`,
  ]);
}

const header = [
  'payload',
  'Lumora decode',
  'peer decode',
  'ratio',
  'peer process()',
  'ratio',
  'Lumora distance',
  'JS formula',
  'decoded',
];
const widths = header.map((h, i) => Math.max(h.length, ...rows.map((r) => r[i].length)));
const line = (cells) =>
  cells.map((c, i) => (i === 0 || i === cells.length - 1 ? c.padEnd(widths[i]) : c.padStart(widths[i]))).join('  ');
console.log(
  `ns per payload; peer: advlib-ble ${version('advlib-ble')} with advlib-ble-manufacturers ` +
    `${version('advlib-ble-manufacturers')} on node ${process.version}`,
);
console.log(line(header));
for (const r of rows) console.log(line(r));
console.log(
  `Lumora's decode is at least 30x faster than the peer's on ${met} of ${payloads.length} payloads; ` +
    `${disagreements} payload(s) decoded differently` + (sink < 0 ? '' : '.'),
);
