'use strict';
// The service's plain HTTP side: POST /v1/pairing, /healthz, /metrics, the
// phone web app (phone/app at the repository's top, its libraries from
// phone/node_modules under /vendor/) with strict headers, and in development
// the development phone page (/phone/), the certificate and short links.

const fs = require('node:fs');
const path = require('node:path');
const { RateLimiter } = require('./limits');

const ROOT = path.resolve(__dirname, '..', '..');
const TYPES = {
  '.html': 'text/html; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8',
  '.mjs': 'text/javascript; charset=utf-8',
  '.css': 'text/css; charset=utf-8',
  '.json': 'application/json',
  '.webmanifest': 'application/manifest+json',
  '.svg': 'image/svg+xml',
  '.png': 'image/png',
};
const MAX_BODY_BYTES = 65536;

// URL prefix -> folder; the longest prefix that matches wins.
function mounts(dev) {
  return [
    ...(dev ? [['/phone/', path.join(__dirname, '..', 'phone')]] : []),
    ['/vendor/jsqr/', path.join(ROOT, 'phone', 'node_modules', 'jsqr', 'dist')],
    ['/vendor/xterm/', path.join(ROOT, 'phone', 'node_modules', '@xterm', 'xterm')],
    ['/vendor/xterm-webgl/', path.join(ROOT, 'phone', 'node_modules', '@xterm', 'addon-webgl', 'lib')],
    ['/vendor/hash-wasm/', path.join(ROOT, 'phone', 'node_modules', 'hash-wasm', 'dist')],
    ['/', path.join(ROOT, 'phone', 'app')],
  ];
}

function resolveStatic(pathname, dev) {
  if (dev && pathname === '/phone') pathname = '/phone/';
  for (const [prefix, folder] of mounts(dev)) {
    if (!pathname.startsWith(prefix)) continue;
    let relative = decodeURIComponent(pathname.slice(prefix.length));
    if (relative === '' || relative.endsWith('/')) relative += 'index.html';
    const file = path.resolve(folder, relative);
    // Nothing outside the mounted folder, whatever the dots say.
    return file.startsWith(folder + path.sep) ? file : null;
  }
  return null;
}

// Headers of every answer. The app loads nothing but its own files (and
// compiles hash-wasm's WebAssembly, no script text) and talks to rendezvous
// servers over TLS (plain ws/http only in development). Styles may be inline:
// the terminal (xterm.js) writes its cell sizes and colours into style
// elements of its own; the app puts no markup from elsewhere on its pages.
function securityHeaders(config, secure) {
  const connect = config.dev ? "'self' https: wss: http: ws:" : "'self' https: wss:";
  const headers = {
    'Content-Security-Policy': [
      "default-src 'self'", "script-src 'self' 'wasm-unsafe-eval'", "style-src 'self' 'unsafe-inline'", "img-src 'self' data: blob:",
      "media-src 'self' blob:", `connect-src ${connect}`, "worker-src 'self'", "manifest-src 'self'",
      "object-src 'none'", "base-uri 'none'", "frame-ancestors 'none'", "form-action 'none'",
    ].join('; '),
    'X-Content-Type-Options': 'nosniff',
    'Referrer-Policy': 'no-referrer',
    'X-Frame-Options': 'DENY',
    'Cross-Origin-Resource-Policy': 'same-origin',
    'Permissions-Policy': 'camera=(self), microphone=(), geolocation=(), payment=()',
  };
  if (!config.dev) {
    // A page of its own browsing group (development tools drive the page
    // through DevTools, which loses it when the group changes under them).
    headers['Cross-Origin-Opener-Policy'] = 'same-origin';
    // Not on a development certificate: HSTS would make its warning impossible to pass.
    if (secure) headers['Strict-Transport-Security'] = 'max-age=31536000';
  }
  return headers;
}

// The client's address: the socket's, or with a trusted proxy in between the
// last address in X-Forwarded-For that is not one of the proxies.
function clientAddress(request, trustedProxies) {
  const peer = (request.socket.remoteAddress || '').replace(/^::ffff:/, '');
  if (!trustedProxies.includes(peer)) return peer;
  const forwarded = String(request.headers['x-forwarded-for'] || '').split(',')
    .map((s) => s.trim().replace(/^::ffff:/, '')).filter(Boolean);
  for (let i = forwarded.length - 1; i >= 0; i -= 1) {
    if (!trustedProxies.includes(forwarded[i])) return forwarded[i];
  }
  return peer;
}

function isSecure(request, config) {
  if (request.socket.encrypted) return true;
  const peer = (request.socket.remoteAddress || '').replace(/^::ffff:/, '');
  return config.trustedProxies.includes(peer) && request.headers['x-forwarded-proto'] === 'https';
}

class Web {
  constructor({ config, rendezvous, bus, metrics, log }) {
    this.config = config;
    this.rendezvous = rendezvous;
    this.bus = bus;
    this.metrics = metrics;
    this.log = log;
    this.pairingLimit = new RateLimiter(config.pairingPerMinute);
    this.upgradeLimit = new RateLimiter(config.upgradesPerMinute);
    this.shortLinks = new Map(); // code -> address (development)
    this.certificate = null; // the development certificate, for a phone to trust
  }

  async handle(request, response) {
    let url;
    try {
      url = new URL(request.url, 'http://rendezvous.invalid');
    } catch {
      this.reply(request, response, 400, { error: 'bad-request' });
      return;
    }
    const headers = securityHeaders(this.config, isSecure(request, this.config));
    for (const [name, value] of Object.entries(headers)) response.setHeader(name, value);
    const { pathname } = url;
    if (request.method === 'POST' && pathname === '/v1/pairing') {
      if (!this.pairingLimit.take(clientAddress(request, this.config.trustedProxies))) {
        this.rendezvous.refused('rate-limited');
        this.reply(request, response, 429, { error: 'rate-limited' }, { 'Retry-After': '10' });
        return;
      }
      const text = await this.readBody(request, response);
      if (text === null) return;
      let body = null;
      try {
        body = JSON.parse(text);
      } catch {
        this.reply(request, response, 400, { error: 'invalid-json' });
        return;
      }
      const [status, reply] = await this.rendezvous.createPairing(body);
      this.reply(request, response, status, reply);
      return;
    }
    if (request.method === 'GET' && pathname === '/healthz') {
      const healthy = await this.bus.healthy();
      this.reply(request, response, healthy ? 200 : 503, { ok: healthy });
      return;
    }
    if (request.method === 'GET' && pathname === '/metrics') {
      if (!this.config.metricsFrom.includes(clientAddress(request, this.config.trustedProxies))) {
        this.reply(request, response, 403, { error: 'forbidden' });
        return;
      }
      response.writeHead(200, { 'Content-Type': this.metrics.registry.contentType });
      response.end(await this.metrics.registry.metrics());
      return;
    }
    if (this.config.dev && pathname === '/dev-certificate.crt' && this.certificate) {
      response.writeHead(200, { 'Content-Type': 'application/x-x509-ca-cert' });
      response.end(this.certificate);
      return;
    }
    if (this.config.dev && this.shortLink(request, response, pathname)) return;
    if (request.method === 'GET' && this.serveStatic(pathname, response)) return;
    this.reply(request, response, 404, { error: 'not-found' });
  }

  // The body as text, or null after answering 413 (the rest is not read).
  readBody(request, response) {
    return new Promise((resolve) => {
      const chunks = [];
      let size = 0;
      request.on('data', (chunk) => {
        size += chunk.length;
        if (size <= MAX_BODY_BYTES) {
          chunks.push(chunk);
          return;
        }
        request.removeAllListeners('data');
        request.pause();
        this.reply(request, response, 413, { error: 'too-large' }, { Connection: 'close' });
        resolve(null);
      });
      request.on('end', () => {
        if (size <= MAX_BODY_BYTES) resolve(Buffer.concat(chunks).toString('utf8'));
      });
      request.on('error', () => resolve(null));
    });
  }

  reply(request, response, status, body, extra = {}) {
    if (response.headersSent) return;
    const text = JSON.stringify(body);
    response.writeHead(status, { 'Content-Type': 'application/json',
      'Content-Length': Buffer.byteLength(text), 'Cache-Control': 'no-store', ...extra });
    response.end(text);
    if (extra.Connection === 'close') response.on('finish', () => request.socket.destroy());
  }

  serveStatic(pathname, response) {
    let file;
    try {
      file = resolveStatic(pathname, this.config.dev);
    } catch {
      return false; // malformed percent-encoding
    }
    const type = file && TYPES[path.extname(file)];
    if (!type || !fs.existsSync(file) || !fs.statSync(file).isFile()) return false;
    fs.readFile(file, (error, data) => {
      if (error) {
        response.writeHead(404);
        response.end();
        return;
      }
      // The service worker decides what stays offline; the browser checks each time.
      response.writeHead(200, { 'Content-Type': type, 'Cache-Control': 'no-cache' });
      response.end(data);
    });
    return true;
  }

  // Short pairing addresses, so that a terminal QR code fits 80 columns: a
  // process on this machine (./dev run) puts a full address under a code
  // with PUT /p/CODE; whoever opens /p/CODE is sent on to it. True when handled.
  shortLink(request, response, pathname) {
    const match = /^\/p\/([A-Za-z0-9]{6,32})$/.exec(pathname);
    if (!match) return false;
    const send = (status, headers = {}) => {
      response.writeHead(status, { 'Cache-Control': 'no-store', ...headers });
      response.end();
    };
    const links = this.shortLinks;
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
    request.on('data', (chunk) => { if (body.length <= 8192) body += chunk; });
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

  // A WebSocket upgrade: refused with a plain HTTP answer, or handed to `accept`.
  async upgrade(request, socket, head, accept) {
    socket.on('error', () => {});
    if (!this.upgradeLimit.take(clientAddress(request, this.config.trustedProxies))) {
      this.rendezvous.refused('rate-limited');
      rejectUpgrade(socket, 429, 'Too Many Requests');
      return;
    }
    let url;
    try {
      url = new URL(request.url, 'http://rendezvous.invalid');
    } catch {
      rejectUpgrade(socket, 400, 'Bad Request');
      return;
    }
    const verdict = await this.rendezvous.admit(url);
    if (Array.isArray(verdict)) rejectUpgrade(socket, verdict[0], verdict[1]);
    else accept(request, socket, head, verdict);
  }
}

// A refusal before the WebSocket handshake: a plain HTTP answer, then close.
function rejectUpgrade(socket, status, reason) {
  const body = `${reason}\n`;
  socket.end(`HTTP/1.1 ${status} ${reason}\r\nConnection: close\r\nContent-Type: text/plain\r\n` +
    `Content-Length: ${Buffer.byteLength(body)}\r\n\r\n${body}`);
}

module.exports = { Web, securityHeaders, clientAddress, resolveStatic };
