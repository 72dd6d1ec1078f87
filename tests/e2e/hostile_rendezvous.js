#!/usr/bin/env node
'use strict';
// A rendezvous server gone bad, for the agent's end-to-end tests: it answers
// the pairing POST, takes the agent's WebSocket without checking anything,
// and sends one hostile message per connection, in the order given on the
// command line. Usage: node hostile_rendezvous.js <path of the ws package> <attack>...
// Attacks: mismatched-pairing-id, oversized, not-json. The first stdout line
// names the port; then one line per connection and per message received.

const crypto = require('node:crypto');
const http = require('node:http');

const { WebSocketServer } = require(process.argv[2]);
const attacks = process.argv.slice(3);

function b64url(bytes) {
  return Buffer.from(bytes).toString('base64url');
}

// A real device's key with the id of another one.
function mismatchedPairingRequest() {
  const { publicKey } = crypto.generateKeyPairSync('ed25519');
  const raw = publicKey.export({ format: 'der', type: 'spki' }).subarray(12);
  const otherId = `device_${b64url(crypto.randomBytes(18))}`;
  return JSON.stringify({ type: 'pairing.request', deviceId: otherId, devicePublicKey: b64url(raw),
    permissions: ['view', 'control'] });
}

const messages = {
  'mismatched-pairing-id': () => [
    JSON.stringify({ type: 'peer.ready', peerId: 'device_x', pairing: true }),
    mismatchedPairingRequest(),
  ],
  oversized: () => [JSON.stringify({ type: 'signal.ice', candidate: 'x'.repeat(300 * 1024) })],
  'not-json': () => ['this is not JSON {'],
};

let next = 0;
const server = http.createServer((request, response) => {
  // Any pairing offer is "accepted", so that the agent prints its link.
  request.resume();
  request.on('end', () => {
    response.writeHead(200, { 'content-type': 'application/json' });
    response.end(JSON.stringify({ secret: `pair_${b64url(crypto.randomBytes(16))}`,
      expiresAt: Math.floor(Date.now() / 1000) + 120 }));
  });
});
const sockets = new WebSocketServer({ noServer: true });
server.on('upgrade', (request, socket, head) => sockets.handleUpgrade(request, socket, head, (ws) => {
  const attack = attacks[next];
  next += 1;
  console.log(`connection ${next}: ${attack || 'idle'}`);
  ws.on('error', () => {});
  ws.on('message', (data) => console.log(`received ${String(data).slice(0, 80)}`));
  if (attack) for (const text of messages[attack]()) ws.send(text);
}));
server.listen(0, '127.0.0.1', () => console.log(`hostile: listening on ${server.address().port}`));
process.on('SIGTERM', () => process.exit(0));
