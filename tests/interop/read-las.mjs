// Reads a LAS file with laz-perf and prints, as JSON, the header fields laz-perf reports
// (point count, format, record length), the scale/offset/encoding it needs to decode positions,
// the first and last points and the extra bytes of those points (by the Extra Bytes VLR), the
// coordinate system's WKT, a summary of every point (scan angles, intensities) and, for point
// format 9, a check of every wave packet read straight from the standard: the echoes of one
// packet must share its anchor (position minus location times (Xt, Yt, Zt)), each echo's
// location must fall on a peak of the packet's samples, and (Xt, Yt, Zt) must leave nadir at
// the point's scan angle.
// Usage: node read-las.mjs FILE.las
import { readFileSync } from 'node:fs';
import { createLazPerf } from 'laz-perf';

const EXTRA_TYPES = { 1: ['getUint8', 1], 9: ['getFloat32', 4], 10: ['getFloat64', 8] };

function text(view, at, length) {
  return new TextDecoder().decode(new Uint8Array(view.buffer, view.byteOffset + at, length)).replace(/\0.*$/, '');
}

// Every VLR and extended VLR: user, record number and where its payload lies.
function records(view) {
  const found = [];
  let at = view.getUint16(94, true);
  for (let v = view.getUint32(100, true); v > 0; --v) {
    const length = view.getUint16(at + 20, true);
    found.push({ user: text(view, at + 2, 16), record: view.getUint16(at + 18, true), at: at + 54, length });
    at += 54 + length;
  }
  at = Number(view.getBigUint64(235, true));
  for (let v = view.getUint32(243, true); v > 0; --v) {
    const length = Number(view.getBigUint64(at + 20, true));
    found.push({ user: text(view, at + 2, 16), record: view.getUint16(at + 18, true), at: at + 60, length, header: at });
    at += 60 + length;
  }
  return found;
}

function extraBytesLayout(view, vlrs) {
  const r = vlrs.find((v) => v.user === 'LASF_Spec' && v.record === 4);
  const fields = [];
  for (let d = r ? r.at : 0; r && d < r.at + r.length; d += 192)
    fields.push({ name: text(view, d + 4, 32), type: view.getUint8(d + 2) });
  return fields;
}

function coordinateSystem(view, vlrs) {
  const r = vlrs.find((v) => v.user === 'LASF_Projection' && v.record === 2112);
  return r ? text(view, r.at, r.length) : null;
}

// Temporal spacing (ps) per wave packet descriptor index.
function waveSpacings(view, vlrs) {
  const spacing = {};
  for (const v of vlrs)
    if (v.user === 'LASF_Spec' && v.record >= 100 && v.record < 355) spacing[v.record - 99] = view.getUint32(v.at + 6, true);
  return spacing;
}

function decodePoint(bytes, header, extraFields, extraStart) {
  const v = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  const point = {
    x: v.getInt32(0, true) * header.scale[0] + header.offset[0],
    y: v.getInt32(4, true) * header.scale[1] + header.offset[1],
    z: v.getInt32(8, true) * header.scale[2] + header.offset[2],
    intensity: v.getUint16(12, true),
    returnNumber: v.getUint8(14) & 15,
    numberOfReturns: v.getUint8(14) >> 4,
    classification: v.getUint8(16),
    scanAngle: v.getInt16(18, true) * 0.006,
    gpsTime: v.getFloat64(22, true),
    extra: {},
  };
  if (header.pointFormat === 9) {
    point.wave = {
      descriptor: v.getUint8(30), offset: Number(v.getBigUint64(31, true)), size: v.getUint32(39, true),
      location: v.getFloat32(43, true), step: [v.getFloat32(47, true), v.getFloat32(51, true), v.getFloat32(55, true)],
    };
  }
  let at = extraStart;
  for (const f of extraFields) {
    const [getter, size] = EXTRA_TYPES[f.type];
    point.extra[f.name] = v[getter](at, true);
    at += size;
  }
  return point;
}

const file = readFileSync(process.argv[2]);
const LazPerf = await createLazPerf();
const filePtr = LazPerf._malloc(file.byteLength);
LazPerf.HEAPU8.set(file, filePtr);
const reader = new LazPerf.LASZip();
reader.open(filePtr, file.byteLength);
const count = reader.getCount();
const pointLength = reader.getPointLength();
const pointFormat = reader.getPointFormat();

const view = new DataView(file.buffer, file.byteOffset, file.byteLength);
const header = {
  signature: file.subarray(0, 4).toString(),
  version: `${view.getUint8(24)}.${view.getUint8(25)}`,
  systemIdentifier: file.subarray(26, 58).toString().replace(/\0.*$/, ''),
  generatingSoftware: file.subarray(58, 90).toString().replace(/\0.*$/, ''),
  globalEncoding: view.getUint16(6, true),
  scale: [131, 139, 147].map((o) => view.getFloat64(o, true)),
  offset: [155, 163, 171].map((o) => view.getFloat64(o, true)),
  pointFormat,
};
const vlrs = records(view);
const extraFields = extraBytesLayout(view, vlrs);
const extraStart = ({ 6: 30, 9: 59 })[pointFormat];

// The samples of a packet, and whether `index` lies within a sample of their largest value
// around it (the echo's peak).
function onPeak(packet, index) {
  const samples = new Uint16Array(file.buffer.slice(file.byteOffset + packet.start, file.byteOffset + packet.start + packet.size));
  const at = Math.round(index);
  if (at < 0 || at >= samples.length) return false;
  let best = at;
  for (let s = Math.max(0, at - 3); s <= Math.min(samples.length - 1, at + 3); ++s) if (samples[s] > samples[best]) best = s;
  return Math.abs(best - index) <= 1.0;
}

const summary = { scanAngleMin: Infinity, scanAngleMax: -Infinity, intensityMax: 0, saturatedIntensities: 0 };
const waves = { packets: 0, echoes: 0, multiEchoPackets: 0, worstAnchorSpread: 0, echoesOffPeak: 0, worstNadirMismatch: 0, examplePulse: null };
const waveDataStart = Number(view.getBigUint64(227, true));
const spacing = waveSpacings(view, vlrs);
const packets = new Map();

function checkWave(p) {
  const w = p.wave;
  if (w.descriptor === 0) return;
  const anchor = [p.x, p.y, p.z].map((c, i) => c - w.location * w.step[i]);
  const key = w.offset;
  if (!packets.has(key)) packets.set(key, { start: waveDataStart + w.offset, size: w.size, anchors: [], points: [] });
  const packet = packets.get(key);
  packet.anchors.push(anchor);
  if (packet.points.length < 4) packet.points.push({ x: p.x, y: p.y, z: p.z, location: w.location, step: w.step, anchor });
  ++waves.echoes;
  if (!onPeak(packet, w.location / spacing[w.descriptor])) ++waves.echoesOffPeak;
  const n = Math.hypot(...w.step);
  const offNadir = Math.acos(-w.step[2] / n) * 180 / Math.PI;
  waves.worstNadirMismatch = Math.max(waves.worstNadirMismatch, Math.abs(offNadir - Math.abs(p.scanAngle)));
}

function summarisePackets() {
  for (const packet of packets.values()) {
    ++waves.packets;
    if (packet.anchors.length < 2) continue;
    ++waves.multiEchoPackets;
    const first = packet.anchors[0];
    for (const a of packet.anchors) waves.worstAnchorSpread = Math.max(waves.worstAnchorSpread, Math.hypot(a[0] - first[0], a[1] - first[1], a[2] - first[2]));
    if (!waves.examplePulse) waves.examplePulse = packet.points;
  }
}

const pointPtr = LazPerf._malloc(pointLength);
const points = [];
for (let k = 0; k < count; ++k) {
  reader.getPoint(pointPtr);
  const bytes = new Uint8Array(LazPerf.HEAPU8.buffer, pointPtr, pointLength);
  const p = decodePoint(bytes, header, extraFields, extraStart);
  summary.scanAngleMin = Math.min(summary.scanAngleMin, p.scanAngle);
  summary.scanAngleMax = Math.max(summary.scanAngleMax, p.scanAngle);
  summary.intensityMax = Math.max(summary.intensityMax, p.intensity);
  if (p.intensity === 65535) ++summary.saturatedIntensities;
  if (pointFormat === 9) checkWave(p);
  if (k < 2 || k === count - 1) points.push({ index: k, ...decodePoint(bytes.slice(), header, extraFields, extraStart) });
}
summarisePackets();
LazPerf._free(pointPtr);
LazPerf._free(filePtr);
reader.delete();
console.log(JSON.stringify({
  header, count, pointFormat, pointLength, extraFields, crs: coordinateSystem(view, vlrs), summary,
  waveforms: pointFormat === 9 ? waves : null, points,
}));
