// The test application as a plain ES module, with the package from dist/.
import { OkuNode } from '../../dist/index.js';
import { run } from './run.js';

run(OkuNode);
