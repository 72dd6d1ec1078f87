// The rendezvous service alone, started as deployed (TLS, a state file, rate
// limits, a trusted proxy), against scripted agents and phones: the rules of
// every proof and size as tables, a whole pairing and session, a revoked
// phone still refused after a restart, and clients that misbehave.

import { spawnSync } from 'node:child_process';
import crypto from 'node:crypto';
import { mkdtempSync, readFileSync, rmSync, writeFileSync, copyFileSync } from 'node:fs';
import net from 'node:net';
import tls from 'node:tls';
import { tmpdir } from 'node:os';
import { createRequire } from 'node:module';
import path from 'node:path';
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { fileURLToPath } from 'node:url';
import { start } from '../support/processes.mjs';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..');
const WebSocket = createRequire(path.join(root, 'server', 'package.json'))('ws');
const work = mkdtempSync(path.join(tmpdir(), 'zul-rendezvous-'));
const TURN_SECRET = 'turn-secret-for-tests';

function certificate(name) {
  const result = spawnSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt',
    'ec_paramgen_curve:prime256v1', '-nodes', '-days', '2', '-subj', `/CN=${name}`,
    '-keyout', path.join(work, `${name}.key`), '-out', path.join(work, `${name}.crt`)]);
  assert.equal(result.status, 0, String(result.stderr));
}

let server;
let base;
async function startServer() {
  server = start('node', [path.join(root, 'server', 'server.js'), '--port', '0',
    '--log-format', 'text', '--state-file', path.join(work, 'state.json'),
    '--tls-cert', path.join(work, 'live.crt'), '--tls-key', path.join(work, 'live.key'),
    '--trusted-proxies', '127.0.0.1', '--pairing-per-minute', '8', '--upgrades-per-minute', '120',
    '--handshake-seconds', '1', '--ping-seconds', '1', '--session-limit', '3',
    '--turn-url', 'turn:127.0.0.1:3478', '--turn-secret', TURN_SECRET]);
  base = `127.0.0.1:${(await server.waitFor('listening on', { timeout: 10000 })).split(':').pop()}`;
}
async function stopServer() {
  const exited = new Promise((resolve) => server.child.once('exit', resolve));
  server.child.kill('SIGTERM');
  await exited;
}

async function waitUntil(check, ms = 10000) {
  for (const end = Date.now() + ms; Date.now() < end; await new Promise((r) => setTimeout(r, 20))) {
    const value = await check();
    if (value) return value;
  }
  throw new Error(`timed out waiting for ${check}`);
}

before(async () => {
  certificate('live');
  certificate('renewed');
  await startServer();
});
after(async () => {
  server.child.kill('SIGKILL');
  rmSync(work, { recursive: true, force: true });
});

// ---- identities and clients -----------------------------------------------------

function identity(prefix) {
  const { publicKey, privateKey } = crypto.generateKeyPairSync('ed25519');
  const raw = Buffer.from(publicKey.export({ format: 'jwk' }).x, 'base64url');
  const id = prefix + crypto.createHash('sha256').update(raw).digest().subarray(0, 18).toString('base64url');
  return { id, publicKey: raw.toString('base64url'),
    sign: (text) => crypto.sign(null, Buffer.from(text), privateKey).toString('base64url') };
}

function proofQuery(role, who, agentId, change = {}) {
  const timestamp = change.timestamp ?? Math.floor(Date.now() / 1000);
  const nonce = change.nonce ?? crypto.randomBytes(24).toString('base64url');
  const transcript = `ZUL-SIGNALING-IDENTITY-1\n${role}\n${who.id}\n${agentId}\n${timestamp}\n${nonce}`;
  const query = { role, ...(role === 'phone' ? { deviceId: who.id } : {}), agentId,
    publicKey: who.publicKey, timestamp: String(timestamp), nonce, signature: who.sign(transcript) };
  return { ...query, ...change.query };
}

const tlsOptions = { rejectUnauthorized: false };

// A WebSocket and the messages it received; `next(type)` waits for one.
function open(pathname, query, headers = {}) {
  const ws = new WebSocket(`wss://${base}${pathname}?${new URLSearchParams(query)}`,
    { ...tlsOptions, headers });
  const received = [];
  ws.on('message', (data) => received.push(JSON.parse(data)));
  const client = {
    ws, received,
    opened: new Promise((resolve, reject) => {
      ws.once('open', () => resolve(101));
      ws.once('unexpected-response', (request, response) => resolve(response.statusCode));
      ws.once('error', reject);
    }),
    closed: new Promise((resolve) => ws.once('close', (code) => resolve(code))),
    send: (message) => ws.send(typeof message === 'string' ? message : JSON.stringify(message)),
    next: (type, from = 0) => waitUntil(() => received.slice(from).find((m) => m.type === type)),
  };
  return client;
}
const agentSocket = (agent, change) => open(`/v1/rendezvous/${agent.id}`, proofQuery('agent', agent, agent.id, change));
const phoneSocket = (phone, agentId, change) =>
  open(`/v1/rendezvous/${agentId}`, proofQuery('phone', phone, agentId, change));

async function request(method, pathname, body, headers = {}) {
  const response = await fetchInsecure(method, pathname, body, headers);
  return response;
}
// fetch() cannot skip certificate checks; node:https can.
function fetchInsecure(method, pathname, body, headers) {
  return new Promise((resolve, reject) => {
    const https = createRequire(import.meta.url)('node:https');
    const [host, port] = base.split(':');
    const req = https.request({ host, port, path: pathname, method, headers, ...tlsOptions }, (res) => {
      const chunks = [];
      res.on('data', (c) => chunks.push(c));
      res.on('end', () => resolve({ status: res.statusCode, headers: res.headers,
        text: Buffer.concat(chunks).toString() }));
    });
    req.on('error', reject);
    req.end(body);
  });
}

function pairingBody(agent, change = {}) {
  const timestamp = Math.floor(Date.now() / 1000);
  const nonce = crypto.randomBytes(24).toString('base64url');
  const ephemeral = crypto.randomBytes(32).toString('base64url');
  const fingerprint = `sha-256 ${crypto.randomBytes(32).toString('hex').toUpperCase().match(/../g).join(':')}`;
  return {
    agentId: agent.id, agentPublicKey: agent.publicKey, ephemeralX25519PublicKey: ephemeral,
    dtlsFingerprint: fingerprint,
    fingerprintSignature: agent.sign(`ZUL-DTLS-FINGERPRINT-1\n${agent.id}\n${fingerprint}\n${ephemeral}`),
    timestamp, nonce,
    identitySignature: agent.sign(`ZUL-SIGNALING-IDENTITY-1\nagent\n${agent.id}\n${agent.id}\n${timestamp}\n${nonce}`),
    ...change,
  };
}
// Each address (as the trusted proxy reports it) has its own pairing budget.
let addressCounter = 0;
const freshAddress = () => ({ 'X-Forwarded-For': `198.51.100.${++addressCounter}` });
const postPairing = (body, headers = freshAddress()) => request('POST', '/v1/pairing',
  typeof body === 'string' ? body : JSON.stringify(body), { 'Content-Type': 'application/json', ...headers });

// ---- the rules ----------------------------------------------------------------------

test('bad settings and a damaged state file stop the start with a line that names them', () => {
  const damaged = path.join(work, 'damaged.json');
  writeFileSync(damaged, '{"version":1,"revoked":');
  const rows = [
    [['--port', '70000'], {}, /port must be a port/],
    [['--host', '0.0.0.0'], {}, /plain HTTP on 0\.0\.0\.0/],
    [['--turn-url', 'turn:x'], {}, /turnUrls need turnSecret/],
    [['--config', path.join(work, 'none.json')], {}, /config file .*none\.json/],
    [['--bogus'], {}, /unknown option --bogus/],
    [[], { ZUL_RENDEZVOUS_SESSION_LIMIT: 'many' }, /ZUL_RENDEZVOUS_SESSION_LIMIT: sessionLimit must be a whole number/],
    [['--state-file', damaged], {}, /state file .*damaged\.json is damaged/],
  ];
  for (const [args, env, message] of rows) {
    const result = spawnSync('node', [path.join(root, 'server', 'server.js'), '--port', '0', ...args],
      { env: { ...process.env, ...env }, timeout: 10000 });
    assert.notEqual(result.status, 0, args.join(' '));
    assert.match(String(result.stderr), message);
  }
  assert.equal(readFileSync(damaged, 'utf8'), '{"version":1,"revoked":', 'the damaged file was rewritten');
});

const agent = identity('agent_');
const phone = identity('device_');
const stranger = identity('device_');

test('identity proofs: every broken rule refuses the upgrade', async () => {
  const live = agentSocket(agent);
  assert.equal(await live.opened, 101);
  const usedNonce = crypto.randomBytes(24).toString('base64url');
  assert.equal(await phoneSocket(phone, agent.id, { nonce: usedNonce }).opened, 101);
  const other = identity('agent_');
  const rows = [
    ['signature of other bytes', () => phoneSocket(phone, agent.id, { query: { signature: phone.sign('x') } }), 401],
    ['signature not 64 bytes', () => phoneSocket(phone, agent.id, { query: { signature: 'AAAA' } }), 401],
    ['id not derived from the key', () => phoneSocket(phone, agent.id, { query: { publicKey: stranger.publicKey } }), 401],
    ['key not 32 bytes', () => phoneSocket(phone, agent.id, { query: { publicKey: 'AAAA' } }), 401],
    ['timestamp 301 s old', () => phoneSocket(phone, agent.id, { timestamp: Math.floor(Date.now() / 1000) - 301 }), 401],
    ['timestamp not a number', () => phoneSocket(phone, agent.id, { query: { timestamp: '12a' } }), 401],
    ['nonce replayed', () => phoneSocket(phone, agent.id, { nonce: usedNonce }), 401],
    ['nonce too short', () => phoneSocket(phone, agent.id, { nonce: 'abc' }), 401],
    ['nonce too long', () => phoneSocket(phone, agent.id, { nonce: 'n'.repeat(129) }), 401],
    ['path names another agent', () => open(`/v1/rendezvous/${other.id}`, proofQuery('agent', agent, agent.id)), 401],
    ['unknown role', () => open(`/v1/rendezvous/${agent.id}`, { ...proofQuery('agent', agent, agent.id), role: 'admin' }), 400],
    ['agent not connected', () => phoneSocket(phone, other.id), 503],
    ['no such path', () => open('/v1/elsewhere', proofQuery('agent', agent, agent.id)), 404],
    ['phone signed as an agent', () => open(`/v1/rendezvous/${agent.id}`, { ...proofQuery('phone', phone, agent.id), role: 'agent' }), 401],
  ];
  for (const [name, connect, status] of rows) {
    assert.equal(await connect().opened, status, name);
  }
  live.ws.close();
});

test('pairing offers: the body is checked field by field', async () => {
  const rows = [
    ['valid', pairingBody(agent), 200],
    ['not JSON', '{"agentId":', 400],
    ['a field missing', { ...pairingBody(agent), nonce: undefined }, 400],
    ['timestamp as text', pairingBody(agent, { timestamp: String(Math.floor(Date.now() / 1000)) }), 400],
    ['fingerprint not sha-256 text', pairingBody(agent, { dtlsFingerprint: 'sha-1 00' }), 400],
    ['ephemeral key not 32 bytes', pairingBody(agent, { ephemeralX25519PublicKey: 'AAAA' }), 400],
    ['fingerprint signature forged', pairingBody(agent, { fingerprintSignature: agent.sign('other') }), 401],
    ['identity signature forged', pairingBody(agent, { identitySignature: agent.sign('other') }), 401],
    ['stale', pairingBody(agent, { timestamp: 1 }), 401],
    ['another key for the id', pairingBody(agent, { agentPublicKey: identity('agent_').publicKey }), 401],
    ['body over 64 KiB', JSON.stringify(pairingBody(agent, { padding: 'x'.repeat(70000) })), 413],
  ];
  for (const [name, body, status] of rows) {
    const response = await postPairing(body);
    assert.equal(response.status, status, `${name}: ${response.text}`);
    if (status === 200) {
      const reply = JSON.parse(response.text);
      assert.match(reply.secret, /^pair_[A-Za-z0-9_-]{43}$/);
      assert.ok(Math.abs(reply.expiresAt - Date.now() / 1000 - 120) < 5);
    }
  }
  // One address may ask eight times a minute in a burst of two; another still can.
  const address = freshAddress();
  const statuses = [];
  for (let i = 0; i < 4; i += 1) statuses.push((await postPairing(pairingBody(agent), address)).status);
  assert.deepEqual(statuses, [200, 200, 429, 429]);
  assert.equal((await postPairing(pairingBody(agent))).status, 200);
});

test('a phone pairs, is served, is revoked, and stays revoked after a restart', async () => {
  const live = agentSocket(agent);
  assert.equal(await live.opened, 101);
  // TURN credentials of the REST scheme, never a fixed user.
  const turn = await live.next('turn.credentials');
  const [expiry, user] = turn.username.split(':');
  assert.equal(user, agent.id);
  assert.ok(Number(expiry) > Date.now() / 1000 + 86000);
  assert.equal(turn.credential, crypto.createHmac('sha1', TURN_SECRET).update(turn.username).digest('base64'));

  const { secret } = JSON.parse((await postPairing(pairingBody(agent))).text);
  const p = phoneSocket(phone, agent.id);
  assert.equal(await p.opened, 101);
  assert.equal((await p.next('turn.credentials')).username.split(':')[1], phone.id);
  p.send({ type: 'pairing.request', secret, permissions: ['view', 'control'] });
  const request = await live.next('pairing.request');
  assert.deepEqual(request, { type: 'pairing.request', deviceId: phone.id,
    devicePublicKey: phone.publicKey, permissions: ['view', 'control'] });
  live.send({ type: 'pairing.grant', grant: 'g', grantSignature: 's' });
  assert.equal((await p.next('pairing.grant')).grant, 'g');
  p.send({ type: 'pairing.request', secret });
  assert.equal((await p.next('signal.error')).code, 'pairing-used');

  p.send({ type: 'signal.answer', sdp: 'early' });
  await waitUntil(() => p.received.filter((m) => m.type === 'signal.error').length === 2);
  assert.equal(p.received.at(-1).code, 'no-session');
  p.send({ type: 'session.request' });
  await waitUntil(() => live.received.some((m) => m.type === 'peer.ready' && m.pairing === false));
  live.send({ type: 'signal.offer', sdp: 'offer', peerId: phone.id });
  assert.equal((await p.next('signal.offer')).sdp, 'offer');
  p.send({ type: 'signal.ice', candidate: 'c', sdpMid: '0', sdpMLineIndex: 0 });
  assert.deepEqual(await live.next('signal.ice'), { type: 'signal.ice', candidate: 'c', sdpMid: '0',
    sdpMLineIndex: 0, peerId: phone.id });

  const errors = p.received.length;
  live.send({ type: 'devices.revoked', deviceIds: [phone.id] });
  assert.equal((await p.next('signal.error', errors)).code, 'device-revoked');
  assert.equal((await live.next('peer.left')).peerId, phone.id);

  // Killed and started again on the same state file.
  server.child.kill('SIGKILL');
  await live.closed;
  await startServer();
  const back = agentSocket(agent);
  assert.equal(await back.opened, 101);
  const again = phoneSocket(phone, agent.id);
  assert.equal(await again.opened, 101);
  again.send({ type: 'session.request' });
  assert.equal((await again.next('signal.error')).code, 'device-revoked');
  assert.ok(!back.received.some((m) => m.type === 'peer.ready'));
  again.ws.close();
  back.ws.close();
});

test('misbehaving clients: huge frames, a second agent socket, silence, slow heads, floods', async () => {
  // A frame one byte over 256 KiB closes the socket (1009); exactly 256 KiB passes.
  const first = agentSocket(agent);
  assert.equal(await first.opened, 101);
  first.send(JSON.stringify({ type: 'x', pad: 'p'.repeat(262144 - 22) }));
  first.send('x'.repeat(262145));
  assert.equal(await first.closed, 1009);

  // A newcomer with a valid proof replaces the live agent socket.
  const older = agentSocket(agent);
  assert.equal(await older.opened, 101);
  const newer = agentSocket(agent);
  assert.equal(await newer.opened, 101);
  assert.equal(await older.closed, 4000);

  // A client that stops answering pings is dropped.
  const silent = phoneSocket(stranger, agent.id);
  assert.equal(await silent.opened, 101);
  silent.ws._socket.pause();
  await waitUntil(async () => (await request('GET', '/metrics')).text
    .includes('zul_rendezvous_connections{role="phone"} 0'), 8000);
  silent.ws._socket.resume();
  assert.equal(await silent.closed, 1006);

  // A TLS client that never finishes its handshake, and one that sends half
  // a request head, are cut off.
  const [host, port] = base.split(':');
  const cut = (socket) => new Promise((resolve) => socket.on('close', resolve).on('error', () => {}));
  const raw = net.connect(Number(port), host);
  const half = tls.connect({ host, port: Number(port), ...tlsOptions }, () => half.write('GET /v1/rendezvous/'));
  await Promise.all([cut(raw), cut(half)]);

  // Upgrades from one address: a burst, then refused; the address is the proxy's word.
  const flood = freshAddress();
  const statuses = [];
  for (let i = 0; i < 40; i += 1) {
    statuses.push(await open(`/v1/rendezvous/${agent.id}`, { role: 'agent' }, flood).opened);
  }
  assert.ok(statuses.includes(401) && statuses.at(-1) === 429, statuses.join(' '));
  newer.ws.close();
});

test('headers, health, metrics and a certificate renewed on SIGHUP', async () => {
  const page = await request('GET', '/');
  assert.equal(page.status, 200);
  assert.match(page.headers['content-security-policy'], /default-src 'self'; script-src 'self' 'wasm-unsafe-eval'; style-src 'self' 'unsafe-inline'/);
  assert.match(page.headers['content-security-policy'], /frame-ancestors 'none'/);
  assert.equal(page.headers['strict-transport-security'], 'max-age=31536000');
  assert.equal(page.headers['x-content-type-options'], 'nosniff');
  assert.equal((await request('GET', '/phone/')).status, 404, 'the development page is not served');
  assert.equal((await request('GET', '/healthz')).status, 200);
  assert.equal((await request('GET', '/metrics', undefined, freshAddress())).status, 403);
  const metrics = (await request('GET', '/metrics')).text;
  for (const name of ['zul_rendezvous_connections{role="agent"}', 'zul_rendezvous_pairings_total',
    'zul_rendezvous_refusals_total{reason="rate-limited"}', 'zul_rendezvous_messages_relayed_total',
    'zul_rendezvous_relay_latency_seconds_bucket']) {
    assert.ok(metrics.includes(name), name);
  }

  const served = () => new Promise((resolve) => {
    const [host, port] = base.split(':');
    const socket = tls.connect({ host, port: Number(port), ...tlsOptions }, () => {
      resolve(socket.getPeerCertificate().subject.CN);
      socket.end();
    });
  });
  assert.equal(await served(), 'live');
  copyFileSync(path.join(work, 'renewed.crt'), path.join(work, 'live.crt'));
  copyFileSync(path.join(work, 'renewed.key'), path.join(work, 'live.key'));
  const mark = server.lines.length;
  server.child.kill('SIGHUP');
  await server.waitFor('reloaded', { from: mark });
  assert.equal(await served(), 'renewed');
  // A broken file keeps the certificate in use.
  writeFileSync(path.join(work, 'live.key'), 'damaged');
  server.child.kill('SIGHUP');
  await server.waitFor('keeping the previous', { from: mark });
  assert.equal(await served(), 'renewed');
  assert.equal(readFileSync(path.join(work, 'state.json'), 'utf8').includes(phone.id), true);
  await stopServer();
});
