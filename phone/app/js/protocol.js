// The phone's side of the agent's protocol: the device key and identity
// proofs, pairing with a QR link (fingerprint and grant signatures checked),
// and a session: the rendezvous WebSocket, the WebRTC answer with the pinned
// DTLS fingerprint checked, the signed control hello and the data channels.
// No user interface here: a Session reports through events.

const encoder = new TextEncoder();

export function b64url(bytes) {
  const all = bytes instanceof Uint8Array ? bytes : new Uint8Array(bytes);
  let text = '';
  for (let i = 0; i < all.length; i += 0x8000) {
    text += String.fromCharCode.apply(null, all.subarray(i, i + 0x8000));
  }
  return btoa(text).replace(/\+/g, '-').replace(/\//g, '_').replace(/=+$/, '');
}

// A shell's output comes this way at tens of MB/s: the browser's own decoder
// where there is one, else a plain loop (a callback per byte is ten times slower).
export function unb64url(text) {
  if (Uint8Array.fromBase64) return Uint8Array.fromBase64(text, { alphabet: 'base64url' });
  const b64 = text.replace(/-/g, '+').replace(/_/g, '/');
  const binary = atob(b64 + '==='.slice((b64.length + 3) % 4));
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < binary.length; i += 1) bytes[i] = binary.charCodeAt(i);
  return bytes;
}

export function randomText(count) {
  return b64url(crypto.getRandomValues(new Uint8Array(count)));
}

export async function deriveId(prefix, rawKey) {
  const digest = new Uint8Array(await crypto.subtle.digest('SHA-256', rawKey));
  return prefix + b64url(digest.slice(0, 18));
}

// A failure the user can act on: `code` names the case (the server's and the
// agent's codes as they come, plus the phone's own ones below).
export class ZulError extends Error {
  constructor(code, detail = '') {
    super(detail ? `${code}: ${detail}` : code);
    this.code = code;
  }
}

// A new device key for one computer. The private half never leaves
// WebCrypto: not extractable, kept as a CryptoKey in IndexedDB.
export async function newDevice() {
  const pair = await crypto.subtle.generateKey({ name: 'Ed25519' }, false, ['sign', 'verify']);
  const raw = await crypto.subtle.exportKey('raw', pair.publicKey);
  return { id: await deriveId('device_', raw), publicKey: b64url(raw), privateKey: pair.privateKey };
}

async function sign(text, privateKey) {
  return b64url(await crypto.subtle.sign({ name: 'Ed25519' }, privateKey, encoder.encode(text)));
}

async function verify(publicKeyText, bytes, signatureText) {
  try {
    const key = await crypto.subtle.importKey('raw', unb64url(publicKeyText), { name: 'Ed25519' },
      false, ['verify']);
    return await crypto.subtle.verify({ name: 'Ed25519' }, key, unb64url(signatureText), bytes);
  } catch {
    return false;
  }
}

// The pairing payload from what a QR code or a link may hold: the
// "zul://pair?payload=…" link, a page address with that link after "#", or
// the JSON itself. Null when the text holds none.
export function parseLink(text) {
  let trimmed = String(text || '').trim();
  const hash = trimmed.indexOf('#zul://');
  if (hash >= 0) trimmed = trimmed.slice(hash + 1);
  try {
    if (trimmed.startsWith('{')) return checkPayload(JSON.parse(trimmed));
    if (!trimmed.startsWith('zul://pair?')) return null;
    const query = trimmed.slice(trimmed.indexOf('?') + 1);
    return checkPayload(JSON.parse(new URLSearchParams(query).get('payload')));
  } catch {
    return null;
  }
}

function checkPayload(payload) {
  const fields = ['agentId', 'agentPublicKey', 'ephemeralX25519PublicKey', 'dtlsFingerprint',
    'fingerprintSignature', 'pairingSecret', 'signalUrl'];
  return payload && fields.every((f) => typeof payload[f] === 'string') ? payload : null;
}

export async function fingerprintVerifies(payload) {
  const transcript = `ZUL-DTLS-FINGERPRINT-1\n${payload.agentId}\n${payload.dtlsFingerprint}\n` +
    payload.ephemeralX25519PublicKey;
  return verify(payload.agentPublicKey, encoder.encode(transcript), payload.fingerprintSignature);
}

const LOOPBACK = new Set(['127.0.0.1', 'localhost', '[::1]']);

// An agent next to a development server on loopback announces a loopback
// address; a phone elsewhere on the network reaches the same server through
// the address it loaded this page from.
export function reachableSignalUrl(signalUrl) {
  const url = new URL(signalUrl);
  if (!LOOPBACK.has(url.hostname) || LOOPBACK.has(location.hostname)) return url;
  url.protocol = location.protocol === 'https:' ? 'wss:' : 'ws:';
  url.host = location.host;
  return url;
}

// Tells "the server is not there" from "the server refused the socket" (the
// browser hides the HTTP status of a refused WebSocket): a refusal with the
// server up means the agent is not connected to it. A phone without a network
// reaches nothing: that is said rather than blaming the server.
async function whyRefused(url) {
  if (navigator.onLine === false) return 'offline';
  const health = new URL(url);
  health.protocol = health.protocol === 'wss:' ? 'https:' : 'http:';
  health.pathname = '/healthz';
  health.search = '';
  try {
    const response = await fetch(health, { cache: 'no-store' });
    return response.ok ? 'agent-offline' : 'server-unreachable';
  } catch {
    return 'server-unreachable';
  }
}

// The rendezvous WebSocket with the phone's identity proof in its query.
export async function openSignaling(signalUrl, agentId, device) {
  const timestamp = Math.floor(Date.now() / 1000);
  const nonce = randomText(24);
  const transcript =
    `ZUL-SIGNALING-IDENTITY-1\nphone\n${device.id}\n${agentId}\n${timestamp}\n${nonce}`;
  const url = reachableSignalUrl(signalUrl);
  url.pathname = `/v1/rendezvous/${agentId}`;
  url.search = new URLSearchParams({
    role: 'phone', deviceId: device.id, agentId, publicKey: device.publicKey,
    timestamp: String(timestamp), nonce, signature: await sign(transcript, device.privateKey),
  }).toString();
  let ws;
  try {
    ws = new WebSocket(url);
  } catch {
    throw new ZulError('server-unreachable');
  }
  await new Promise((resolve, reject) => {
    ws.onopen = resolve;
    ws.onerror = async () => reject(new ZulError(await whyRefused(url)));
  });
  return ws;
}

// Pairs with the agent of `payload`: with the device key this phone already
// has for that computer (so that the computer replaces its record of this
// phone instead of adding one), else a new one. Resolves to the verified
// grant and the device.
export async function pair(payload, { permissions = ['view', 'control'], device: known } = {}) {
  if (!await fingerprintVerifies(payload)) throw new ZulError('fingerprint-signature');
  const device = known || await newDevice();
  const ws = await openSignaling(payload.signalUrl, payload.agentId, device);
  const message = await new Promise((resolve) => {
    ws.onmessage = (event) => {
      const m = JSON.parse(event.data);
      if (m.type === 'pairing.grant' || m.type === 'signal.error') resolve(m);
    };
    ws.onclose = () => resolve({ type: 'signal.error', code: 'server-unreachable' });
    ws.send(JSON.stringify({ type: 'pairing.request', secret: payload.pairingSecret,
      permissions }));
  });
  ws.onclose = null;
  ws.close();
  if (message.type === 'signal.error') throw new ZulError(message.code);
  const grantBytes = unb64url(message.grant);
  if (!await verify(payload.agentPublicKey, grantBytes, message.grantSignature)) {
    throw new ZulError('grant-signature');
  }
  const grant = JSON.parse(new TextDecoder().decode(grantBytes));
  if (grant.deviceId && grant.deviceId !== device.id) throw new ZulError('grant-signature');
  return { grant, device };
}

// The o= line's session id: the same for every offer of one connection.
function sdpSessionId(sdp) {
  const match = /^o=\S+ (\S+)/m.exec(sdp || '');
  return match ? match[1] : undefined;
}

export function offeredFingerprint(sdp) {
  const match = /a=fingerprint:sha-256 ([0-9A-Fa-f:]+)/.exec(sdp);
  return match ? `sha-256 ${match[1].toUpperCase()}` : undefined;
}

// The case a control.error names: its "reason", or for an agent that sends
// none, the start of its message ("denied(permission=control)").
export function errorReason(message) {
  return message.reason || String(message.message || '').replace(/\(.*$/s, '').trim();
}

// What a control.error's reason names, as the phone's own codes. A
// computer this phone paired with that does not trust it has revoked it (the
// server's own refusal may come a few seconds later).
const HELLO_REFUSALS = {
  deviceNotTrusted: 'device-revoked',
  identityMismatch: 'not-paired',
  anotherSessionActive: 'another-session',
  fingerprintMismatch: 'fingerprint',
  invalidSignature: 'not-paired',
  computerLocked: 'computer-locked',
  agentPaused: 'computer-paused',
  connectionDenied: 'connection-denied',
};

// Neither a video frame nor a data-channel message for this long while in
// session: the connection is being lost, whatever ICE says yet.
const SILENCE_MS = 2000;

// One connection to a paired computer. Events (CustomEvent detail):
//   state   { state: 'connecting' | 'waiting' | 'connected' | 'reconnecting' | 'closed' }
//   failure { code } – a refusal, see ZulError codes and HELLO_REFUSALS
//   video   { stream }
//   message { channel, message } – every parsed data-channel message
//   open    { channel } – a data channel opened
//   binary  { channel, data } – every binary data-channel message (an ArrayBuffer)
//   hello   { ok } – the agent's control.hello.ok
//   notice  { reason, message } – the agent's control.notice (see onMessage)
//   lost    {} – the connection broke or went silent; connect() again restarts it
export class Session extends EventTarget {
  constructor(computer, { relay = false } = {}) {
    super();
    this.computer = computer; // { agentId, signalUrl, dtlsFingerprint, device }
    this.relay = relay;
    this.sessionId = crypto.randomUUID();
    this.pc = null;
    this.ws = null;
    this.channels = {};
    this.iceServers = [];
    this.state = 'closed';
    this.established = false;
    this.closedByUser = false;
  }

  emit(type, detail) {
    this.dispatchEvent(new CustomEvent(type, { detail }));
  }

  setState(state) {
    this.state = state;
    this.emit('state', { state });
  }

  fail(code) {
    if (this.closedByUser) return; // what follows a close or a forget is no news
    this.failure = code;
    this.emit('failure', { code });
  }

  // Asks the server for a session and answers the agent's offer. While a
  // connection lives this restarts ICE on it (a network change): the
  // channels stay and the hello is repeated.
  async connect({ replaceSession = false } = {}) {
    this.closedByUser = false;
    this.failure = null;
    this.replaceSession = replaceSession;
    this.setState(this.established ? 'reconnecting' : 'connecting');
    const attempt = (this.attempt = (this.attempt || 0) + 1);
    const { device, agentId, signalUrl } = this.computer;
    let ws;
    try {
      ws = await openSignaling(signalUrl, agentId, device);
    } catch (error) {
      if (attempt === this.attempt && !this.closedByUser) {
        this.fail(error.code || 'server-unreachable');
      }
      return;
    }
    // A later attempt (or close) wins over this one.
    if (attempt !== this.attempt || this.closedByUser) {
      ws.close();
      return;
    }
    if (this.ws) {
      this.ws.onmessage = null;
      this.ws.onclose = null;
      this.ws.close();
    }
    this.ws = ws;
    if (this.pc && ['closed', 'failed'].includes(this.pc.connectionState)) {
      this.pc.close();
      this.pc = null;
      this.channels = {};
    }
    ws.onclose = () => {
      if (this.ws === ws) this.ws = null;
    };
    ws.onmessage = (event) => this.onSignal(JSON.parse(event.data)).catch(() => {});
    ws.send(JSON.stringify({ type: 'session.request' }));
    this.setState('waiting');
  }

  async onSignal(m) {
    if (m.type === 'turn.credentials') {
      this.iceServers = [{ urls: m.urls, username: m.username, credential: m.credential }];
    } else if (m.type === 'signal.offer') {
      await this.answer(m.sdp);
    } else if (m.type === 'signal.error') {
      this.fail(m.code);
    }
  }

  async answer(sdp) {
    if (offeredFingerprint(sdp) !== this.computer.dtlsFingerprint) {
      this.fail('fingerprint');
      this.close();
      return;
    }
    const same = this.pc && this.pc.remoteDescription &&
      sdpSessionId(this.pc.remoteDescription.sdp) === sdpSessionId(sdp);
    if (!same) {
      if (this.pc) this.pc.close();
      this.channels = {};
      this.desktopLost = false;
      this.pc = this.makeConnection();
    }
    const pc = this.pc;
    await pc.setRemoteDescription({ type: 'offer', sdp });
    await pc.setLocalDescription(await pc.createAnswer());
    if (pc.iceGatheringState !== 'complete') {
      await new Promise((resolve) => {
        pc.addEventListener('icegatheringstatechange', () => {
          if (pc.iceGatheringState === 'complete') resolve();
        });
        setTimeout(resolve, 5000);
      });
    }
    if (this.ws) this.ws.send(JSON.stringify({ type: 'signal.answer', sdp: pc.localDescription.sdp }));
    if (same && this.channels.control && this.channels.control.readyState === 'open') {
      await this.hello();
    }
  }

  makeConnection() {
    const pc = new RTCPeerConnection({
      iceServers: this.iceServers,
      iceTransportPolicy: this.relay ? 'relay' : 'all',
    });
    this.watch(pc);
    pc.ontrack = (event) => {
      this.emit('video', { stream: event.streams[0] || new MediaStream([event.track]) });
    };
    pc.onconnectionstatechange = () => {
      if (pc !== this.pc || this.closedByUser) return;
      if (pc.connectionState === 'connected' && this.established) this.setInSession();
      if (['disconnected', 'failed'].includes(pc.connectionState)) {
        this.setState('reconnecting');
        this.emit('lost', {});
      }
    };
    pc.ondatachannel = ({ channel }) => {
      this.channels[channel.label] = channel;
      // The files channel carries binary messages both ways.
      if (channel.label === 'files') channel.binaryType = 'arraybuffer';
      channel.onmessage = (event) => {
        if (event.data instanceof ArrayBuffer) {
          this.heardAt = performance.now();
          this.emit('binary', { channel: channel.label, data: event.data });
          return;
        }
        let message;
        try {
          message = JSON.parse(String(event.data));
        } catch {
          return;
        }
        this.onMessage(channel.label, message);
      };
      channel.addEventListener('open', () => this.emit('open', { channel: channel.label }));
      if (channel.label !== 'control') return;
      channel.onopen = () => {
        this.hello().catch((error) => console.warn(`control hello not sent: ${error}`));
      };
      // The agent closes the connection of a phone that was taken over or
      // revoked; the browser would notice the dead transport only much later.
      channel.onclose = () => {
        if (pc !== this.pc || this.closedByUser) return;
        this.established = false;
        this.setState('reconnecting');
        this.emit('lost', {});
      };
    };
    return pc;
  }

  // Connected, unless the picture is still frozen.
  setInSession() {
    this.setState(this.silent ? 'reconnecting' : 'connected');
  }

  // Counts the decoded video frames twice a second. Silence in session is
  // reported once as a lost connection (restarting ICE may bring the picture
  // back); only a fresh picture ends it.
  watch(pc) {
    clearInterval(this.watchTimer);
    let frames = 0;
    this.heardAt = performance.now();
    this.silent = false;
    const timer = (this.watchTimer = setInterval(async () => {
      const stats = await pc.getStats().catch(() => null);
      if (pc !== this.pc) {
        clearInterval(timer);
        return;
      }
      let decoded = 0;
      stats?.forEach((s) => {
        if (s.type === 'inbound-rtp' && s.kind === 'video') decoded += s.framesDecoded || 0;
      });
      if (decoded > frames) {
        frames = decoded;
        this.heardAt = performance.now();
        if (this.silent) {
          this.silent = false;
          if (this.established && this.state === 'reconnecting') this.setState('connected');
        }
      } else if (this.established && !this.silent && !this.desktopLost && this.state !== 'closed' &&
          performance.now() - this.heardAt > SILENCE_MS) {
        this.silent = true;
        this.setState('reconnecting');
        this.emit('lost', {});
      }
    }, 500));
  }

  onMessage(channel, message) {
    this.heardAt = performance.now();
    if (message.type === 'control.hello.ok') {
      this.established = true;
      this.wasEstablished = true;
      this.sessionId = message.sessionId;
      this.setInSession();
      this.emit('hello', { ok: message });
    } else if (message.type === 'control.error' && !this.established) {
      const code = HELLO_REFUSALS[errorReason(message)] || 'refused';
      // Refused after having been in control: another phone took it over.
      this.fail(code === 'another-session' && this.wasEstablished ? 'taken-over' : code);
    } else if (message.type === 'control.error' && errorReason(message) === 'noActiveSession') {
      // Another phone took over this computer.
      this.established = false;
      this.fail('taken-over');
    } else if (message.type === 'control.notice') {
      this.onNotice(String(message.reason || ''));
      this.emit('notice', { reason: message.reason, message: message.message });
    }
    this.emit('message', { channel, message });
  }

  // The agent's word on the session. "sessionEnded": the person at the
  // computer ended it, "computerLocked": its screen locked and this phone
  // may not use it unattended, or "agentPaused": Velto was paused there;
  // this phone stays away until its user connects again.
  // "revoked": the computer no longer trusts this phone. "desktopLost" /
  // "desktopBack": the computer's screen went away (the picture may freeze,
  // which is no lost connection) and came back.
  onNotice(reason) {
    if (['sessionEnded', 'computerLocked', 'agentPaused'].includes(reason)) {
      this.close();
    } else if (reason === 'revoked') {
      this.fail('device-revoked');
      this.close();
    } else if (reason === 'desktopLost' || reason === 'desktopBack') {
      this.desktopLost = reason === 'desktopLost';
      this.heardAt = performance.now();
    }
  }

  // The signed hello; `replaceSession` takes the control over from another phone.
  async hello(replaceSession = this.replaceSession) {
    const { device } = this.computer;
    const nonce = randomText(24);
    const transcript = `ZUL-CONTROL-HELLO-1\n${this.sessionId}\n${device.id}\n${nonce}`;
    const sent = this.send('control', {
      type: 'control.hello', deviceId: device.id,
      dtlsFingerprint: offeredFingerprint(this.pc.remoteDescription.sdp),
      nonce, signature: await sign(transcript, device.privateKey),
      replaceSession: Boolean(replaceSession),
    });
    if (!sent) console.warn('control hello not sent: the control channel is not open');
  }

  // Adds the envelope; false when the channel is not open.
  send(channel, message) {
    const dc = this.channels[channel];
    if (!dc || dc.readyState !== 'open') return false;
    dc.send(JSON.stringify({ protoVersion: '1.0', sessionId: this.sessionId, ...message }));
    return true;
  }

  // Bytes as they are; false when the channel is not open.
  sendBinary(channel, bytes) {
    const dc = this.channels[channel];
    if (!dc || dc.readyState !== 'open') return false;
    dc.send(bytes);
    return true;
  }

  // Asks the computer to forget this phone too (it revokes it and ends the
  // session); closes once the computer did or after `wait` ms. False when
  // not in session.
  async forget(wait = 3000) {
    const dc = this.channels.control;
    if (!this.established || !this.send('control', { type: 'control.device.forget' })) return false;
    this.closedByUser = true; // the session's end that follows is asked for
    await new Promise((resolve) => {
      const timer = setTimeout(resolve, wait);
      dc.addEventListener('close', () => {
        clearTimeout(timer);
        resolve();
      });
    });
    this.close();
    return true;
  }

  close() {
    this.closedByUser = true;
    this.attempt = (this.attempt || 0) + 1;
    if (this.ws) {
      this.ws.onclose = null;
      this.ws.close();
      this.ws = null;
    }
    if (this.pc) this.pc.close();
    this.pc = null;
    clearInterval(this.watchTimer);
    this.channels = {};
    this.established = false;
    this.setState('closed');
  }
}
