'use strict';
// The files the development server hands to browsers: the phone web app
// (phone/ at the repository's top) at "/", the libraries it loads from its
// node_modules at "/vendor/", and the development test page at "/phone/".

const fs = require('node:fs');
const path = require('node:path');

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

// URL prefix -> folder; the longest prefix that matches wins.
const MOUNTS = [
  ['/phone/', path.join(__dirname, 'phone')],
  ['/vendor/jsqr/', path.join(ROOT, 'phone', 'node_modules', 'jsqr', 'dist')],
  ['/vendor/xterm/', path.join(ROOT, 'phone', 'node_modules', '@xterm', 'xterm')],
  ['/vendor/hash-wasm/', path.join(ROOT, 'phone', 'node_modules', 'hash-wasm', 'dist')],
  ['/', path.join(ROOT, 'phone', 'app')],
];

function resolve(pathname) {
  if (pathname === '/phone') pathname = '/phone/';
  for (const [prefix, folder] of MOUNTS) {
    if (!pathname.startsWith(prefix)) continue;
    let relative = decodeURIComponent(pathname.slice(prefix.length));
    if (relative === '' || relative.endsWith('/')) relative += 'index.html';
    const file = path.resolve(folder, relative);
    // Nothing outside the mounted folder, whatever the dots say.
    if (!file.startsWith(folder + path.sep)) return null;
    return file;
  }
  return null;
}

// Answers a GET for a static file; false when the path is not one.
function serve(pathname, response) {
  let file;
  try {
    file = resolve(pathname);
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

module.exports = { serve, resolve };
