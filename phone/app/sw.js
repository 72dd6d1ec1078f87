// The offline shell: the app's own files are kept, fetched from the network
// first (so a new version shows at once) and from the cache when offline.
// The rendezvous and agent traffic is never touched.

const CACHE = 'zul-shell-8';
// What another app shared (the manifest's share target posts it here): its
// files wait in this cache for the app, which sends them to the computer.
const SHARED = 'zul-shared';
const SHELL = ['./', 'index.html', 'style.css', 'manifest.webmanifest', 'icon.svg',
  'js/main.js', 'js/protocol.js', 'js/store.js', 'js/i18n.js', 'js/gestures.js',
  'js/keyboard.js', 'js/viewport.js', 'js/scanner.js', 'js/clipboard.js', 'js/files.js',
  'js/terminal.js', 'js/ui.js', 'js/clipboard-sheet.js', 'js/files-sheet.js',
  'js/terminal-sheet.js', 'vendor/jsqr/jsQR.js', 'vendor/xterm/lib/xterm.mjs',
  'vendor/xterm/css/xterm.css', 'vendor/xterm-webgl/addon-webgl.mjs', 'js/download-worker.js',
  'vendor/hash-wasm/sha256.umd.min.js'];

self.addEventListener('install', (event) => {
  event.waitUntil(caches.open(CACHE).then((cache) => cache.addAll(SHELL))
    .then(() => self.skipWaiting()));
});

self.addEventListener('activate', (event) => {
  event.waitUntil(caches.keys()
    .then((keys) => Promise.all(keys.filter((k) => k !== CACHE && k !== SHARED)
      .map((k) => caches.delete(k))))
    .then(() => self.clients.claim()));
});

async function takeShared(request) {
  const form = await request.formData();
  const files = form.getAll('share-files').filter((f) => typeof f !== 'string' && f.size > 0);
  const cache = await caches.open(SHARED);
  const stamp = Date.now();
  await Promise.all(files.map((file, i) => cache.put(`shared/${stamp}-${i}`, new Response(file, {
    headers: { 'content-type': file.type || 'application/octet-stream',
      'x-name': encodeURIComponent(file.name || `shared-${i + 1}`) },
  }))));
  const params = new URLSearchParams();
  for (const key of ['share-title', 'share-text', 'share-url']) {
    const value = form.get(key);
    if (typeof value === 'string' && value) params.set(key, value);
  }
  if (files.length) params.set('share-files', String(files.length));
  return Response.redirect(new URL(`./?${params}`, self.registration.scope).href, 303);
}

self.addEventListener('fetch', (event) => {
  const url = new URL(event.request.url);
  if (event.request.method === 'POST' && url.origin === location.origin &&
      url.pathname === new URL('share', self.registration.scope).pathname) {
    event.respondWith(takeShared(event.request).catch(() =>
      Response.redirect(self.registration.scope, 303)));
    return;
  }
  if (event.request.method !== 'GET' || url.origin !== location.origin ||
      /^\/(v1|healthz|phone)(\/|$)/.test(url.pathname)) {
    return;
  }
  event.respondWith(fetch(event.request).then((response) => {
    if (response.ok) {
      const copy = response.clone();
      caches.open(CACHE).then((cache) => cache.put(event.request, copy));
    }
    return response;
  }).catch(() => caches.match(event.request, { ignoreSearch: true })
    .then((hit) => hit || (event.request.mode === 'navigate' ? caches.match('index.html') : hit))
    .then((hit) => hit || Response.error())));
});
