#!/usr/bin/env node
'use strict';
// Development rendezvous server for the Zul agent: pairing offers, the
// agent's and the phones' authenticated WebSockets, TURN REST credentials,
// and the relay of offers, answers and candidates. Everything lives in
// memory. See README.md in this folder for the protocol.

const crypto = require('node:crypto');
const fs = require('node:fs');
const http = require('node:http');
const https = require('node:https');
const { WebSocketServer } = require('ws');

const IDENTITY_TAG = 'ZUL-SIGNALING-IDENTITY-1\n';
const FINGERPRINT_TAG = 'ZUL-DTLS-FINGERPRINT-1\n';
const STATIC_FILES = require('./static');
const ED25519_SPKI_PREFIX = Buffer.from('302a300506032b6570032100', 'hex');

function usage() {
  return `usage: node server.js [options]
  --host ADDRESS           listen address (default 127.0.0.1)
  --port N                 listen port (default 8443; 0 picks a free one)
  --tls-cert FILE          serve HTTPS/WSS with this PEM certificate chain
  --tls-key FILE           and this PEM private key
  --tls-port N             with --tls-cert: keep plain HTTP on --host/--port (for a local
                           agent) and serve HTTPS/WSS on all interfaces on this port too
                           (for phones on the network, whose browsers need https for WebCrypto)
  --turn-url URL           a TURN server for the agent and phones (repeatable), e.g. turn:turn.example:3478
  --turn-secret SECRET     coturn's static-auth-secret (use-auth-secret)
  --turn-ttl SECONDS       lifetime of TURN credentials (default 86400)
  --stun-url URL           a STUN server handed out with the TURN ones (repeatable)
  --session-limit N        phone sessions one agent connection may serve (default 0: no limit)
  --pairing-ttl SECONDS    lifetime of a pairing offer (default 120)
  --max-skew SECONDS       accepted clock difference of identity proofs (default 300)
  --max-message-bytes N    largest WebSocket message accepted (default 1048576)
  --tamper-offer-fingerprint
                           for tests of the phones' checks: replace the DTLS certificate
                           fingerprint in every offer relayed to a phone with another one`;
}

function parseArgs(argv) {
  const config = {
    host: '127.0.0.1',
    port: 8443,
    tlsCert: null,
    tlsKey: null,
    tlsPort: null,
    turnUrls: [],
    turnSecret: null,
    turnTtl: 86400,
    stunUrls: [],
    sessionLimit: 0,
    pairingTtl: 120,
    maxSkew: 300,
    maxMessageBytes: 1 << 20,
    tamperOfferFingerprint: false,
  };
  const numbers = {
    '--port': 'port',
    '--tls-port': 'tlsPort',
    '--turn-ttl': 'turnTtl',
    '--session-limit': 'sessionLimit',
    '--pairing-ttl': 'pairingTtl',
    '--max-skew': 'maxSkew',
    '--max-message-bytes': 'maxMessageBytes',
  };
  const strings = {
    '--host': 'host',
    '--tls-cert': 'tlsCert',
    '--tls-key': 'tlsKey',
    '--turn-secret': 'turnSecret',
  };
  const lists = { '--turn-url': 'turnUrls', '--stun-url': 'stunUrls' };
  const switches = { '--tamper-offer-fingerprint': 'tamperOfferFingerprint' };
  for (let i = 0; i < argv.length; i += 1) {
    let flag = argv[i];
    let value;
    const eq = flag.indexOf('=');
    if (flag.startsWith('--') && eq > 0) {
      value = flag.slice(eq + 1);
      flag = flag.slice(0, eq);
    }
    if (flag === '--help' || flag === '-h') {
      console.log(usage());
      process.exit(0);
    }
    if (switches[flag] && value === undefined) {
      config[switches[flag]] = true;
      continue;
    }
    const known = numbers[flag] || strings[flag] || lists[flag];
    if (!known) throw new Error(`unknown option ${flag}`);
    if (value === undefined) {
      i += 1;
      if (i >= argv.length) throw new Error(`${flag} needs a value`);
      value = argv[i];
    }
    if (numbers[flag]) {
      if (!/^\d+$/.test(value)) throw new Error(`${flag} needs a whole number`);
      config[known] = Number(value);
    } else if (lists[flag]) {
      config[known].push(value);
    } else {
      config[known] = value;
    }
  }
  if (config.port > 65535) throw new Error('--port is out of range');
  if (config.tlsPort !== null && (config.tlsPort > 65535 || !config.tlsCert)) {
    throw new Error('--tls-port needs --tls-cert and --tls-key and a port up to 65535');
  }
  if (Boolean(config.tlsCert) !== Boolean(config.tlsKey)) {
    throw new Error('--tls-cert and --tls-key go together');
  }
  if (config.turnUrls.length > 0 && !config.turnSecret) {
    throw new Error('--turn-url needs --turn-secret');
  }
  return config;
}

// ---- identities ------------------------------------------------------------

function decodeBase64Url(text) {
  if (typeof text !== 'string' || !/^[A-Za-z0-9_-]*$/.test(text) || text.length % 4 === 1) {
    return null;
  }
  return Buffer.from(text, 'base64url');
}

function deriveId(prefix, rawKey) {
  const digest = crypto.createHash('sha256').update(rawKey).digest();
  return prefix + digest.subarray(0, 18).toString('base64url');
}

function ed25519Verify(rawKey, message, signature) {
  try {
    const key = crypto.createPublicKey({
      key: Buffer.concat([ED25519_SPKI_PREFIX, rawKey]),
      format: 'der',
      type: 'spki',
    });
    return crypto.verify(null, Buffer.from(message, 'utf8'), key, signature);
  } catch {
    return false;
  }
}

function identityTranscript(role, subjectId, agentId, timestamp, nonce) {
  return `${IDENTITY_TAG}${role}\n${subjectId}\n${agentId}\n${timestamp}\n${nonce}`;
}

class NonceBook {
  constructor(windowSeconds) {
    this.windowMs = windowSeconds * 2 * 1000;
    this.seen = new Map();
  }

  // False when the nonce was used within the window.
  take(nonce) {
    const now = Date.now();
    for (const [key, until] of this.seen) {
      if (until > now) break;
      this.seen.delete(key);
    }
    if (this.seen.has(nonce)) return false;
    this.seen.set(nonce, now + this.windowMs);
    return true;
  }
}

// Checks a signed identity proof; returns an error code or null.
// `subjectPrefix` is "agent_" or "device_"; the subject id must derive from the key.
function checkProof(proof, role, subjectPrefix, config, nonces) {
  const { subjectId, agentId, publicKey, timestamp, nonce, signature } = proof;
  if (![subjectId, agentId, publicKey, nonce, signature].every((v) => typeof v === 'string')) {
    return 'missing-field';
  }
  const rawKey = decodeBase64Url(publicKey);
  if (!rawKey || rawKey.length !== 32) return 'invalid-key';
  if (deriveId(subjectPrefix, rawKey) !== subjectId) return 'id-mismatch';
  const seconds = typeof timestamp === 'string' && /^-?\d{1,15}$/.test(timestamp)
    ? Number(timestamp)
    : timestamp;
  if (!Number.isSafeInteger(seconds)) return 'invalid-timestamp';
  if (Math.abs(Math.floor(Date.now() / 1000) - seconds) > config.maxSkew) return 'stale-timestamp';
  if (nonce.length === 0 || nonce.length > 128) return 'invalid-nonce';
  const signatureBytes = decodeBase64Url(signature);
  if (!signatureBytes || signatureBytes.length !== 64) return 'invalid-signature';
  const transcript = identityTranscript(role, subjectId, agentId, seconds, nonce);
  if (!ed25519Verify(rawKey, transcript, signatureBytes)) return 'invalid-signature';
  if (!nonces.take(`${role}:${subjectId}:${nonce}`)) return 'replayed-nonce';
  return null;
}

// ---- the server --------------------------------------------------------------

function log(line) {
  process.stdout.write(`rendezvous: ${line}\n`);
}

function turnCredentials(config, subjectId) {
  if (config.turnUrls.length === 0) return null;
  const expiry = Math.floor(Date.now() / 1000) + config.turnTtl;
  const username = `${expiry}:${subjectId}`;
  const credential = crypto.createHmac('sha1', config.turnSecret).update(username).digest('base64');
  return {
    type: 'turn.credentials',
    urls: [...config.stunUrls, ...config.turnUrls],
    username,
    credential,
    ttl: config.turnTtl,
  };
}

function parseJsonObject(text) {
  try {
    const value = JSON.parse(text);
    return value && typeof value === 'object' && !Array.isArray(value) ? value : null;
  } catch {
    return null;
  }
}

// A refusal before the WebSocket handshake: a plain HTTP answer, then close.
function rejectUpgrade(socket, status, reason) {
  const body = `${reason}\n`;
  socket.end(
    `HTTP/1.1 ${status} ${reason}\r\nConnection: close\r\nContent-Type: text/plain\r\n` +
      `Content-Length: ${Buffer.byteLength(body)}\r\n\r\n${body}`,
  );
}

// One accepted WebSocket as the rendezvous logic sees it: text in and out,
// sends after the close dropped. Protocol faults (a frame over the size
// limit, bad UTF-8) close the socket with the matching code.
class Connection {
  constructor(ws) {
    this.ws = ws;
    ws.on('error', () => {});
  }

  get isOpen() {
    return this.ws.readyState === this.ws.OPEN;
  }

  sendText(text) {
    if (!this.isOpen) return false;
    this.ws.send(text);
    return true;
  }

  sendJson(message) {
    return this.sendText(JSON.stringify(message));
  }

  close(code = 1000, reason = '') {
    this.ws.close(code, reason);
  }

  // 'message' gives (text or null for binary, isText); 'close' takes no arguments.
  on(event, listener) {
    if (event === 'message') {
      this.ws.on('message', (data, isBinary) =>
        listener(isBinary ? null : data.toString('utf8'), !isBinary));
    } else {
      this.ws.on(event, () => listener());
    }
  }
}

class RendezvousServer {
  constructor(config) {
    this.config = config;
    this.nonces = new NonceBook(config.maxSkew);
    this.offers = new Map(); // secret -> { agentId, expiresAt, used }
    this.agents = new Map(); // agentId -> agent state
    this.revoked = new Map(); // agentId -> Set of device ids (the latest report)
    this.sockets = new WebSocketServer({
      noServer: true,
      maxPayload: config.maxMessageBytes,
      perMessageDeflate: false,
    });
    this.shortLinks = new Map(); // code -> address (handleShortLink)
    // The TLS certificate, for a phone to download and trust (a development server's is self-signed).
    this.certificate = config.tlsCert
      ? /-----BEGIN CERTIFICATE-----[^-]+-----END CERTIFICATE-----\n?/.exec(
        fs.readFileSync(config.tlsCert, 'utf8'))?.[0]
      : null;
  }

  handleRequest(request, response) {
    const url = new URL(request.url, 'http://rendezvous.invalid');
    if (request.method === 'POST' && url.pathname === '/v1/pairing') {
      this.readBody(request, response, (body) => this.createPairing(body, response));
      return;
    }
    if (request.method === 'GET' && STATIC_FILES.serve(url.pathname, response)) return;
    if (handleShortLink(request, response, url.pathname, this.shortLinks)) return;
    if (request.method === 'GET' && url.pathname === '/dev-certificate.crt' && this.certificate) {
      response.writeHead(200, { 'Content-Type': 'application/x-x509-ca-cert' });
      response.end(this.certificate);
      return;
    }
    if (request.method === 'GET' && url.pathname === '/healthz') {
      this.reply(response, 200, { ok: true });
      return;
    }
    this.reply(response, 404, { error: 'not-found' });
  }

  readBody(request, response, then) {
    const chunks = [];
    let size = 0;
    let tooLarge = false;
    request.on('data', (chunk) => {
      size += chunk.length;
      if (size > 65536) tooLarge = true;
      else chunks.push(chunk);
    });
    request.on('end', () => {
      if (tooLarge) {
        this.reply(response, 413, { error: 'too-large' });
        return;
      }
      then(Buffer.concat(chunks).toString('utf8'));
    });
  }

  reply(response, status, body) {
    const text = JSON.stringify(body);
    response.writeHead(status, {
      'Content-Type': 'application/json',
      'Content-Length': Buffer.byteLength(text),
    });
    response.end(text);
  }

  createPairing(text, response) {
    const body = parseJsonObject(text);
    if (!body) {
      this.reply(response, 400, { error: 'invalid-json' });
      return;
    }
    const fields = ['agentId', 'agentPublicKey', 'ephemeralX25519PublicKey', 'dtlsFingerprint',
      'fingerprintSignature', 'nonce', 'identitySignature'];
    if (!fields.every((name) => typeof body[name] === 'string') ||
        !Number.isSafeInteger(body.timestamp)) {
      this.reply(response, 400, { error: 'missing-field' });
      return;
    }
    const error = checkProof({
      subjectId: body.agentId,
      agentId: body.agentId,
      publicKey: body.agentPublicKey,
      timestamp: body.timestamp,
      nonce: body.nonce,
      signature: body.identitySignature,
    }, 'agent', 'agent_', this.config, this.nonces);
    if (error) {
      log(`pairing refused for ${body.agentId}: ${error}`);
      this.reply(response, 401, { error });
      return;
    }
    const fingerprintTranscript =
      `${FINGERPRINT_TAG}${body.agentId}\n${body.dtlsFingerprint}\n${body.ephemeralX25519PublicKey}`;
    const fingerprintSignature = decodeBase64Url(body.fingerprintSignature);
    if (!fingerprintSignature ||
        !ed25519Verify(decodeBase64Url(body.agentPublicKey), fingerprintTranscript,
          fingerprintSignature)) {
      log(`pairing refused for ${body.agentId}: invalid-fingerprint-signature`);
      this.reply(response, 401, { error: 'invalid-fingerprint-signature' });
      return;
    }
    const now = Math.floor(Date.now() / 1000);
    for (const [secret, offer] of this.offers) {
      if (offer.expiresAt < now) this.offers.delete(secret);
    }
    const secret = `pair_${crypto.randomBytes(32).toString('base64url')}`;
    const expiresAt = now + this.config.pairingTtl;
    this.offers.set(secret, { agentId: body.agentId, expiresAt, used: false });
    log(`pairing offer for ${body.agentId} until ${expiresAt}`);
    this.reply(response, 200, { secret, expiresAt });
  }

  handleUpgrade(request, socket, head) {
    socket.on('error', () => {});
    const url = new URL(request.url, 'http://rendezvous.invalid');
    const match = /^\/v1\/rendezvous\/([A-Za-z0-9_-]{1,128})$/.exec(url.pathname);
    if (!match) {
      rejectUpgrade(socket, 404, 'Not Found');
      return;
    }
    const agentId = match[1];
    const query = Object.fromEntries(url.searchParams);
    if (query.agentId !== agentId) {
      rejectUpgrade(socket, 401, 'Unauthorized');
      return;
    }
    if (query.role === 'agent') {
      const error = checkProof({ ...query, subjectId: agentId }, 'agent', 'agent_', this.config,
        this.nonces);
      if (error) {
        log(`agent ${agentId} refused: ${error}`);
        rejectUpgrade(socket, 401, 'Unauthorized');
        return;
      }
      this.accept(request, socket, head, (connection) => this.attachAgent(agentId, connection));
    } else if (query.role === 'phone') {
      const error = checkProof({ ...query, subjectId: query.deviceId }, 'phone', 'device_',
        this.config, this.nonces);
      if (error) {
        log(`phone ${query.deviceId} refused: ${error}`);
        rejectUpgrade(socket, 401, 'Unauthorized');
        return;
      }
      const agent = this.agents.get(agentId);
      if (!agent) {
        rejectUpgrade(socket, 503, 'Agent Offline');
        return;
      }
      this.accept(request, socket, head,
        (connection) => this.attachPhone(agent, query.deviceId, query.publicKey, connection));
    } else {
      rejectUpgrade(socket, 400, 'Bad Request');
    }
  }

  // Completes the WebSocket handshake and hands over the connection; a
  // malformed handshake is answered by `ws` itself.
  accept(request, socket, head, then) {
    this.sockets.handleUpgrade(request, socket, head, (ws) => then(new Connection(ws)));
  }

  attachAgent(agentId, connection) {
    const previous = this.agents.get(agentId);
    if (previous) {
      log(`agent ${agentId} replaces its previous connection`);
      this.detachAgent(previous);
      previous.connection.close(4000, 'replaced');
    }
    const agent = {
      agentId,
      connection,
      sessionsServed: 0,
      // The phones that asked for a session, by device id; the agent decides
      // which of them holds the control session.
      sessionPhones: new Map(),
      latestPhone: null,
      pendingPairings: [],
      phones: new Set(),
    };
    this.agents.set(agentId, agent);
    log(`agent ${agentId} connected`);
    const credentials = turnCredentials(this.config, agentId);
    if (credentials) connection.sendJson(credentials);
    connection.on('message', (data, isText) => {
      const message = isText ? parseJsonObject(data) : null;
      if (!message || typeof message.type !== 'string') {
        log(`agent ${agentId} sent a message that is not a JSON object with a type`);
        return;
      }
      this.onAgentMessage(agent, message, data);
    });
    connection.on('close', () => {
      if (this.agents.get(agentId) === agent) {
        log(`agent ${agentId} disconnected`);
        this.detachAgent(agent);
      }
    });
  }

  detachAgent(agent) {
    if (this.agents.get(agent.agentId) === agent) this.agents.delete(agent.agentId);
    for (const phone of agent.phones) {
      phone.connection.sendJson({ type: 'signal.error', code: 'agent-offline' });
      phone.connection.close(4001, 'agent offline');
    }
    agent.phones.clear();
    agent.sessionPhones.clear();
    agent.latestPhone = null;
    agent.pendingPairings = [];
  }

  revokedSet(agentId) {
    return this.revoked.get(agentId) || new Set();
  }

  onAgentMessage(agent, message, text) {
    if (message.type.startsWith('signal.')) {
      // To the phone it names, else to the one that asked last.
      const phone = typeof message.peerId === 'string'
        ? agent.sessionPhones.get(message.peerId) : agent.latestPhone;
      if (phone) phone.connection.sendText(this.tampered(message) || text);
      return;
    }
    if (message.type === 'pairing.grant') {
      const phone = agent.pendingPairings.shift();
      if (!phone) {
        log(`agent ${agent.agentId} sent a grant nobody waits for`);
        return;
      }
      log(`pairing granted to ${phone.deviceId}`);
      phone.connection.sendJson({
        type: 'pairing.grant',
        grant: message.grant,
        grantSignature: message.grantSignature,
      });
      return;
    }
    if (message.type === 'devices.revoked') {
      const ids = Array.isArray(message.deviceIds)
        ? message.deviceIds.filter((id) => typeof id === 'string')
        : [];
      const next = new Set(ids);
      const before = this.revokedSet(agent.agentId);
      const changed = next.size !== before.size || ids.some((id) => !before.has(id));
      this.revoked.set(agent.agentId, next);
      if (changed) log(`agent ${agent.agentId} reports ${next.size} revoked device(s)`);
      for (const phone of [...agent.sessionPhones.values()]) {
        if (next.has(phone.deviceId)) this.endSession(agent, phone, 'device-revoked');
      }
    }
  }

  // With --tamper-offer-fingerprint: the offer as a man in the middle with a
  // certificate of its own would relay it. Null when left as it is.
  tampered(message) {
    if (!this.config.tamperOfferFingerprint || message.type !== 'signal.offer' ||
        typeof message.sdp !== 'string') {
      return null;
    }
    const other = crypto.randomBytes(32).toString('hex').toUpperCase().match(/../g).join(':');
    log('offer relayed with another certificate fingerprint (--tamper-offer-fingerprint)');
    return JSON.stringify({ ...message,
      sdp: message.sdp.replace(/^a=fingerprint:sha-256 .*$/gm, `a=fingerprint:sha-256 ${other}`) });
  }

  // The phone is no longer served; the agent hears "peer.left".
  endSession(agent, phone, code) {
    if (agent.sessionPhones.get(phone.deviceId) !== phone) return;
    agent.sessionPhones.delete(phone.deviceId);
    if (agent.latestPhone === phone) agent.latestPhone = null;
    if (code) phone.connection.sendJson({ type: 'signal.error', code });
    agent.connection.sendJson({ type: 'peer.left', peerId: phone.deviceId });
  }

  attachPhone(agent, deviceId, publicKey, connection) {
    const phone = { deviceId, publicKey, connection };
    agent.phones.add(phone);
    log(`phone ${deviceId} connected to ${agent.agentId}`);
    // Phones get TURN credentials of their own, so that either side can relay.
    const credentials = turnCredentials(this.config, deviceId);
    if (credentials) connection.sendJson(credentials);
    const error = (code) => connection.sendJson({ type: 'signal.error', code });
    connection.on('message', (data, isText) => {
      const message = isText ? parseJsonObject(data) : null;
      if (!message || typeof message.type !== 'string') {
        error('invalid-message');
        return;
      }
      if (this.agents.get(agent.agentId) !== agent) {
        error('agent-offline');
        return;
      }
      if (message.type === 'pairing.request') {
        this.onPairingRequest(agent, phone, message, error);
      } else if (message.type === 'session.request') {
        this.onSessionRequest(agent, phone, error);
      } else if (message.type.startsWith('signal.')) {
        if (agent.sessionPhones.get(phone.deviceId) !== phone) {
          error('no-session');
          return;
        }
        // Relayed with the phone named, so that the agent can tell phones apart.
        agent.connection.sendJson({ ...message, peerId: phone.deviceId });
      } else {
        error('unknown-type');
      }
    });
    connection.on('close', () => {
      agent.phones.delete(phone);
      agent.pendingPairings = agent.pendingPairings.filter((p) => p !== phone);
      if (agent.sessionPhones.get(deviceId) === phone && this.agents.get(agent.agentId) === agent) {
        this.endSession(agent, phone, null);
      }
      log(`phone ${deviceId} disconnected`);
    });
  }

  onPairingRequest(agent, phone, message, error) {
    const offer = typeof message.secret === 'string' ? this.offers.get(message.secret) : undefined;
    if (!offer || offer.agentId !== agent.agentId) {
      error('pairing-unknown');
      return;
    }
    if (offer.used) {
      error('pairing-used');
      return;
    }
    if (offer.expiresAt < Math.floor(Date.now() / 1000)) {
      error('pairing-expired');
      return;
    }
    offer.used = true;
    const permissions = Array.isArray(message.permissions)
      ? message.permissions.filter((p) => typeof p === 'string')
      : [];
    agent.pendingPairings.push(phone);
    log(`pairing request from ${phone.deviceId} to ${agent.agentId}`);
    agent.connection.sendJson({ type: 'peer.ready', peerId: phone.deviceId, pairing: true });
    agent.connection.sendJson({
      type: 'pairing.request',
      deviceId: phone.deviceId,
      devicePublicKey: phone.publicKey,
      permissions,
    });
  }

  onSessionRequest(agent, phone, error) {
    if (this.revokedSet(agent.agentId).has(phone.deviceId)) {
      log(`session refused to revoked ${phone.deviceId}`);
      error('device-revoked');
      return;
    }
    const limit = this.config.sessionLimit;
    if (limit > 0 && agent.sessionsServed >= limit) {
      log(`session limit of ${agent.agentId} reached`);
      error('session-limit-reached');
      for (const active of agent.sessionPhones.values()) {
        if (active !== phone) {
          active.connection.sendJson({ type: 'signal.error', code: 'session-limit-reached' });
        }
      }
      agent.sessionPhones.clear();
      agent.latestPhone = null;
      agent.connection.sendJson({ type: 'session.limit_reached' });
      return;
    }
    // The same device on another socket replaces its older one; other phones
    // stay, and the agent's control lease decides who is in session.
    const previous = agent.sessionPhones.get(phone.deviceId);
    if (previous && previous !== phone) this.endSession(agent, previous, 'session-replaced');
    agent.sessionPhones.set(phone.deviceId, phone);
    agent.latestPhone = phone;
    agent.sessionsServed += 1;
    log(`session ${agent.sessionsServed} for ${phone.deviceId}`);
    agent.connection.sendJson({ type: 'peer.ready', peerId: phone.deviceId, pairing: false });
  }
}

// Short pairing addresses, so that a terminal QR code fits 80 columns: a
// process on this machine (./dev run) puts a full address under a code with
// PUT /p/CODE; whoever opens /p/CODE is sent on to it, so one printed code
// keeps working while the address behind it changes. True when handled.
function handleShortLink(request, response, pathname, links) {
  const match = /^\/p\/([A-Za-z0-9]{6,32})$/.exec(pathname);
  if (!match) return false;
  const send = (status, headers = {}) => {
    response.writeHead(status, { 'Cache-Control': 'no-store', ...headers });
    response.end();
  };
  if (request.method === 'GET') {
    const target = links.get(match[1]);
    send(target ? 302 : 404, target ? { Location: target } : {});
    return true;
  }
  const local = ['127.0.0.1', '::1', '::ffff:127.0.0.1'].includes(request.socket.remoteAddress);
  if (request.method !== 'PUT' || !local) {
    send(request.method === 'PUT' ? 403 : 405);
    return true;
  }
  let body = '';
  request.setEncoding('utf8');
  request.on('data', (chunk) => { body += chunk; });
  request.on('end', () => {
    if (body.length > 8192 || !/^https?:\/\/[\x21-\x7e]+$/.test(body) ||
        (!links.has(match[1]) && links.size >= 64)) {
      send(400);
      return;
    }
    links.set(match[1], body);
    send(204);
  });
  return true;
}

function main() {
  let config;
  try {
    config = parseArgs(process.argv.slice(2));
  } catch (error) {
    process.stderr.write(`${error.message}\n${usage()}\n`);
    process.exit(2);
  }
  const rendezvous = new RendezvousServer(config);
  const onRequest = (request, response) => rendezvous.handleRequest(request, response);
  const onUpgrade = (request, socket, head) => rendezvous.handleUpgrade(request, socket, head);
  const tlsOptions = config.tlsCert
    ? { cert: fs.readFileSync(config.tlsCert), key: fs.readFileSync(config.tlsKey) }
    : null;
  // With --tls-port the main listener stays plain and a second one serves TLS.
  const mainIsTls = tlsOptions && config.tlsPort === null;
  const listen = (server, port, host, scheme, onListening) => {
    server.on('upgrade', onUpgrade);
    server.on('error', (error) => {
      process.stderr.write(`rendezvous: ${error.message}\n`);
      process.exit(1);
    });
    // No host: every interface, IPv6 too where the machine has it.
    server.listen(port, host, () => {
      const shownHost = !host ? '[::]' : host.includes(':') ? `[${host}]` : host;
      log(`listening on ${scheme}://${shownHost}:${server.address().port}`);
      if (onListening) onListening();
    });
  };
  const main = mainIsTls ? https.createServer(tlsOptions, onRequest) : http.createServer(onRequest);
  listen(main, config.port, config.host, mainIsTls ? 'https' : 'http', () => {
    if (config.tlsPort !== null) {
      listen(https.createServer(tlsOptions, onRequest), config.tlsPort, undefined, 'https');
    }
  });
  // Everything is in memory: nothing to flush.
  const stop = () => process.exit(0);
  process.on('SIGTERM', stop);
  process.on('SIGINT', stop);
}

if (require.main === module) main();

module.exports = { identityTranscript, deriveId, RendezvousServer, parseArgs };
