// The offline shell: the app's own files are kept, fetched from the network
// first (so a new version shows at once) and from the cache when offline.
// The rendezvous and agent traffic is never touched.

const CACHE = 'zul-shell-4';
const SHELL = ['./', 'index.html', 'style.css', 'manifest.webmanifest', 'icon.svg',
  'js/main.js', 'js/protocol.js', 'js/store.js', 'js/i18n.js', 'js/gestures.js',
  'js/keyboard.js', 'js/viewport.js', 'js/scanner.js', 'js/clipboard.js', 'js/files.js',
  'js/terminal.js', 'vendor/jsqr/jsQR.js', 'vendor/xterm/lib/xterm.mjs',
  'vendor/xterm/css/xterm.css', 'vendor/hash-wasm/sha256.umd.min.js'];

self.addEventListener('install', (event) => {
  event.waitUntil(caches.open(CACHE).then((cache) => cache.addAll(SHELL))
    .then(() => self.skipWaiting()));
});

self.addEventListener('activate', (event) => {
  event.waitUntil(caches.keys()
    .then((keys) => Promise.all(keys.filter((k) => k !== CACHE).map((k) => caches.delete(k))))
    .then(() => self.clients.claim()));
});

self.addEventListener('fetch', (event) => {
  const url = new URL(event.request.url);
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
