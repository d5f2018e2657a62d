// Worker threads, a function that is optimised and then sees another kind of object, and a regular expression.
const { Worker, isMainThread, parentPort, workerData } = require('worker_threads');
function work(n) { let s = 0; for (let i = 0; i < n; ++i) s = (s * 31 + (i ^ (i >> 3))) | 0; return s; }
if (isMainThread) {
  let total = 0, left = 3;
  for (let w = 0; w < 3; ++w) {
    const worker = new Worker(__filename, { workerData: 20000 + w });
    worker.on('message', m => { total = (total + m) | 0; if (--left === 0) console.log('workers', total); });
  }
  function P(x) { this.x = x; } 
  function sum(a) { let s = 0; for (const p of a) s += p.x; return s; }
  const a = []; for (let i = 0; i < 2000; ++i) a.push(new P(i)); let t = 0;
  for (let r = 0; r < 50; ++r) t += sum(a);
  a.push({ x: 'deopt' }); console.log(t, String(sum(a)).length);
  console.log('abcabc'.replace(/b(c)/g, '$1-'), work(50000));
} else parentPort.postMessage(work(workerData));
