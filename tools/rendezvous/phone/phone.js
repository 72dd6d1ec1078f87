'use strict';
// A minimal browser phone for development: an Ed25519 device key kept in
// localStorage, pairing through the rendezvous server with the QR code's
// link, then a WebRTC session with the agent: video, the signed control hello,
// and clicks on the video as pointer input. WebCrypto needs a secure context
// (https, or http on localhost).

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

function b64url(bytes) {
  let text = '';
  for (const b of new Uint8Array(bytes)) text += String.fromCharCode(b);
  return btoa(text).replace(/\+/g, '-').replace(/\//g, '_').replace(/=+$/, '');
}
function unb64url(text) {
  const b64 = text.replace(/-/g, '+').replace(/_/g, '/');
  return Uint8Array.from(atob(b64 + '==='.slice((b64.length + 3) % 4)), (c) => c.charCodeAt(0));
}
function randomText(count) {
  return b64url(crypto.getRandomValues(new Uint8Array(count)));
}

async function deriveId(prefix, rawKey) {
  const digest = new Uint8Array(await crypto.subtle.digest('SHA-256', rawKey));
  return prefix + b64url(digest.slice(0, 18));
}

const device = {};

async function loadDevice() {
  let stored = JSON.parse(localStorage.getItem('zul.device') || 'null');
  if (!stored) {
    const pair = await crypto.subtle.generateKey({ name: 'Ed25519' }, true, ['sign', 'verify']);
    stored = {
      privateKey: b64url(await crypto.subtle.exportKey('pkcs8', pair.privateKey)),
      publicKey: b64url(await crypto.subtle.exportKey('raw', pair.publicKey)),
    };
    localStorage.setItem('zul.device', JSON.stringify(stored));
  }
  device.privateKey = await crypto.subtle.importKey('pkcs8', unb64url(stored.privateKey),
    { name: 'Ed25519' }, false, ['sign']);
  device.publicKey = stored.publicKey;
  device.id = await deriveId('device_', unb64url(stored.publicKey));
  $('device').textContent = device.id;
}

async function sign(text) {
  return b64url(await crypto.subtle.sign({ name: 'Ed25519' }, device.privateKey,
    encoder.encode(text)));
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
async function openSignaling(signalUrl, agentId) {
  const timestamp = Math.floor(Date.now() / 1000);
  const nonce = randomText(24);
  const transcript =
    `ZUL-SIGNALING-IDENTITY-1\nphone\n${device.id}\n${agentId}\n${timestamp}\n${nonce}`;
  const url = new URL(signalUrl);
  url.search = new URLSearchParams({
    role: 'phone', deviceId: device.id, agentId, publicKey: device.publicKey,
    timestamp: String(timestamp), nonce, signature: await sign(transcript),
  }).toString();
  const ws = new WebSocket(url);
  await new Promise((resolve, reject) => {
    ws.onopen = resolve;
    ws.onerror = () => reject(new Error('the rendezvous server refused the connection'));
  });
  return ws;
}

async function pair() {
  const payload = parseLink($('link').value);
  const transcript = `ZUL-DTLS-FINGERPRINT-1\n${payload.agentId}\n${payload.dtlsFingerprint}\n` +
    payload.ephemeralX25519PublicKey;
  if (!await verify(payload.agentPublicKey, encoder.encode(transcript),
    payload.fingerprintSignature)) {
    throw new Error('the fingerprint signature does not verify');
  }
  status('pairing');
  const ws = await openSignaling(payload.signalUrl, payload.agentId);
  ws.send(JSON.stringify({ type: 'pairing.request', secret: payload.pairingSecret,
    permissions: ['view', 'control'] }));
  const message = await new Promise((resolve) => {
    ws.onmessage = (event) => {
      const m = JSON.parse(event.data);
      if (m.type === 'pairing.grant' || m.type === 'signal.error') resolve(m);
    };
  });
  ws.close();
  if (message.type === 'signal.error') throw new Error(`pairing refused: ${message.code}`);
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
}

function offeredFingerprint(sdp) {
  const match = /a=fingerprint:sha-256 ([0-9A-Fa-f:]+)/.exec(sdp);
  return match ? `sha-256 ${match[1].toUpperCase()}` : undefined;
}

async function connect() {
  const agent = JSON.parse(localStorage.getItem('zul.agent') || 'null');
  if (!agent) throw new Error('pair first');
  status('connecting');
  const ws = await openSignaling(agent.signalUrl, agent.agentId);
  const pc = new RTCPeerConnection();
  const sessionId = crypto.randomUUID();
  const channels = {};
  pc.ontrack = (event) => { $('video').srcObject = event.streams[0] || new MediaStream([event.track]); };
  pc.onconnectionstatechange = () => log(`connection: ${pc.connectionState}`);
  pc.ondatachannel = ({ channel }) => {
    channels[channel.label] = channel;
    channel.onmessage = (event) => log(`${channel.label} ← ${String(event.data).slice(0, 200)}`);
    if (channel.label !== 'control') return;
    channel.onopen = async () => {
      const nonce = randomText(24);
      const signature = await sign(`ZUL-CONTROL-HELLO-1\n${sessionId}\n${device.id}\n${nonce}`);
      channel.send(JSON.stringify({
        type: 'control.hello', protoVersion: '1.0', sessionId, deviceId: device.id,
        dtlsFingerprint: offeredFingerprint(pc.remoteDescription.sdp), nonce, signature,
        replaceSession: true,
      }));
      status('session');
    };
  };
  $('video').onclick = (event) => {
    const video = $('video');
    const rect = video.getBoundingClientRect();
    const x = (event.clientX - rect.left) * (video.videoWidth / rect.width);
    const y = (event.clientY - rect.top) * (video.videoHeight / rect.height);
    const channel = channels.input;
    if (!channel || channel.readyState !== 'open') return;
    for (const phase of ['move', 'down', 'up']) {
      channel.send(JSON.stringify({ type: 'input.cursor', protoVersion: '1.0', sessionId,
        phase, x, y, button: 'left' }));
    }
  };
  ws.onmessage = async (event) => {
    const m = JSON.parse(event.data);
    if (m.type === 'signal.offer') {
      if (offeredFingerprint(m.sdp) !== agent.dtlsFingerprint) {
        log('warning: the offer names another DTLS fingerprint than the QR code');
      }
      await pc.setRemoteDescription({ type: 'offer', sdp: m.sdp });
      await pc.setLocalDescription(await pc.createAnswer());
      if (pc.iceGatheringState !== 'complete') {
        await new Promise((resolve) => {
          pc.onicegatheringstatechange = () => {
            if (pc.iceGatheringState === 'complete') resolve();
          };
          setTimeout(resolve, 3000);
        });
      }
      ws.send(JSON.stringify({ type: 'signal.answer', sdp: pc.localDescription.sdp }));
      log('answer sent');
    } else if (m.type === 'signal.error') {
      log(`server: ${m.code}`);
      status(`error:${m.code}`);
    }
  };
  ws.send(JSON.stringify({ type: 'session.request' }));
}

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
  status(localStorage.getItem('zul.agent') ? 'paired' : 'not paired');
  $('pair').onclick = guarded(pair);
  $('connect').onclick = guarded(connect);
  $('forget').onclick = () => {
    localStorage.removeItem('zul.agent');
    status('not paired');
  };
  const params = new URLSearchParams(location.search);
  if (params.get('link')) {
    $('link').value = params.get('link');
    if (params.get('auto') === '1') guarded(pair)();
  }
})();
