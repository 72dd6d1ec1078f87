'use strict';
// The rendezvous protocol. An agent's "room" (its phones in session, the
// phones waiting for a grant, its revoked list) lives on the instance that
// holds the agent's WebSocket; a phone's WebSocket may be on any instance,
// which forwards what the phone says to the agent's room and delivers what
// the room sends back, through the bus (direct calls on one instance, Redis
// pub/sub between several).

const crypto = require('node:crypto');
const { checkProof, checkPairingBody, turnCredentials } = require('./proofs');

// What a phone's instance may have queued towards a room before the phone
// is dropped, and what a WebSocket may have waiting to be sent.
const MAX_PENDING_PER_PHONE = 64;
const MAX_BUFFERED_BYTES = 4 << 20;
const MAX_PENDING_PAIRINGS = 8;
// Revoked phones kept per agent (a person revokes a handful).
const MAX_REVOKED = 256;

function parseJsonObject(text) {
  try {
    const value = JSON.parse(text);
    return value && typeof value === 'object' && !Array.isArray(value) ? value : null;
  } catch {
    return null;
  }
}

// One accepted WebSocket: text in and out, sends dropped after the close; a
// receiver that does not read is dropped rather than buffered without end.
class Connection {
  constructor(ws, onDrop) {
    this.ws = ws;
    this.onDrop = onDrop;
    this.alive = true;
    ws.on('error', () => {});
    ws.on('pong', () => { this.alive = true; });
    ws.on('message', () => { this.alive = true; });
  }

  get isOpen() { return this.ws.readyState === this.ws.OPEN; }

  sendText(text) {
    if (!this.isOpen) return false;
    if (this.ws.bufferedAmount > MAX_BUFFERED_BYTES) {
      this.onDrop('slow-reader');
      this.ws.terminate();
      return false;
    }
    this.ws.send(text);
    return true;
  }

  sendJson(message) { return this.sendText(JSON.stringify(message)); }

  close(code = 1000, reason = '') { this.ws.close(code, reason); }

  // Called by the ping timer: false when the peer stayed silent a whole round.
  ping() {
    if (!this.alive) {
      this.ws.terminate();
      return false;
    }
    this.alive = false;
    this.ws.ping();
    return true;
  }

  onText(listener) {
    this.ws.on('message', (data, isBinary) => listener(isBinary ? null : data.toString('utf8')));
  }

  onClose(listener) { this.ws.on('close', () => listener()); }
}

class Rendezvous {
  constructor({ config, bus, log, metrics }) {
    this.config = config;
    this.bus = bus;
    this.log = log;
    this.metrics = metrics;
    this.rooms = new Map(); // agentId -> room, for agents held here
    this.phones = new Map(); // phone connection id -> phone, for phones held here
    this.connections = new Set();
    bus.onEvent((event) => this.onBusEvent(event));
  }

  // ---- HTTP --------------------------------------------------------------------

  // POST /v1/pairing with its parsed body: [status, reply].
  async createPairing(body) {
    const problem = checkPairingBody(body, this.config.maxSkew);
    if (problem) {
      this.refused(problem[1]);
      this.log.info(`pairing refused for ${String(body?.agentId).slice(0, 64)}: ${problem[1]}`);
      return [problem[0], { error: problem[1] }];
    }
    if (!await this.bus.takeNonce(`agent:${body.agentId}:${body.nonce}`, this.config.maxSkew * 2)) {
      this.refused('replayed-nonce');
      return [401, { error: 'replayed-nonce' }];
    }
    const secret = `pair_${crypto.randomBytes(32).toString('base64url')}`;
    const expiresAt = Math.floor(Date.now() / 1000) + this.config.pairingTtl;
    if (!await this.bus.putOffer(secret, { agentId: body.agentId, expiresAt })) {
      this.refused('busy');
      return [503, { error: 'busy' }];
    }
    this.metrics.pairings.inc({ step: 'offered' });
    this.log.info(`pairing offer for ${body.agentId} until ${expiresAt}`);
    return [200, { secret, expiresAt }];
  }

  // ---- WebSocket upgrades ---------------------------------------------------------

  // Checks an upgrade to /v1/rendezvous/<agentId>: [status, reason] to refuse
  // it, or a function that attaches the accepted connection.
  async admit(url) {
    const match = /^\/v1\/rendezvous\/([A-Za-z0-9_-]{1,64})$/.exec(url.pathname);
    if (!match) return [404, 'Not Found'];
    const agentId = match[1];
    const query = Object.fromEntries(url.searchParams);
    if (query.agentId !== agentId) return this.refuse(401, 'agent-mismatch');
    const role = query.role;
    if (role !== 'agent' && role !== 'phone') return this.refuse(400, 'unknown-role');
    const subjectId = role === 'agent' ? agentId : query.deviceId;
    const error = checkProof({ ...query, subjectId }, role, role === 'agent' ? 'agent_' : 'device_',
      this.config.maxSkew);
    if (error) {
      this.log.info(`${role} ${String(subjectId).slice(0, 64)} refused: ${error}`);
      return this.refuse(401, error);
    }
    if (!await this.bus.takeNonce(`${role}:${subjectId}:${query.nonce}`, this.config.maxSkew * 2)) {
      this.log.info(`${role} ${subjectId} refused: replayed-nonce`);
      return this.refuse(401, 'replayed-nonce');
    }
    if (role === 'agent') {
      // Locatable before the agent hears it is connected, so that no phone
      // that comes right after it is told that it is offline.
      const [previous, revoked] = await Promise.all([this.bus.claimAgent(agentId),
        this.bus.revokedDevices(agentId)]);
      if (previous && previous !== this.bus.instanceId) {
        await this.bus.deliver(previous, { kind: 'agent.replaced', agentId });
      }
      // A handshake that fails after this leaves no presence behind.
      const attached = { done: false };
      setTimeout(() => {
        if (!attached.done && !this.rooms.has(agentId)) this.bus.releaseAgent(agentId).catch(() => {});
      }, this.config.handshakeSeconds * 1000).unref();
      return (ws) => {
        attached.done = true;
        this.attachAgent(agentId, this.wrap(ws, 'agent'), revoked);
      };
    }
    if (!await this.bus.locateAgent(agentId)) return this.refuse(503, 'agent-offline', 'Agent Offline');
    return (ws) => this.attachPhone(agentId, query.deviceId, query.publicKey, this.wrap(ws, 'phone'));
  }

  refuse(status, code, reason = { 400: 'Bad Request', 401: 'Unauthorized' }[status]) {
    this.refused(code);
    return [status, reason];
  }

  refused(code) { this.metrics.refusals.inc({ reason: code }); }

  wrap(ws, role) {
    const connection = new Connection(ws, (why) => {
      this.refused(why);
      this.log.info(`${role} dropped: ${why}`);
    });
    this.connections.add(connection);
    this.metrics.connections.inc({ role });
    connection.onClose(() => {
      this.connections.delete(connection);
      this.metrics.connections.dec({ role });
    });
    return connection;
  }

  // Every connection silent for a whole round is dropped.
  pingAll() {
    for (const connection of this.connections) connection.ping();
  }

  // ---- agents --------------------------------------------------------------------

  attachAgent(agentId, connection, revoked) {
    const earlier = this.rooms.get(agentId);
    if (earlier) {
      this.log.info(`agent ${agentId} replaces its previous connection`);
      this.closeRoom(earlier, 4000, 'replaced');
    }
    const room = {
      agentId,
      connection,
      key: `${agentId}:${crypto.randomBytes(6).toString('hex')}`,
      sessionPhones: new Map(), // deviceId -> phone address
      latestPhone: null,
      pendingPairings: [],
      phones: new Map(), // phone id -> address
      revoked,
      queue: Promise.resolve(),
    };
    this.rooms.set(agentId, room);
    this.log.info(`agent ${agentId} connected`);
    connection.onText((text) => this.onAgentText(room, text));
    connection.onClose(() => {
      if (this.rooms.get(agentId) !== room) return;
      this.log.info(`agent ${agentId} disconnected`);
      this.closeRoom(room);
      this.bus.releaseAgent(agentId).catch(() => {});
    });
    const credentials = turnCredentials(this.config, agentId);
    if (credentials) connection.sendJson(credentials);
  }

  // Runs `work` after everything queued in the room before it.
  inRoom(room, work) {
    room.queue = room.queue.then(work).catch((error) => this.log.warn(`room ${room.agentId}: ${error.message}`));
    return room.queue;
  }

  // The room ends: its phones hear that the agent is gone.
  closeRoom(room, code, reason) {
    if (this.rooms.get(room.agentId) === room) this.rooms.delete(room.agentId);
    for (const phone of room.phones.values()) {
      this.toPhone(phone, { kind: 'phone.close', code: 4001, reason: 'agent offline',
        text: JSON.stringify({ type: 'signal.error', code: 'agent-offline' }) });
    }
    room.phones.clear();
    room.sessionPhones.clear();
    room.latestPhone = null;
    room.pendingPairings = [];
    this.bus.forgetSessions(room.key).catch(() => {});
    if (code) room.connection.close(code, reason);
  }

  onAgentText(room, text) {
    const message = text === null ? null : parseJsonObject(text);
    if (!message || typeof message.type !== 'string') {
      this.log.info(`agent ${room.agentId} sent a message that is not a JSON object with a type`);
      return;
    }
    if (message.type.startsWith('signal.')) {
      // To the phone it names, else to the one that asked last.
      const phone = typeof message.peerId === 'string'
        ? room.sessionPhones.get(message.peerId) : room.latestPhone;
      if (phone) this.toPhone(phone, { kind: 'phone.send', text: this.tampered(message) || text, relayed: true });
      return;
    }
    if (message.type === 'pairing.grant') {
      const phone = room.pendingPairings.shift();
      if (!phone) {
        this.log.info(`agent ${room.agentId} sent a grant nobody waits for`);
        return;
      }
      this.metrics.pairings.inc({ step: 'granted' });
      this.log.info(`pairing granted to ${phone.deviceId}`);
      this.sendPhone(phone, { type: 'pairing.grant', grant: message.grant, grantSignature: message.grantSignature });
      return;
    }
    if (message.type === 'devices.revoked') {
      const ids = Array.isArray(message.deviceIds)
        ? message.deviceIds.filter((id) => typeof id === 'string' && id.length <= 64).slice(0, MAX_REVOKED) : [];
      this.inRoom(room, async () => {
        const before = await this.bus.setRevoked(room.agentId, ids);
        const next = new Set(ids);
        room.revoked = next;
        if (next.size !== before.size || ids.some((id) => !before.has(id))) {
          this.log.info(`agent ${room.agentId} reports ${next.size} revoked device(s)`);
        }
        for (const phone of [...room.sessionPhones.values()]) {
          if (next.has(phone.deviceId)) this.endSession(room, phone, 'device-revoked');
        }
      });
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
    this.log.info('offer relayed with another certificate fingerprint (--tamper-offer-fingerprint)');
    return JSON.stringify({ ...message,
      sdp: message.sdp.replace(/^a=fingerprint:sha-256 .*$/gm, `a=fingerprint:sha-256 ${other}`) });
  }

  // ---- a room's phones -------------------------------------------------------------

  sendPhone(phone, message) { this.toPhone(phone, { kind: 'phone.send', text: JSON.stringify(message) }); }

  toPhone(phone, event) {
    event.phoneId = phone.id;
    if (event.relayed) event.sentAt = performance.timeOrigin + performance.now();
    this.bus.deliver(phone.instance, event).catch(() => {});
  }

  sendAgent(room, message) { room.connection.sendJson(message); }

  // The phone is no longer served; the agent hears "peer.left".
  endSession(room, phone, code) {
    if (room.sessionPhones.get(phone.deviceId)?.id !== phone.id) return;
    room.sessionPhones.delete(phone.deviceId);
    if (room.latestPhone?.id === phone.id) room.latestPhone = null;
    if (code) this.sendPhone(phone, { type: 'signal.error', code });
    this.sendAgent(room, { type: 'peer.left', peerId: phone.deviceId });
  }

  // An event from a phone's instance for a room held here.
  onRoomEvent(event) {
    const room = this.rooms.get(event.agentId);
    const phone = event.phone;
    if (!room) {
      if (event.kind === 'room.message') {
        this.sendPhone(phone, { type: 'signal.error', code: 'agent-offline' });
      }
      return;
    }
    this.inRoom(room, () => this.handleRoomEvent(room, phone, event));
  }

  async handleRoomEvent(room, phone, event) {
    if (this.rooms.get(room.agentId) !== room) {
      if (event.kind === 'room.message') this.sendPhone(phone, { type: 'signal.error', code: 'agent-offline' });
      return;
    }
    if (event.kind === 'room.close') {
      room.phones.delete(phone.id);
      room.pendingPairings = room.pendingPairings.filter((p) => p.id !== phone.id);
      if (room.sessionPhones.get(phone.deviceId)?.id === phone.id) this.endSession(room, phone, null);
      return;
    }
    if (!room.phones.has(phone.id)) {
      if (room.phones.size >= this.config.maxPhonesPerAgent) {
        this.refused('too-many-phones');
        this.toPhone(phone, { kind: 'phone.close', code: 4008, reason: 'too many phones',
          text: JSON.stringify({ type: 'signal.error', code: 'too-many-phones' }) });
        return;
      }
      room.phones.set(phone.id, phone);
    }
    if (event.kind !== 'room.message') return;
    const { message } = event;
    if (message.type === 'pairing.request') await this.onPairingRequest(room, phone, message);
    else if (message.type === 'session.request') await this.onSessionRequest(room, phone);
    else if (message.type.startsWith('signal.')) {
      if (room.sessionPhones.get(phone.deviceId)?.id !== phone.id) {
        this.sendPhone(phone, { type: 'signal.error', code: 'no-session' });
        return;
      }
      // Relayed with the phone named, so that the agent can tell phones apart.
      this.metrics.relayed.inc({ direction: 'phone-to-agent' });
      this.sendAgent(room, { ...message, peerId: phone.deviceId });
    } else {
      this.sendPhone(phone, { type: 'signal.error', code: 'unknown-type' });
    }
  }

  async onPairingRequest(room, phone, message) {
    if (room.pendingPairings.length >= MAX_PENDING_PAIRINGS) {
      this.sendPhone(phone, { type: 'signal.error', code: 'busy' });
      return;
    }
    const outcome = typeof message.secret === 'string' && message.secret.length <= 128
      ? await this.bus.takeOffer(message.secret, room.agentId) : 'unknown';
    if (outcome !== 'ok') {
      this.refused(`pairing-${outcome}`);
      this.sendPhone(phone, { type: 'signal.error', code: `pairing-${outcome}` });
      return;
    }
    const permissions = Array.isArray(message.permissions)
      ? message.permissions.filter((p) => typeof p === 'string' && p.length <= 32).slice(0, 16) : [];
    room.pendingPairings.push(phone);
    this.metrics.pairings.inc({ step: 'requested' });
    this.log.info(`pairing request from ${phone.deviceId} to ${room.agentId}`);
    this.sendAgent(room, { type: 'peer.ready', peerId: phone.deviceId, pairing: true });
    this.sendAgent(room, { type: 'pairing.request', deviceId: phone.deviceId,
      devicePublicKey: phone.publicKey, permissions });
  }

  async onSessionRequest(room, phone) {
    if (room.revoked.has(phone.deviceId)) {
      this.log.info(`session refused to revoked ${phone.deviceId}`);
      this.refused('device-revoked');
      this.sendPhone(phone, { type: 'signal.error', code: 'device-revoked' });
      return;
    }
    const limit = this.config.sessionLimit;
    if (limit > 0 && await this.bus.countSession(room.key) > limit) {
      this.log.info(`session limit of ${room.agentId} reached`);
      this.refused('session-limit-reached');
      this.sendPhone(phone, { type: 'signal.error', code: 'session-limit-reached' });
      for (const active of room.sessionPhones.values()) {
        if (active.id !== phone.id) this.sendPhone(active, { type: 'signal.error', code: 'session-limit-reached' });
      }
      room.sessionPhones.clear();
      room.latestPhone = null;
      this.sendAgent(room, { type: 'session.limit_reached' });
      return;
    }
    // The same device on another socket replaces its older one; other phones
    // stay, and the agent's control lease decides who is in session.
    const previous = room.sessionPhones.get(phone.deviceId);
    if (previous && previous.id !== phone.id) this.endSession(room, previous, 'session-replaced');
    room.sessionPhones.set(phone.deviceId, phone);
    room.latestPhone = phone;
    this.log.info(`session for ${phone.deviceId}`);
    this.sendAgent(room, { type: 'peer.ready', peerId: phone.deviceId, pairing: false });
  }

  // ---- phones held here --------------------------------------------------------------

  attachPhone(agentId, deviceId, publicKey, connection) {
    const phone = { id: crypto.randomBytes(9).toString('base64url'), instance: this.bus.instanceId,
      deviceId, publicKey, agentId, connection, pending: 0, queue: Promise.resolve() };
    this.phones.set(phone.id, phone);
    this.log.info(`phone ${deviceId} connected to ${agentId}`);
    // Phones get TURN credentials of their own, so that either side can relay.
    const credentials = turnCredentials(this.config, deviceId);
    if (credentials) connection.sendJson(credentials);
    this.toRoom(phone, { kind: 'room.open' });
    connection.onText((text) => {
      const message = text === null ? null : parseJsonObject(text);
      if (!message || typeof message.type !== 'string') {
        connection.sendJson({ type: 'signal.error', code: 'invalid-message' });
        return;
      }
      this.toRoom(phone, { kind: 'room.message', message });
    });
    connection.onClose(() => {
      this.phones.delete(phone.id);
      this.toRoom(phone, { kind: 'room.close' });
      this.log.info(`phone ${deviceId} disconnected`);
    });
  }

  // To the room of the phone's agent, wherever it is held, in the order the
  // phone spoke; a phone that floods faster than that is dropped.
  toRoom(phone, event) {
    if (phone.pending >= MAX_PENDING_PER_PHONE) {
      this.refused('flooding');
      phone.connection.ws.terminate();
      return;
    }
    phone.pending += 1;
    const address = { id: phone.id, instance: phone.instance, deviceId: phone.deviceId,
      publicKey: phone.publicKey };
    phone.queue = phone.queue.then(async () => {
      const where = await this.bus.locateAgent(phone.agentId);
      if (!where) {
        if (event.kind === 'room.message') phone.connection.sendJson({ type: 'signal.error', code: 'agent-offline' });
        return;
      }
      await this.bus.deliver(where, { ...event, agentId: phone.agentId, phone: address });
    }).catch(() => {}).finally(() => { phone.pending -= 1; });
  }

  // ---- between instances ----------------------------------------------------------------

  onBusEvent(event) {
    if (!event || typeof event.kind !== 'string') return;
    if (event.kind.startsWith('room.')) {
      this.onRoomEvent(event);
    } else if (event.kind === 'phone.send' || event.kind === 'phone.close') {
      const phone = this.phones.get(event.phoneId);
      if (!phone) return;
      if (event.text) phone.connection.sendText(event.text);
      if (event.sentAt) {
        this.metrics.relayed.inc({ direction: 'agent-to-phone' });
        this.metrics.relayLatency.observe((performance.timeOrigin + performance.now() - event.sentAt) / 1000);
      }
      if (event.kind === 'phone.close') phone.connection.close(event.code, event.reason);
    } else if (event.kind === 'agent.replaced') {
      const room = this.rooms.get(event.agentId);
      if (!room) return;
      this.log.info(`agent ${event.agentId} moved to another instance`);
      this.bus.forgetAgent?.(event.agentId);
      this.closeRoom(room, 4000, 'replaced');
    }
  }

  // Agents are told to come back (they reconnect, through another instance
  // when there is one); phones hear that the agent left.
  async shutdown() {
    const released = [];
    for (const room of [...this.rooms.values()]) {
      this.closeRoom(room, 1012, 'service restart');
      released.push(this.bus.releaseAgent(room.agentId).catch(() => {}));
    }
    for (const phone of this.phones.values()) phone.connection.close(1012, 'service restart');
    await Promise.all(released);
  }
}

module.exports = { Rendezvous };
