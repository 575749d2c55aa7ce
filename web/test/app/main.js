// The test application as a bundler takes it: the package by its name.
import { OkuNode } from 'oku-speech';
import { run } from './run.js';

run(OkuNode);
