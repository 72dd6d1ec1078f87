'use strict';
// Shared state for one instance with nothing else running: presence, pairing
// offers, nonces and session counts in memory; revoked devices and open
// pairing offers in a JSON file written atomically (temporary file, fsync,
// rename), so that a restart keeps what was promised. RedisBus has the same
// methods for many instances.

const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');

const MAX_NONCES = 500000;
const MAX_OFFERS = 100000;
const MAX_AGENTS_WITH_REVOKED = 100000;

class LocalBus {
  constructor({ stateFile = null, log }) {
    this.instanceId = crypto.randomBytes(6).toString('hex');
    this.stateFile = stateFile;
    this.log = log;
    this.handler = () => {};
    this.agents = new Map(); // agentId -> instanceId
    this.nonces = new Map(); // key -> expiry (ms), in insertion order
    this.sessions = new Map();
    this.revoked = new Map(); // agentId -> Set of device ids
    this.offers = new Map(); // secret -> { agentId, expiresAt, used }
    if (stateFile) this.load();
  }

  async start() {}
  async close() {}
  get kind() { return this.stateFile ? `embedded (${this.stateFile})` : 'embedded (memory)'; }
  async healthy() { return true; }

  // A damaged file stops the start rather than forgetting revoked phones.
  load() {
    let text;
    try {
      text = fs.readFileSync(this.stateFile, 'utf8');
    } catch (error) {
      if (error.code === 'ENOENT') return;
      throw new Error(`state file ${this.stateFile}: ${error.message}`);
    }
    let state;
    try {
      state = JSON.parse(text);
      if (state?.version !== 1 || typeof state.revoked !== 'object' || typeof state.offers !== 'object') {
        throw new Error('not a state file of this service');
      }
    } catch (error) {
      throw new Error(`state file ${this.stateFile} is damaged (${error.message}); ` +
        'move it away to start without it (revoked phones are reported again by their agents)');
    }
    for (const [agentId, ids] of Object.entries(state.revoked)) {
      if (Array.isArray(ids)) this.revoked.set(agentId, new Set(ids.filter((id) => typeof id === 'string')));
    }
    const now = Math.floor(Date.now() / 1000);
    for (const [secret, offer] of Object.entries(state.offers)) {
      if (offer && offer.expiresAt >= now) this.offers.set(secret, offer);
    }
  }

  save() {
    if (!this.stateFile) return;
    const now = Math.floor(Date.now() / 1000);
    const state = {
      version: 1,
      revoked: Object.fromEntries([...this.revoked].map(([id, set]) => [id, [...set]])),
      offers: Object.fromEntries([...this.offers].filter(([, o]) => o.expiresAt >= now)),
    };
    const temporary = `${this.stateFile}.${process.pid}.tmp`;
    const fd = fs.openSync(temporary, 'w', 0o600);
    try {
      fs.writeSync(fd, JSON.stringify(state));
      fs.fsyncSync(fd);
    } finally {
      fs.closeSync(fd);
    }
    fs.renameSync(temporary, this.stateFile);
    const dir = fs.openSync(path.dirname(path.resolve(this.stateFile)), 'r');
    try { fs.fsyncSync(dir); } finally { fs.closeSync(dir); }
  }

  onEvent(handler) { this.handler = handler; }

  async deliver(instanceId, event) {
    if (instanceId === this.instanceId) this.handler(event);
  }

  async claimAgent(agentId) {
    const previous = this.agents.get(agentId) ?? null;
    this.agents.set(agentId, this.instanceId);
    return previous;
  }

  async releaseAgent(agentId) { this.agents.delete(agentId); }

  async locateAgent(agentId) { return this.agents.get(agentId) ?? null; }

  // False when the key was taken within its lifetime (a replayed nonce) or
  // the book is full.
  async takeNonce(key, ttlSeconds) {
    const now = Date.now();
    for (const [old, until] of this.nonces) {
      if (until > now) break;
      this.nonces.delete(old);
    }
    if (this.nonces.has(key) || this.nonces.size >= MAX_NONCES) return false;
    this.nonces.set(key, now + ttlSeconds * 1000);
    return true;
  }

  async putOffer(secret, offer) {
    const now = Math.floor(Date.now() / 1000);
    for (const [old, o] of this.offers) if (o.expiresAt < now) this.offers.delete(old);
    if (this.offers.size >= MAX_OFFERS) return false;
    this.offers.set(secret, { ...offer, used: false });
    this.save();
    return true;
  }

  // 'ok' (and the offer is spent), 'unknown', 'used' or 'expired'.
  async takeOffer(secret, agentId, now = Math.floor(Date.now() / 1000)) {
    const offer = this.offers.get(secret);
    if (!offer || offer.agentId !== agentId) return 'unknown';
    if (offer.used) return 'used';
    if (offer.expiresAt < now) return 'expired';
    offer.used = true;
    this.save();
    return 'ok';
  }

  async countSession(key) {
    const count = (this.sessions.get(key) ?? 0) + 1;
    this.sessions.set(key, count);
    return count;
  }

  async forgetSessions(key) { this.sessions.delete(key); }

  async revokedDevices(agentId) { return new Set(this.revoked.get(agentId) ?? []); }

  // Replaces the agent's revoked list; returns the previous one.
  async setRevoked(agentId, ids) {
    const before = this.revoked.get(agentId) ?? new Set();
    const next = new Set(ids);
    if (next.size === 0) this.revoked.delete(agentId);
    else if (this.revoked.has(agentId) || this.revoked.size < MAX_AGENTS_WITH_REVOKED) {
      this.revoked.set(agentId, next);
    } else {
      this.log.error(`revoked devices of ${agentId} not kept: ${MAX_AGENTS_WITH_REVOKED} agents ` +
        'have some already (more agents than one process should serve: use Redis)');
      return before;
    }
    if (next.size !== before.size || ids.some((id) => !before.has(id))) this.save();
    return before;
  }
}

module.exports = { LocalBus };
