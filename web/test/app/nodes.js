// On one AudioContext: a worklet file that is not there, then creates and
// closes 1000 nodes, then keeps 32 alive at once until each has reported a
// reading; marks the worklet's wasm memory, and asks the server to mark the
// renderer's, after node 100, node 1000 and the 32. Posts the first error's
// message and the marks, or the error.
import { OkuNode } from '../../dist/index.js';

const post = (path, body) => fetch(path, { method: 'POST', body: JSON.stringify(body) }).then((r) => r.json());
try {
  const context = new AudioContext();
  const missing = await OkuNode.create(context, { processorUrl: '/nowhere/processor.js' }).catch((e) => e.message);
  const marks = [];
  const mark = async (nodes, node) => marks.push({ nodes, wasm: node.workletMemoryBytes, ...(await post('/mark', {})) });
  for (let i = 1; i <= 1000; i++) {
    const node = await OkuNode.create(context);
    await node.close();
    if (i === 100 || i === 1000) await mark(i, node);
  }
  const source = context.createOscillator();
  source.start();
  const alive = [];
  const heard = [];
  for (let i = 0; i < 32; i++) {
    let hear;
    heard.push(new Promise((resolve) => (hear = resolve)));
    const node = await OkuNode.create(context, { onVolume: () => hear() });
    source.connect(node).connect(context.destination);
    alive.push(node);
  }
  await Promise.all(heard);
  await Promise.all(alive.map((node) => node.close()));
  await mark(1032, alive[31]);
  await post('/result', { missing, marks });
} catch (e) {
  await post('/result', { error: String(e && e.stack ? e.stack : e) });
}
