// Child processes for the Node test and benchmark programs: stdout lines are
// kept, and `waitFor` resolves with the first line (from `from` on) that
// matches a string, a regular expression or a function. And free ports.
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { createServer } from 'node:net';
import { createInterface } from 'node:readline';

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Every child started, for the program to end at its close.
export const children = [];

export function start(command, args, env = {}, { timeout: waitDefault = 30000 } = {}) {
  const child = spawn(command, args, { env: { ...process.env, ...env },
    stdio: ['ignore', 'pipe', 'ignore'] });
  children.push(child);
  const lines = [];
  createInterface({ input: child.stdout }).on('line', (line) => lines.push(line));
  return {
    child,
    lines,
    async waitFor(match, { from = 0, timeout = waitDefault } = {}) {
      const test = typeof match === 'function' ? match
        : typeof match === 'string' ? (l) => l.includes(match) : (l) => match.test(l);
      for (const end = Date.now() + timeout; Date.now() < end; await sleep(50)) {
        const found = lines.slice(from).find(test);
        if (found !== undefined) return found;
      }
      throw new Error(`${command}: no line matching ${match}; last lines:\n` +
        lines.slice(-15).join('\n'));
    },
  };
}

// A loopback port nothing listens on now.
export async function freePort() {
  const probe = createServer().listen(0, '127.0.0.1');
  await once(probe, 'listening');
  const { port } = probe.address();
  probe.close();
  return port;
}
