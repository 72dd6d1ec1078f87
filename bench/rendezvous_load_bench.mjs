#!/usr/bin/env node
// Load on the rendezvous service (server/), on loopback only: simulated
// agents and phones hold their WebSockets, each phone in a session with its
// agent, then agents send messages at a steady total rate that the service
// relays to their phones. Run twice in one go, figures side by side: two
// instances sharing redis-server (agents on one, phones on the other, so that
// every message crosses Redis) and one instance without Redis.
//
//   node bench/rendezvous_load_bench.mjs [--pairs N] [--rate MSG_PER_S] [--seconds S] [--workers W]
//
// Defaults: 10,000 agents + 10,000 phones, 2,000 messages/s for 10 s, 4
// client processes. Needs redis-server (scripts/setup test) and an open-file
// limit above the sockets one process holds (raised with prlimit where allowed;
// one instance without Redis holds what its limit allows).

import { fork, spawn, spawnSync } from 'node:child_process';
import crypto from 'node:crypto';
import { once } from 'node:events';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import os from 'node:os';
import path from 'node:path';
import { createInterface } from 'node:readline';
import { fileURLToPath } from 'node:url';
import { freePort } from '../tests/support/processes.mjs';

const self = fileURLToPath(import.meta.url);
const root = path.resolve(path.dirname(self), '..');
const WebSocket = createRequire(path.join(root, 'server', 'package.json'))('ws');
const MAX_PAIRS = 20000;
const NOFILE = 65536;

// ---- a client process: a slice of the agents and phones ----------------------

function identity(prefix) {
  const { publicKey, privateKey } = crypto.generateKeyPairSync('ed25519');
  const raw = Buffer.from(publicKey.export({ format: 'jwk' }).x, 'base64url');
  const id = prefix + crypto.createHash('sha256').update(raw).digest().subarray(0, 18).toString('base64url');
  return { id, publicKey: raw.toString('base64url'), privateKey };
}

function socketUrl(port, role, who, agentId) {
  const timestamp = Math.floor(Date.now() / 1000);
  const nonce = crypto.randomBytes(24).toString('base64url');
  const transcript = `ZUL-SIGNALING-IDENTITY-1\n${role}\n${who.id}\n${agentId}\n${timestamp}\n${nonce}`;
  const query = new URLSearchParams({ role, ...(role === 'phone' ? { deviceId: who.id } : {}), agentId,
    publicKey: who.publicKey, timestamp: String(timestamp), nonce,
    signature: crypto.sign(null, Buffer.from(transcript), who.privateKey).toString('base64url') });
  return `ws://127.0.0.1:${port}/v1/rendezvous/${agentId}?${query}`;
}

function connect(url, onMessage) {
  return new Promise((resolve, reject) => {
    const ws = new WebSocket(url, { perMessageDeflate: false, handshakeTimeout: 30000 });
    ws.on('message', (data) => onMessage(data));
    ws.on('error', () => {});
    ws.once('open', () => resolve(ws));
    ws.once('error', reject);
    ws.once('unexpected-response', (request, response) => reject(new Error(`HTTP ${response.statusCode}`)));
  });
}

async function worker() {
  const pairs = [];
  const latencies = [];
  let counting = false;
  process.on('message', async (command) => {
    if (command.cmd === 'connect') {
      const { agentPort, phonePort, count } = command;
      const identities = Array.from({ length: count }, () => ({ agent: identity('agent_'), phone: identity('device_') }));
      let failed = 0;
      // A bounded number of handshakes in flight.
      for (let i = 0; i < count; i += 100) {
        await Promise.all(identities.slice(i, i + 100).map(async ({ agent, phone }) => {
          try {
            let ready;
            const sessionReady = new Promise((resolve) => { ready = resolve; });
            const agentWs = await connect(socketUrl(agentPort, 'agent', agent, agent.id), (data) => {
              if (data.includes('"peer.ready"')) ready(true);
            });
            const phoneWs = await connect(socketUrl(phonePort, 'phone', phone, agent.id), (data) => {
              if (!counting) return;
              const at = /"candidate":"t=([0-9.]+)"/.exec(data);
              if (at) latencies.push(performance.now() - Number(at[1]));
            });
            phoneWs.send('{"type":"session.request"}');
            const late = setTimeout(() => ready(false), 30000);
            if (await sessionReady === false) throw new Error('no session');
            clearTimeout(late);
            pairs.push({ agentWs, phoneWs, peerId: phone.id });
          } catch {
            failed += 1;
          }
        }));
        process.send({ progress: pairs.length + failed });
      }
      process.send({ held: pairs.length, failed });
    } else if (command.cmd === 'relay') {
      latencies.length = 0;
      counting = true;
      const perTick = (command.rate * 10) / 1000; // every 10 ms
      let owed = 0;
      let next = 0;
      let sent = 0;
      const end = Date.now() + command.seconds * 1000;
      await new Promise((resolve) => {
        const timer = setInterval(() => {
          if (Date.now() >= end || pairs.length === 0) {
            clearInterval(timer);
            resolve();
            return;
          }
          for (owed += perTick; owed >= 1; owed -= 1) {
            const pair = pairs[next];
            next = (next + 1) % pairs.length;
            pair.agentWs.send(`{"type":"signal.ice","peerId":"${pair.peerId}","candidate":"t=${performance.now()}","sdpMid":"0","sdpMLineIndex":0}`);
            sent += 1;
          }
        }, 10);
      });
      // What is still on its way gets a second to arrive.
      await new Promise((resolve) => setTimeout(resolve, 1000));
      counting = false;
      process.send({ sent, latencies });
    } else if (command.cmd === 'close') {
      for (const { agentWs, phoneWs } of pairs) {
        agentWs.terminate();
        phoneWs.terminate();
      }
      process.exit(0);
    }
  });
  process.send({ up: true });
}

// ---- the run --------------------------------------------------------------------

function option(name, fallback) {
  const at = process.argv.indexOf(`--${name}`);
  if (at < 0) return fallback;
  const value = Number(process.argv[at + 1]);
  if (!Number.isFinite(value) || value <= 0) {
    console.error(`--${name} needs a positive number`);
    process.exit(2);
  }
  return value;
}

// Where allowed, the open-file limit of what this starts is raised; else
// each process may hold what the current limit allows.
const canRaise = spawnSync('prlimit', [`--nofile=${NOFILE}:${NOFILE}`, '--', 'true']).status === 0;
const openFiles = canRaise ? NOFILE
  : Number(spawnSync('sh', ['-c', 'ulimit -n']).stdout.toString().trim()) || 1024;
function launch(command, args, env = {}) {
  const [program, argv] = canRaise ? ['prlimit', [`--nofile=${NOFILE}:${NOFILE}`, '--', command, ...args]]
    : [command, args];
  return spawn(program, argv, { env: { ...process.env, ...env }, stdio: ['ignore', 'pipe', 'inherit'] });
}

async function startInstance(redisPort) {
  const port = await freePort();
  const child = launch('node', [path.join(root, 'server', 'server.js'), '--port', String(port),
    '--log-format', 'text', '--log-level', 'warn', '--upgrades-per-minute', '0', '--pairing-per-minute', '0',
    '--ping-seconds', '60', '--state-file', path.join(os.tmpdir(), `zul-bench-${process.pid}.json`)],
  redisPort ? { REDIS_URL: `redis://127.0.0.1:${redisPort}` } : {});
  child.stdout.resume();
  for (const end = Date.now() + 20000; Date.now() < end; await new Promise((r) => setTimeout(r, 50))) {
    if (await fetch(`http://127.0.0.1:${port}/healthz`).then((r) => r.ok, () => false)) return { child, port };
  }
  throw new Error('the rendezvous service did not start');
}

// Resident memory (bytes) and CPU time (seconds) of a process.
function usage(pid) {
  const rss = Number(/VmRSS:\s+(\d+) kB/.exec(readFileSync(`/proc/${pid}/status`, 'utf8'))[1]) * 1024;
  const fields = readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  const ticks = Number(fields[11]) + Number(fields[12]);
  return { rss, cpu: ticks / 100 };
}
// The process itself, not prlimit (which execs it: same pid).
const total = (pids, what) => pids.reduce((sum, pid) => sum + usage(pid)[what], 0);

async function heldConnections(ports) {
  let held = 0;
  for (const port of ports) {
    const text = await (await fetch(`http://127.0.0.1:${port}/metrics`)).text();
    for (const match of text.matchAll(/^zul_rendezvous_connections\{role="\w+"\} (\d+)/gm)) held += Number(match[1]);
  }
  return held;
}

function percentile(sorted, p) {
  return sorted.length ? sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * p))] : NaN;
}

async function run(label, { redis, pairs, rate, seconds, workers }) {
  process.stderr.write(`bench: ${label}: starting\n`);
  const processes = [];
  let redisChild;
  let redisPort = null;
  if (redis) {
    redisPort = await freePort();
    redisChild = launch('redis-server', ['--port', String(redisPort), '--bind', '127.0.0.1', '--save', '',
      '--appendonly', 'no', '--maxclients', '1000']);
    for await (const line of createInterface({ input: redisChild.stdout })) if (line.includes('Ready to accept')) break;
    redisChild.stdout.resume();
    processes.push(redisChild.pid);
  }
  const agentsAt = await startInstance(redisPort);
  const phonesAt = redis ? await startInstance(redisPort) : agentsAt;
  const instances = [...new Set([agentsAt, phonesAt])];
  processes.push(...instances.map((i) => i.child.pid));
  await new Promise((resolve) => setTimeout(resolve, 500));
  const idle = total(processes, 'rss');

  const clients = [];
  for (let i = 0; i < workers; i += 1) {
    const child = fork(self, ['--worker']);
    await once(child, 'message');
    clients.push(child);
  }
  const rampStarted = performance.now();
  const cpuBeforeRamp = total(processes, 'cpu');
  const done = new Array(workers).fill(0);
  let shown = 0;
  // A client process that makes no progress for a minute is replaced (its
  // slice starts again), so that a stuck one never stalls the run.
  const slice = (i, attempt = 1) => {
    const child = clients[i];
    const count = Math.floor(pairs / workers) + (i < pairs % workers ? 1 : 0);
    child.send({ cmd: 'connect', agentPort: agentsAt.port, phonePort: phonesAt.port, count });
    return new Promise((resolve) => {
      let watchdog;
      const arm = () => {
        clearTimeout(watchdog);
        watchdog = setTimeout(async () => {
          child.removeAllListeners('message');
          child.removeAllListeners('exit');
          child.kill('SIGKILL');
          done[i] = 0;
          if (attempt >= 3) {
            resolve({ held: 0, failed: count });
            return;
          }
          process.stderr.write(`bench: ${label}: client process ${i + 1} stalled; starting it again\n`);
          clients[i] = fork(self, ['--worker']);
          await once(clients[i], 'message');
          resolve(slice(i, attempt + 1));
        }, 60000);
      };
      arm();
      const listen = (m) => {
        arm();
        if (m.progress === undefined) {
          clearTimeout(watchdog);
          child.off('message', listen);
          resolve(m);
          return;
        }
        done[i] = m.progress;
        const sum = done.reduce((x, y) => x + y, 0);
        if (sum - shown >= pairs / 10) {
          shown = sum;
          process.stderr.write(`bench: ${label}: ${sum} of ${pairs} pairs set up\n`);
        }
      };
      child.on('message', listen);
      child.once('exit', (code) => {
        clearTimeout(watchdog);
        resolve({ held: 0, failed: count, exited: code });
      });
    });
  };
  const slices = clients.map((child, i) => slice(i));
  const connected = await Promise.all(slices);
  const rampSeconds = (performance.now() - rampStarted) / 1000;
  const rampCpu = total(processes, 'cpu') - cpuBeforeRamp;
  const sessions = connected.reduce((sum, c) => sum + c.held, 0);
  const failed = connected.reduce((sum, c) => sum + c.failed, 0);
  const held = await heldConnections(instances.map((i) => i.port));
  await new Promise((resolve) => setTimeout(resolve, 1000));
  const loaded = total(processes, 'rss');
  process.stderr.write(`bench: ${label}: ${held} sockets held, relaying ${rate}/s for ${seconds} s\n`);

  const cpuBefore = total(processes, 'cpu');
  const relayStarted = performance.now();
  const results = await Promise.all(clients.map((child, i) => {
    child.send({ cmd: 'relay', rate: rate / workers, seconds });
    return once(child, 'message').then(([m]) => m);
  }));
  const relaySeconds = (performance.now() - relayStarted) / 1000 - 1;
  const relayCpu = total(processes, 'cpu') - cpuBefore;
  const latencies = results.flatMap((r) => r.latencies).sort((a, b) => a - b);
  const sent = results.reduce((sum, r) => sum + r.sent, 0);
  for (const child of clients) child.send({ cmd: 'close' });
  for (const instance of instances) instance.child.kill('SIGKILL');
  redisChild?.kill('SIGKILL');
  return {
    'pairs asked': pairs,
    'sessions set up (failed)': `${sessions} (${failed})`,
    'sockets held by the service': held,
    'set-up time, s': rampSeconds.toFixed(1),
    'set-up CPU, s': rampCpu.toFixed(1),
    'service memory idle, MiB': (idle / 2 ** 20).toFixed(0),
    'service memory held, MiB': (loaded / 2 ** 20).toFixed(0),
    'memory per socket, KiB': held ? ((loaded - idle) / held / 1024).toFixed(1) : '-',
    'messages sent / relayed': `${sent} / ${latencies.length}`,
    'relay rate, msg/s': (latencies.length / relaySeconds).toFixed(0),
    'relay p50, ms': percentile(latencies, 0.5).toFixed(2),
    'relay p99, ms': percentile(latencies, 0.99).toFixed(2),
    'relay max, ms': (latencies.at(-1) ?? NaN).toFixed(2),
    'service CPU while relaying, % of a core': ((relayCpu / relaySeconds) * 100).toFixed(0),
  };
}

async function main() {
  const pairs = Math.min(MAX_PAIRS, Math.floor(option('pairs', 10000)));
  const settings = { pairs, rate: option('rate', 2000), seconds: option('seconds', 10),
    workers: Math.floor(option('workers', 4)) };
  // One process holds at most its open-file limit, less what it uses itself.
  const perProcess = openFiles - 64;
  if (pairs > perProcess) {
    console.error(`bench: ${pairs} pairs need more than ${openFiles} open files per instance: --pairs ${perProcess} at most here`);
    process.exit(2);
  }
  const single = Math.min(pairs, Math.floor(perProcess / 2));
  if (single < pairs) {
    process.stderr.write(`bench: one instance may hold ${perProcess} sockets here (open-file limit ` +
      `${openFiles}): the run without Redis has ${single} pairs\n`);
  }
  if (spawnSync('redis-server', ['--version']).status !== 0) {
    console.error('bench: redis-server is missing (scripts/setup test installs it)');
    process.exit(2);
  }
  const load = os.loadavg().map((l) => l.toFixed(2)).join(' ');
  const columns = [
    ['2 instances + Redis', await run('2 instances + Redis', { ...settings, redis: true })],
    ['1 instance, no Redis', await run('1 instance, no Redis', { ...settings, pairs: single, redis: false })],
  ];
  console.log(`Rendezvous load: up to ${pairs} agents + ${pairs} phones on loopback, ${settings.rate} msg/s ` +
    `agent→phone for ${settings.seconds} s, ${settings.workers} client processes`);
  console.log(`machine: ${os.cpus().length} cores, load average ${load} at the start; the clients run on the same cores`);
  const width = Math.max(...Object.keys(columns[0][1]).map((k) => k.length)) + 2;
  console.log(''.padEnd(width) + columns.map(([name]) => name.padStart(22)).join(''));
  for (const row of Object.keys(columns[0][1])) {
    console.log(row.padEnd(width) + columns.map(([, figures]) => String(figures[row]).padStart(22)).join(''));
  }
  console.log('targets: 20,000 sockets within 1 GiB in total, relay p99 under 20 ms at 2,000 msg/s');
}

if (process.argv.includes('--worker')) worker();
else main().catch((error) => {
  console.error(`bench: ${error.stack}`);
  process.exit(1);
});
