'use strict';
// What the service checks before it believes anyone: Ed25519 identity proofs
// of agents and phones, the agent's signed DTLS fingerprint, and the shape of
// every field (sizes included) before any of it is kept. Also the TURN REST
// credentials it hands out.

const crypto = require('node:crypto');

const IDENTITY_TAG = 'ZUL-SIGNALING-IDENTITY-1\n';
const FINGERPRINT_TAG = 'ZUL-DTLS-FINGERPRINT-1\n';
const ED25519_SPKI_PREFIX = Buffer.from('302a300506032b6570032100', 'hex');
const ID_PATTERN = /^(agent|device)_[A-Za-z0-9_-]{24}$/;
const FINGERPRINT_PATTERN = /^sha-256 [0-9A-F]{2}(:[0-9A-F]{2}){31}$/;

function decodeBase64Url(text, length) {
  if (typeof text !== 'string' || !/^[A-Za-z0-9_-]*$/.test(text) || text.length % 4 === 1 ||
      text.length > 4 * Math.ceil(length / 3)) {
    return null;
  }
  const bytes = Buffer.from(text, 'base64url');
  return bytes.length === length ? bytes : null;
}

function deriveId(prefix, rawKey) {
  const digest = crypto.createHash('sha256').update(rawKey).digest();
  return prefix + digest.subarray(0, 18).toString('base64url');
}

function ed25519Verify(rawKey, message, signature) {
  try {
    const key = crypto.createPublicKey({
      key: Buffer.concat([ED25519_SPKI_PREFIX, rawKey]), format: 'der', type: 'spki',
    });
    return crypto.verify(null, Buffer.from(message, 'utf8'), key, signature);
  } catch {
    return false;
  }
}

function identityTranscript(role, subjectId, agentId, timestamp, nonce) {
  return `${IDENTITY_TAG}${role}\n${subjectId}\n${agentId}\n${timestamp}\n${nonce}`;
}

// Checks a signed identity proof; returns an error code or null. The nonce's
// freshness is the caller's (it may live in Redis). `subjectPrefix` is
// "agent_" or "device_"; the subject id must derive from the key.
function checkProof(proof, role, subjectPrefix, maxSkew, now = Date.now()) {
  const { subjectId, agentId, publicKey, timestamp, nonce, signature } = proof;
  if (![subjectId, agentId, publicKey, nonce, signature].every((v) => typeof v === 'string')) {
    return 'missing-field';
  }
  if (!ID_PATTERN.test(subjectId) || !agentId.startsWith('agent_') || !ID_PATTERN.test(agentId)) {
    return 'id-mismatch';
  }
  const rawKey = decodeBase64Url(publicKey, 32);
  if (!rawKey) return 'invalid-key';
  if (deriveId(subjectPrefix, rawKey) !== subjectId) return 'id-mismatch';
  const seconds = typeof timestamp === 'string' && /^-?\d{1,15}$/.test(timestamp)
    ? Number(timestamp) : timestamp;
  if (!Number.isSafeInteger(seconds)) return 'invalid-timestamp';
  if (Math.abs(Math.floor(now / 1000) - seconds) > maxSkew) return 'stale-timestamp';
  if (nonce.length < 16 || nonce.length > 128 || !/^[A-Za-z0-9_-]+$/.test(nonce)) return 'invalid-nonce';
  const signatureBytes = decodeBase64Url(signature, 64);
  if (!signatureBytes) return 'invalid-signature';
  if (!ed25519Verify(rawKey, identityTranscript(role, subjectId, agentId, seconds, nonce),
    signatureBytes)) {
    return 'invalid-signature';
  }
  return null;
}

// The body of POST /v1/pairing: [status, error code] or null when it holds.
function checkPairingBody(body, maxSkew, now = Date.now()) {
  const fields = ['agentId', 'agentPublicKey', 'ephemeralX25519PublicKey', 'dtlsFingerprint',
    'fingerprintSignature', 'nonce', 'identitySignature'];
  if (!body || !fields.every((name) => typeof body[name] === 'string') ||
      !Number.isSafeInteger(body.timestamp)) {
    return [400, 'missing-field'];
  }
  const error = checkProof({
    subjectId: body.agentId, agentId: body.agentId, publicKey: body.agentPublicKey,
    timestamp: body.timestamp, nonce: body.nonce, signature: body.identitySignature,
  }, 'agent', 'agent_', maxSkew, now);
  if (error) return [401, error];
  if (!decodeBase64Url(body.ephemeralX25519PublicKey, 32)) return [400, 'invalid-key'];
  if (!FINGERPRINT_PATTERN.test(body.dtlsFingerprint)) return [400, 'invalid-fingerprint'];
  const signature = decodeBase64Url(body.fingerprintSignature, 64);
  const transcript =
    `${FINGERPRINT_TAG}${body.agentId}\n${body.dtlsFingerprint}\n${body.ephemeralX25519PublicKey}`;
  if (!signature || !ed25519Verify(decodeBase64Url(body.agentPublicKey, 32), transcript, signature)) {
    return [401, 'invalid-fingerprint-signature'];
  }
  return null;
}

// coturn's REST scheme (use-auth-secret): user name "expiry:id", password
// base64(HMAC-SHA1(secret, user name)); nothing fixed, nothing stored.
function turnCredentials(config, subjectId, now = Date.now()) {
  if (config.turnUrls.length === 0) return null;
  const expiry = Math.floor(now / 1000) + config.turnTtl;
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

module.exports = {
  identityTranscript, deriveId, checkProof, checkPairingBody, turnCredentials, decodeBase64Url,
};
