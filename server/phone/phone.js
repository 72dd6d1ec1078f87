// A minimal browser phone for development: an Ed25519 device key kept in
// localStorage, pairing through the rendezvous server with the QR code's
// link, then a WebRTC session with the agent: the pinned DTLS fingerprint
// checked, video, the signed control hello, and clicks on the video as pointer
// input. WebCrypto needs a secure context (https, or http on localhost).
//
// Everything the buttons do is also on `window.zulPhone`, so that tests (and
// curious developers in the console) can drive the phone, including hellos
// that the agent must refuse. The encodings and the signalling address come
// from the phone app's protocol module.

import {
  b64url, deriveId, offeredFingerprint, randomText, reachableSignalUrl, unb64url,
} from '/js/protocol.js';

const $ = (id) => document.getElementById(id);
const encoder = new TextEncoder();

function log(line) {
  const el = $('log');
  el.textContent += `${new Date().toISOString().slice(11, 19)} ${line}\n`;
  el.scrollTop = el.scrollHeight;
}
function status(text) {
  $('status').textContent = text;
  document.body.dataset.status = text;
}

// What the phone holds and has seen; read by tests.
const state = {
  device: {},
  session: null, // { ws, pc, channels, sessionId, iceServers }
  received: [], // every data-channel message: { channel, data }
  signalErrors: [], // codes of the server's signal.error messages
  fingerprintMismatch: false,
};

async function loadDevice(fresh = false) {
  let stored = fresh ? null : JSON.parse(localStorage.getItem('zul.device') || 'null');
  if (!stored) {
    const pair = await crypto.subtle.generateKey({ name: 'Ed25519' }, true, ['sign', 'verify']);
    stored = {
      privateKey: b64url(await crypto.subtle.exportKey('pkcs8', pair.privateKey)),
      publicKey: b64url(await crypto.subtle.exportKey('raw', pair.publicKey)),
    };
    localStorage.setItem('zul.device', JSON.stringify(stored));
  }
  state.device.privateKey = await crypto.subtle.importKey('pkcs8', unb64url(stored.privateKey),
    { name: 'Ed25519' }, false, ['sign']);
  state.device.publicKey = stored.publicKey;
  state.device.id = await deriveId('device_', unb64url(stored.publicKey));
  $('device').textContent = state.device.id;
  return state.device.id;
}

async function sign(text, privateKey = state.device.privateKey) {
  return b64url(await crypto.subtle.sign({ name: 'Ed25519' }, privateKey, encoder.encode(text)));
}
async function verify(publicKeyText, bytes, signatureText) {
  const key = await crypto.subtle.importKey('raw', unb64url(publicKeyText), { name: 'Ed25519' },
    false, ['verify']);
  return crypto.subtle.verify({ name: 'Ed25519' }, key, unb64url(signatureText), bytes);
}

function parseLink(text) {
  const trimmed = text.trim();
  if (trimmed.startsWith('{')) return JSON.parse(trimmed);
  const query = trimmed.slice(trimmed.indexOf('?') + 1);
  return JSON.parse(new URLSearchParams(query).get('payload'));
}

// The phone's identity proof in the WebSocket query.
async function openSignaling(signalUrl, agentId, device = state.device) {
  const timestamp = Math.floor(Date.now() / 1000);
  const nonce = randomText(24);
  const transcript =
    `ZUL-SIGNALING-IDENTITY-1\nphone\n${device.id}\n${agentId}\n${timestamp}\n${nonce}`;
  const url = reachableSignalUrl(signalUrl);
  url.search = new URLSearchParams({
    role: 'phone', deviceId: device.id, agentId, publicKey: device.publicKey,
    timestamp: String(timestamp), nonce, signature: await sign(transcript, device.privateKey),
  }).toString();
  const ws = new WebSocket(url);
  await new Promise((resolve, reject) => {
    ws.onopen = resolve;
    ws.onerror = () => reject(new Error('the rendezvous server refused the connection'));
  });
  return ws;
}

function recordSignalError(message) {
  state.signalErrors.push(message.code);
  log(`server: ${message.code}`);
  status(`error:${message.code}`);
}

async function pair(linkText, permissions = ['view', 'control']) {
  const payload = parseLink(linkText);
  const transcript = `ZUL-DTLS-FINGERPRINT-1\n${payload.agentId}\n${payload.dtlsFingerprint}\n` +
    payload.ephemeralX25519PublicKey;
  if (!await verify(payload.agentPublicKey, encoder.encode(transcript),
    payload.fingerprintSignature)) {
    throw new Error('the fingerprint signature does not verify');
  }
  status('pairing');
  const ws = await openSignaling(payload.signalUrl, payload.agentId);
  const message = await new Promise((resolve) => {
    ws.onmessage = (event) => {
      const m = JSON.parse(event.data);
      if (m.type === 'pairing.grant' || m.type === 'signal.error') resolve(m);
    };
    ws.send(JSON.stringify({ type: 'pairing.request', secret: payload.pairingSecret,
      permissions }));
  });
  ws.close();
  if (message.type === 'signal.error') {
    recordSignalError(message);
    throw new Error(`pairing refused: ${message.code}`);
  }
  const grantBytes = unb64url(message.grant);
  if (!await verify(payload.agentPublicKey, grantBytes, message.grantSignature)) {
    throw new Error('the grant signature does not verify');
  }
  const grant = JSON.parse(new TextDecoder().decode(grantBytes));
  localStorage.setItem('zul.agent', JSON.stringify({
    agentId: payload.agentId, agentPublicKey: payload.agentPublicKey,
    signalUrl: payload.signalUrl, dtlsFingerprint: payload.dtlsFingerprint,
  }));
  log(`paired with ${grant.agentId}: ${grant.permissions.join(', ')}`);
  status('paired');
  return grant;
}

// The o= line's session id: the same for every offer of one connection.
function sdpSessionId(sdp) {
  const match = /^o=\S+ (\S+)/m.exec(sdp || '');
  return match ? match[1] : undefined;
}

// Asks for sessions as `count` new devices that never paired, each on a
// socket of its own kept open, as a crowd of strangers would.
async function flood(count) {
  const agent = JSON.parse(localStorage.getItem('zul.agent') || 'null');
  if (!agent) throw new Error('pair first');
  state.floodSockets = state.floodSockets || [];
  for (let i = 0; i < count; i += 1) {
    const pair = await crypto.subtle.generateKey({ name: 'Ed25519' }, true, ['sign', 'verify']);
    const raw = await crypto.subtle.exportKey('raw', pair.publicKey);
    const device = { id: await deriveId('device_', raw), publicKey: b64url(raw),
      privateKey: pair.privateKey };
    const ws = await openSignaling(agent.signalUrl, agent.agentId, device);
    ws.send(JSON.stringify({ type: 'session.request' }));
    state.floodSockets.push(ws);
  }
  return count;
}

function send(channel, message) {
  const dc = state.session && state.session.channels[channel];
  if (!dc || dc.readyState !== 'open') throw new Error(`channel ${channel} is not open`);
  dc.send(typeof message === 'string' ? message : JSON.stringify(message));
}

// The signed hello. `options` override its fields or its signing, to show
// what the agent refuses: sessionId, deviceId, dtlsFingerprint, nonce,
// transcript (a function from the true transcript to the signed text).
async function hello(options = {}) {
  const session = state.session;
  const sessionId = options.sessionId || session.sessionId;
  const deviceId = options.deviceId || state.device.id;
  const nonce = options.nonce || randomText(24);
  let transcript = `ZUL-CONTROL-HELLO-1\n${sessionId}\n${deviceId}\n${nonce}`;
  if (options.transcript) transcript = options.transcript(transcript);
  const message = {
    type: 'control.hello', protoVersion: '1.0', sessionId, deviceId,
    dtlsFingerprint: options.dtlsFingerprint || offeredFingerprint(session.pc.remoteDescription.sdp),
    nonce, signature: await sign(transcript), replaceSession: options.replaceSession ?? true,
  };
  send('control', message);
  return message;
}

// Connects to the paired agent: asks the server for a session, answers the
// agent's offer (refused when it does not carry the pinned fingerprint), and
// resolves once the control channel is open, after sending the hello unless
// `autoHello` is false. `relay` keeps the phone's media on TURN.
//
// Connecting again while the connection lives asks the agent for it anew: the
// agent restarts ICE on the same connection (its offer keeps the connection's
// SDP session id), the channels stay open and the hello is repeated.
async function connect({ relay = false, autoHello = true } = {}) {
  const agent = JSON.parse(localStorage.getItem('zul.agent') || 'null');
  if (!agent) throw new Error('pair first');
  status('connecting');
  const previous = state.session;
  if (previous && previous.ws) {
    previous.ws.onmessage = null;
    previous.ws.onclose = null;
    previous.ws.close();
  }
  const ws = await openSignaling(agent.signalUrl, agent.agentId);
  const live = previous && previous.pc && !['closed', 'failed'].includes(previous.pc.connectionState);
  const session = live ? previous : {
    ws, pc: null, channels: {}, sessionId: crypto.randomUUID(), iceServers: [],
  };
  session.ws = ws;
  if (!live && previous && previous.pc) previous.pc.close();
  state.session = session;
  let controlOpen;
  const opened = new Promise((resolve, reject) => { controlOpen = { resolve, reject }; });

  const makeConnection = () => {
    const pc = new RTCPeerConnection({
      iceServers: session.iceServers,
      iceTransportPolicy: relay ? 'relay' : 'all',
    });
    pc.ontrack = (event) => {
      $('video').srcObject = event.streams[0] || new MediaStream([event.track]);
    };
    pc.onconnectionstatechange = () => log(`connection: ${pc.connectionState}`);
    pc.ondatachannel = ({ channel }) => {
      session.channels[channel.label] = channel;
      channel.binaryType = 'arraybuffer';
      channel.onmessage = (event) => {
        if (event.data instanceof ArrayBuffer) {
          // "files": byte 1 and JSON, or byte 2, transfer, offset and data.
          const bytes = new Uint8Array(event.data);
          const view = new DataView(event.data);
          const entry = bytes[0] === 1
            ? { channel: channel.label, data: new TextDecoder().decode(bytes.subarray(1)) }
            : { channel: channel.label, piece: { transfer: view.getUint32(1),
              offset: Number(view.getBigUint64(5)), data: b64url(bytes.subarray(13)) } };
          state.received.push(entry);
          return;
        }
        state.received.push({ channel: channel.label, data: String(event.data) });
        log(`${channel.label} ← ${String(event.data).slice(0, 200)}`);
      };
      if (channel.label !== 'control') return;
      channel.onopen = async () => {
        try {
          if (autoHello) await hello();
          status('session');
          controlOpen.resolve(session.sessionId);
        } catch (error) {
          controlOpen.reject(error);
        }
      };
    };
    return pc;
  };

  ws.onclose = () => log('signalling closed (the video goes on while the connection lasts)');
  ws.onmessage = async (event) => {
    const m = JSON.parse(event.data);
    if (m.type === 'turn.credentials') {
      session.iceServers = [{ urls: m.urls, username: m.username, credential: m.credential }];
    } else if (m.type === 'signal.offer') {
      if (offeredFingerprint(m.sdp) !== agent.dtlsFingerprint) {
        state.fingerprintMismatch = true;
        log('refused: the offer names another DTLS fingerprint than the pairing link');
        status('error:fingerprint');
        controlOpen.reject(new Error('the offer names another DTLS fingerprint'));
        return;
      }
      const sameConnection = session.pc && session.pc.remoteDescription &&
        sdpSessionId(session.pc.remoteDescription.sdp) === sdpSessionId(m.sdp);
      if (!sameConnection) {
        if (session.pc) session.pc.close();
        session.channels = {};
        session.pc = makeConnection();
      }
      const pc = session.pc;
      await pc.setRemoteDescription({ type: 'offer', sdp: m.sdp });
      await pc.setLocalDescription(await pc.createAnswer());
      if (pc.iceGatheringState !== 'complete') {
        await new Promise((resolve) => {
          pc.onicegatheringstatechange = () => {
            if (pc.iceGatheringState === 'complete') resolve();
          };
          setTimeout(resolve, 5000);
        });
      }
      ws.send(JSON.stringify({ type: 'signal.answer', sdp: pc.localDescription.sdp }));
      log(sameConnection ? 'answer sent (ICE restart)' : 'answer sent');
      if (sameConnection) {
        try {
          if (autoHello) await hello();
          controlOpen.resolve(session.sessionId);
        } catch (error) {
          controlOpen.reject(error);
        }
      }
    } else if (m.type === 'signal.error') {
      recordSignalError(m);
      controlOpen.reject(new Error(`the server refused: ${m.code}`));
    }
  };
  ws.send(JSON.stringify({ type: 'session.request' }));
  return opened;
}

// What the video shows and how it travels.
async function videoStats() {
  const session = state.session;
  const video = $('video');
  const out = { width: video.videoWidth, height: video.videoHeight, framesDecoded: 0 };
  if (!session || !session.pc) return out;
  const report = await session.pc.getStats();
  let pairId;
  report.forEach((s) => {
    if (s.type === 'inbound-rtp' && s.kind === 'video') {
      out.framesDecoded = s.framesDecoded || 0;
      out.framesPerSecond = s.framesPerSecond || 0;
    }
    if (s.type === 'transport' && s.selectedCandidatePairId) pairId = s.selectedCandidatePairId;
  });
  const pair = pairId && report.get(pairId);
  const local = pair && report.get(pair.localCandidateId);
  if (local) out.localCandidateType = local.candidateType;
  out.connectionState = session.pc.connectionState;
  return out;
}

window.zulPhone = {
  state,
  pair,
  connect,
  hello,
  send,
  flood,
  videoStats,
  // A new device key, as if another phone that never paired picked this one up.
  newDevice: () => loadDevice(true),
  controlMessages: () => state.received.filter((m) => m.channel === 'control')
    .map((m) => JSON.parse(m.data)),
  filesMessages: () => state.received.filter((m) => m.channel === 'files')
    .map((m) => (m.piece ? { type: 'piece', ...m.piece } : JSON.parse(m.data))),
};

// The forged hellos behind the page's buttons.
const FORGERIES = {
  fingerprint: { dtlsFingerprint: `sha-256 ${Array(32).fill('AB').join(':')}` },
  transcript: { transcript: (t) => t.slice(0, -1) + (t.endsWith('A') ? 'B' : 'A') },
  session: { transcript: (t) => t.replace(state.session.sessionId, crypto.randomUUID()) },
  device: { deviceId: `device_${'A'.repeat(24)}` },
  none: {},
};

function guarded(action) {
  return () => action().catch((error) => {
    log(`error: ${error.message}`);
    status('error');
  });
}

(async () => {
  try {
    await loadDevice();
  } catch (error) {
    status('error');
    log(`no Ed25519 key: ${error.message} (WebCrypto needs https or localhost)`);
    return;
  }
  const params = new URLSearchParams(location.search);
  status(localStorage.getItem('zul.agent') ? 'paired' : 'not paired');
  $('pair').onclick = guarded(() => pair($('link').value));
  $('connect').onclick = guarded(() => connect({ relay: params.get('relay') === '1' }));
  for (const button of document.querySelectorAll('[data-forge]')) {
    button.onclick = guarded(async () => {
      if (!state.session || !state.session.pc) throw new Error('connect first');
      await hello(FORGERIES[button.dataset.forge]);
      log(`hello sent (${button.textContent})`);
    });
  }
  $('forget').onclick = () => {
    localStorage.removeItem('zul.agent');
    status('not paired');
  };
  $('video').onclick = (event) => {
    const video = $('video');
    const rect = video.getBoundingClientRect();
    const x = (event.clientX - rect.left) * (video.videoWidth / rect.width);
    const y = (event.clientY - rect.top) * (video.videoHeight / rect.height);
    const session = state.session;
    if (!session) return;
    for (const phase of ['move', 'down', 'up']) {
      try {
        send('input', { type: 'input.cursor', protoVersion: '1.0', sessionId: session.sessionId,
          phase, x, y, button: 'left' });
      } catch (error) {
        log(`error: ${error.message}`);
        return;
      }
    }
  };
  // "#zul://pair?payload=…" (a link as it is, e.g. from a QR code) pairs at once,
  // as does "?link=<escaped link>&auto=1".
  if (location.hash.startsWith('#zul://')) {
    $('link').value = location.hash.slice(1);
    guarded(() => pair($('link').value))();
  } else if (params.get('link')) {
    $('link').value = params.get('link');
    if (params.get('auto') === '1') guarded(() => pair($('link').value))();
  }
  document.body.dataset.ready = '1';
})();
