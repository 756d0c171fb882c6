// Reads a LAS file with laz-perf and prints, as JSON, the header fields laz-perf reports
// (point count, format, record length), the scale/offset/encoding it needs to decode positions,
// the first and last points and the extra bytes of those points (by the Extra Bytes VLR).
// Usage: node read-las.mjs FILE.las
import { readFileSync } from 'node:fs';
import { createLazPerf } from 'laz-perf';

const EXTRA_TYPES = { 1: ['getUint8', 1], 9: ['getFloat32', 4], 10: ['getFloat64', 8] };

function extraBytesLayout(view) {
  const headerSize = view.getUint16(94, true);
  const vlrCount = view.getUint32(100, true);
  let at = headerSize;
  for (let v = 0; v < vlrCount; ++v) {
    const user = new TextDecoder().decode(new Uint8Array(view.buffer, view.byteOffset + at + 2, 16)).replace(/\0.*$/, '');
    const record = view.getUint16(at + 18, true);
    const length = view.getUint16(at + 20, true);
    if (user === 'LASF_Spec' && record === 4) {
      const fields = [];
      for (let d = at + 54; d < at + 54 + length; d += 192) {
        const name = new TextDecoder().decode(new Uint8Array(view.buffer, view.byteOffset + d + 4, 32)).replace(/\0.*$/, '');
        fields.push({ name, type: view.getUint8(d + 2) });
      }
      return fields;
    }
    at += 54 + length;
  }
  return [];
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
    gpsTime: v.getFloat64(22, true),
    extra: {},
  };
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
};
const extraFields = extraBytesLayout(view);
const extraStart = ({ 6: 30, 9: 59 })[pointFormat];

const pointPtr = LazPerf._malloc(pointLength);
const points = [];
for (let k = 0; k < count; ++k) {
  reader.getPoint(pointPtr);
  if (k < 2 || k === count - 1) {
    const bytes = new Uint8Array(LazPerf.HEAPU8.buffer, pointPtr, pointLength).slice();
    points.push({ index: k, ...decodePoint(bytes, header, extraFields, extraStart) });
  }
}
LazPerf._free(pointPtr);
LazPerf._free(filePtr);
reader.delete();
console.log(JSON.stringify({ header, count, pointFormat, pointLength, extraFields, points }));
