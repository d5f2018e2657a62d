// Result files for the browser's tests, made here so that each says what it is for. The machine in them is invented:
// no figure was measured.

const roof = (name, value, is_compute) => ({ name, value, measure: is_compute ? "GFLOPS" : "GB/s", is_compute });

// All roofs that a run writes, for one thread count.
const roofs = (threads, scale = 1) => {
  const of = (value) => Math.round(value * threads * scale);
  return [
    roof("L1", of(90), false), roof("L2", of(48), false), roof("L3", of(26), false),
    roof("DDR", Math.round(40 * Math.min(1, threads / 2) * scale), false),
    roof("DDR Numa-local", Math.round(48 * Math.min(1, threads / 2) * scale), false),
    roof("Scalar(SP)-FADD/FSUB", of(5), true), roof("Scalar(SP)-FMADD", of(10), true),
    roof("Scalar(DP)-FADD/FSUB", of(5), true), roof("Scalar(DP)-FMADD", of(10), true),
    roof("f16x8-FADD/FSUB", of(40), true), roof("f16x8-FMLA/FMLS", of(80), true),
    roof("f32x4-FADD/FSUB", of(20), true), roof("f32x4-FMLA/FMLS", of(40), true),
    roof("f64x2-FADD/FSUB", of(10), true), roof("f64x2-FMLA/FMLS", of(20), true),
  ];
};

const block = (start, instructions, flop, count, elements, module) => [
  (0x400000 + start).toString(16), (0x400000 + start + 4 * instructions).toString(16),
  start.toString(16), (start + 4 * instructions).toString(16), flop, count, elements, module,
];

// Blocks first: the region's `flop` is their sum, as in every file that the tool writes.
const region = (threads, time, bytes, bbs) => ({
  flop: bbs.reduce((sum, one) => sum + one[4] * one[5], 0), threads, bbs, ddr_bytes: bytes[3], l2_bytes: bytes[1], time,
  l3_bytes: bytes[2], l1_bytes: bytes[0],
});

const keys = ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"];

export const result = (regions, threads = 4, counts = [1, 2, 4], scale = 1) => {
  const file = { regions, bb_keys: keys, threads };
  if (counts.length > 0) {
    file.roofs = roofs(threads, scale);
    file.roofs_by_num_threads = Object.fromEntries(counts.map((count) => [String(count), roofs(count, scale)]));
  }
  return file;
};

const solver = "/opt/heat/bin/solver";
const libm = "/usr/lib/aarch64-linux-gnu/libm.so.6";

export const heat = (speed = 1, scale = 1) => result({
  assemble: region(4, 210e6 * speed, [11e9, 4.1e9, 2.2e9, 1.1e9],
    [block(0x1200, 14, 8, 90e6, 1, solver), block(0x5400, 31, 17, 12e6, 1, libm)]),
  solve: region(4, 1500e6 * speed, [190e9, 88e9, 61e9, 52e9],
    [block(0x2380, 12, 16, 1.1e9, 2, solver), block(0x2440, 9, 8, 0.4e9, 2, solver),
      block(0x2500, 7, 1, 0.2e9, 1, solver)]),
  "dot product": region(4, 400e6 * speed, [21e9, 20e9, 18.4e9, 12.8e9], [block(0x3000, 6, 4, 1.3e9, 2, solver)]),
  "small matrices": region(4, 640e6 * speed, [73e9, 9.1e9, 0.8e9, 0.2e9], [block(0x4000, 40, 64, 0.52e9, 2, solver)]),
  output: region(1, 95e6 * speed, [1.2e9, 0.3e9, 0.2e9, 0.15e9], [block(0x6100, 22, 2, 6e6, 1, libm)]),
}, 4, [1, 2, 4], scale);

const markup = "</script><img src=x onerror='document.title=1'>";

const many = (count) => {
  const regions = {};
  for (let at = 0; at < count; at++) {
    const time = (5 + ((at * 37) % 91)) * 1e6;
    const work = Math.round(2e6 * (1 + ((at * 53) % 29)) * (1 + at / 7));
    const bytes = [12, 7, 4, 2.2].map((per, level) => Math.round(work * per / (1 + ((at * (3 + level)) % 17) / 2)));
    regions["loop " + String(at).padStart(2, "0") + " of the time step"] =
      region(4, time, bytes, [block(0x1000 + 64 * at, 10, 4, work, at % 3 === 0 ? 1 : 2, solver)]);
  }
  return result(regions);
};

const hotBlocks = (count) => {
  const blocks = [];
  for (let at = 0; at < count; at++) {
    blocks.push(block(0x1000 + 16 * at, 4 + (at % 9), 1 + (at % 7), 1000 + ((at * 7919) % 100003), 1 + (at % 2),
      at % 5 === 0 ? libm : solver));
  }
  return result({ total: region(4, 900e6, [9e9, 5e9, 3e9, 2e9], blocks) });
};

const total = (bytes, extra = {}) =>
  ({ ...region(4, 300e6, bytes, [block(0x1000, 8, 8, 500e6, 2, solver)]), ...extra });

// Each name becomes a file NAME.json; each is a page of its own in the tests of labels.
export const files = {
  heat: heat(),
  one: result({ total: total([30e9, 12e9, 8e9, 4e9]) }),
  many: many(40),
  states: result({
    ...heat().regions,
    "not traced": { ...total([9e9, 4e9, 3e9, 2e9]), flop: 0, threads: 0, bbs: [] },
    "no operations": { ...total([9e9, 4e9, 3e9, 2e9]), flop: 0, bbs: [] },
    "no counters": { flop: 4e9, threads: 4, bbs: [block(0x1000, 8, 8, 500e6, 2, solver)] },
    "no bytes": total([0, 0, 0, 0]),
    "L2 not counted": total([30e9, 0, 8e9, 4e9]),
  }),
  strangers: result({
    [markup]: total([30e9, 12e9, 8e9, 4e9]),
    "=1+1; a & b <i>\u2028\u2029": total([10e9, 6e9, 5e9, 3e9], { time: 500e6 }),
    ["a name without end ".repeat(12)]: total([90e9, 50e9, 30e9, 9e9], { time: 200e6 }),
  }),
  no_roofs: result(heat().regions, 4, []),
  no_regions: result({}, 1, [1]),
  fast: result({ "above its roof": total([90e9, 60e9, 40e9, 35e9]), far: total([9e4, 9e3, 9e2, 4]) }),
  close: result(Object.fromEntries(["a", "b", "c", "d", "e"].map((name, at) =>
    ["kernel " + name, total([30e9 + at * 1e8, 12e9 + at * 1e8, 8e9 + at * 1e8, 4e9 + at * 1e8])]))),
  wide: result(heat().regions, 64, [1, 2, 4, 8, 16, 32, 64]),
  blocks: hotBlocks(3000),
};
