// A WebAssembly function that adds up the numbers from its argument down to 1.
const body = [1,1,127, 3,64, 32,1,32,0,106,33,1, 32,0,65,1,107,34,0, 13,0, 11, 32,1, 11];
const code = [10, body.length + 2, 1, body.length, ...body];
const bytes = new Uint8Array([0,97,115,109,1,0,0,0, 1,6,1,96,1,127,1,127, 3,2,1,0, 7,5,1,1,102,0,0, ...code]);
const m = new WebAssembly.Instance(new WebAssembly.Module(bytes));
let s = 0; for (let i = 0; i < 30; ++i) s = (s + m.exports.f(10000 + i)) | 0;
console.log('wasm', s);
