#!/usr/bin/env node
'use strict';
// Velto's rendezvous service for the Zul agent and its phones: pairing
// offers, the authenticated WebSockets of agents and phones, TURN REST
// credentials and the relay of offers, answers and candidates. This file
// only wires the pieces (lib/) together; README.md says how to run it.

const fs = require('node:fs');
const http = require('node:http');
const https = require('node:https');
const { WebSocketServer } = require('ws');
const { loadConfig } = require('./lib/config');
const { makeLogger } = require('./lib/log');
const { makeMetrics } = require('./lib/metrics');
const { LocalBus } = require('./lib/local-bus');
const { RedisBus } = require('./lib/redis-bus');
const { Rendezvous } = require('./lib/rendezvous');
const { Web } = require('./lib/web');

function readTls(config) {
  return { cert: fs.readFileSync(config.tlsCert), key: fs.readFileSync(config.tlsKey) };
}

async function main() {
  let config;
  try {
    const loaded = loadConfig(process.argv.slice(2));
    if (loaded.help) {
      console.log(loaded.help);
      return;
    }
    config = loaded.config;
  } catch (error) {
    process.stderr.write(`rendezvous: ${error.message}\n(--help lists every option)\n`);
    process.exit(2);
  }
  const log = makeLogger(config);
  const fail = (what, error) => {
    if (config.logFormat === 'json') log.fatal(`${what}: ${error.message}`);
    process.stderr.write(`rendezvous: ${what}: ${error.message}\n`);
    process.exit(1);
  };

  let tls = null;
  let bus;
  try {
    if (config.tlsCert) tls = readTls(config);
    bus = config.redisUrl ? new RedisBus({ url: config.redisUrl, log })
      : new LocalBus({ stateFile: config.stateFile, log });
    await bus.start();
  } catch (error) {
    fail(config.redisUrl && bus ? `cannot reach Redis at ${bus.redactedUrl()}` : 'cannot start', error);
  }
  const metrics = makeMetrics(bus);
  const rendezvous = new Rendezvous({ config, bus, log, metrics });
  const web = new Web({ config, rendezvous, bus, metrics, log });
  if (tls && config.dev) {
    web.certificate = /-----BEGIN CERTIFICATE-----[^-]+-----END CERTIFICATE-----\n?/
      .exec(tls.cert.toString('utf8'))?.[0] ?? null;
  }
  const sockets = new WebSocketServer({ noServer: true, maxPayload: config.maxMessageBytes,
    perMessageDeflate: false });
  const accept = (request, socket, head, attach) =>
    sockets.handleUpgrade(request, socket, head, (ws) => attach(ws));

  // With --tls-port (development) the main listener stays plain and a second one serves TLS.
  const mainIsTls = tls && config.tlsPort === null;
  const timeouts = { headersTimeout: config.handshakeSeconds * 1000,
    requestTimeout: config.handshakeSeconds * 2000, connectionsCheckingInterval: 1000,
    maxHeaderSize: 16384, keepAliveTimeout: 5000 };
  const servers = [];
  const listen = (secure, port, host) => new Promise((resolve) => {
    const onRequest = (request, response) => web.handle(request, response).catch((error) => {
      log.error(`request ${request.method} failed: ${error.message}`);
      if (!response.headersSent) response.writeHead(500);
      response.end();
    });
    const server = secure
      ? https.createServer({ ...tls, ...timeouts, handshakeTimeout: config.handshakeSeconds * 1000 }, onRequest)
      : http.createServer(timeouts, onRequest);
    server.on('upgrade', (request, socket, head) => web.upgrade(request, socket, head, accept)
      .catch(() => socket.destroy()));
    server.on('clientError', (error, socket) => socket.destroy());
    server.on('error', (error) => fail(`cannot listen on ${host ?? '*'}:${port}`, error));
    // No host: every interface, IPv6 too where the machine has it.
    server.listen(port, host, () => {
      const shownHost = !host ? '[::]' : host.includes(':') ? `[${host}]` : host;
      log.info(`listening on ${secure ? 'https' : 'http'}://${shownHost}:${server.address().port}`);
      servers.push(server);
      resolve(server);
    });
  });
  await listen(Boolean(mainIsTls), config.port, config.host);
  if (config.tlsPort !== null) await listen(true, config.tlsPort, undefined);
  log.info(`state: ${bus.kind}; instance ${bus.instanceId}`);

  const pinger = setInterval(() => rendezvous.pingAll(), config.pingSeconds * 1000);
  pinger.unref();

  // A renewed certificate (certbot, …) is taken on SIGHUP without dropping anyone.
  process.on('SIGHUP', () => {
    if (!tls) return;
    try {
      tls = readTls(config);
      for (const server of servers) if (server.setSecureContext) server.setSecureContext(tls);
      log.info('TLS certificate and key reloaded');
    } catch (error) {
      log.error(`TLS reload failed, keeping the previous certificate: ${error.message}`);
    }
  });
  let stopping = false;
  const stop = async () => {
    if (stopping) return;
    stopping = true;
    log.info('stopping');
    // Whatever hangs (an unreachable Redis), the process ends.
    setTimeout(() => process.exit(0), 5000).unref();
    for (const server of servers) server.close();
    await rendezvous.shutdown();
    await bus.close();
    setTimeout(() => process.exit(0), 200).unref();
  };
  process.on('SIGTERM', stop);
  process.on('SIGINT', stop);
}

if (require.main === module) main();
