// The phone web app: the list of paired computers, pairing from a QR code or
// link, and the session screen (picture, fingers, keyboard, elements).

import { t, translate } from './i18n.js';
import { Gestures } from './gestures.js';
import { Keyboard } from './keyboard.js';
import { pair, parseLink, reachableSignalUrl, Session } from './protocol.js';
import { startScanner } from './scanner.js';
import { computers, settings } from './store.js';
import { Viewport } from './viewport.js';

const $ = (id) => document.getElementById(id);
const app = {
  computer: null,
  session: null,
  scanner: null,
  retry: { timer: 0, delay: 0 },
  scene: null,
  monitors: null,
};

// ---- small pieces of UI ---------------------------------------------------

function show(screen) {
  document.body.dataset.screen = screen;
  if (screen !== 'scan' && app.scanner) {
    app.scanner.stop();
    app.scanner = null;
  }
}

let toastTimer = 0;
function toast(text) {
  const el = $('toast');
  el.textContent = text;
  el.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { el.hidden = true; }, 2600);
}

// A message with the ways forward: [{ label, action, primary, danger }].
function notice(text, actions = [], code = '') {
  $('notice-text').textContent = text;
  $('notice').dataset.code = code;
  const box = $('notice-actions');
  box.replaceChildren(...actions.map(({ label, action, primary, danger }) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = label;
    if (primary) button.className = 'primary';
    if (danger) button.className = 'danger';
    button.onclick = () => {
      hideNotice();
      action();
    };
    return button;
  }));
  $('notice').hidden = false;
}

function hideNotice() {
  $('notice').hidden = true;
  $('notice').dataset.code = '';
}

// What a failure's code means, in words; {host} is the server the phone uses.
function failureText(code, signalUrl) {
  const key = `fail-${code}`;
  if (t(key) === key) return `${t('fail-refused')} (${code})`;
  let host = '';
  try {
    host = reachableSignalUrl(signalUrl).host;
  } catch {
    // A link without a usable address: no host to name.
  }
  return t(key, { host });
}

function relativeTime(ms) {
  const minutes = Math.round((Date.now() - ms) / 60000);
  const format = new Intl.RelativeTimeFormat(document.documentElement.lang, { numeric: 'auto' });
  if (minutes < 60) return format.format(-minutes, 'minute');
  if (minutes < 60 * 48) return format.format(-Math.round(minutes / 60), 'hour');
  return format.format(-Math.round(minutes / 1440), 'day');
}

// ---- home: the paired computers --------------------------------------------

async function renderHome() {
  const list = await computers.list();
  $('empty').hidden = list.length > 0;
  $('computers').replaceChildren(...list.map((computer) => {
    const li = document.createElement('li');
    li.dataset.agentId = computer.agentId;
    const name = document.createElement('span');
    name.className = 'name';
    name.textContent = computer.name;
    const meta = document.createElement('span');
    meta.className = 'meta';
    meta.textContent = computer.lastUsed
      ? t('lastUsed', { when: relativeTime(computer.lastUsed) }) : t('never');
    const connect = document.createElement('button');
    connect.type = 'button';
    connect.className = 'primary connect';
    connect.textContent = t('connect');
    connect.onclick = () => openSession(computer);
    const more = document.createElement('div');
    more.className = 'more';
    const rename = document.createElement('button');
    rename.type = 'button';
    rename.textContent = t('rename');
    rename.onclick = async () => {
      const value = prompt(t('renamePrompt'), computer.name);
      if (value && value.trim()) {
        await computers.put({ ...computer, name: value.trim().slice(0, 60) });
        renderHome();
      }
    };
    const forget = document.createElement('button');
    forget.type = 'button';
    forget.className = 'danger forget';
    forget.textContent = t('forget');
    forget.onclick = async () => {
      if (!confirm(t('forgetConfirm', { name: computer.name }))) return;
      await forgetComputer(computer);
    };
    more.append(connect, rename, forget);
    li.append(name, meta, more);
    return li;
  }));
}

async function forgetComputer(computer) {
  await computers.remove(computer.agentId);
  if (app.computer && app.computer.agentId === computer.agentId) closeSession();
  show('home');
  renderHome();
}

// ---- pairing -----------------------------------------------------------------

async function openScanner() {
  show('scan');
  $('scan-hint').textContent = t('scanHint');
  try {
    app.scanner = await startScanner($('camera'), (text) => {
      const payload = parseLink(text);
      if (payload) pairWith(payload);
    });
  } catch {
    $('scan-hint').textContent = t('noCamera');
  }
}

async function pairWith(payload) {
  // Where a failure's notice goes back to when closed.
  const from = document.body.dataset.screen;
  if (app.scanner) {
    app.scanner.stop();
    app.scanner = null;
  }
  notice(t('pairing'));
  let result;
  try {
    result = await pair(payload);
  } catch (error) {
    const code = error.code || 'refused';
    const back = from === 'scan' ? openScanner : () => { show('home'); renderHome(); };
    notice(failureText(code, payload.signalUrl),
      [{ label: t('pairAgain'), action: openScanner, primary: true },
        { label: t('close'), action: back }], code);
    return;
  }
  const existing = await computers.get(payload.agentId);
  const name = payload.name || payload.hostName || existing?.name ||
    t('computerName', { id: payload.agentId.slice(6, 12) });
  const computer = {
    agentId: payload.agentId,
    name,
    agentPublicKey: payload.agentPublicKey,
    signalUrl: payload.signalUrl,
    dtlsFingerprint: payload.dtlsFingerprint,
    platform: payload.platform || '',
    permissions: result.grant.permissions || [],
    device: result.device,
    pairedAt: Date.now(),
    lastUsed: 0,
  };
  await computers.put(computer);
  hideNotice();
  toast(t('paired', { name }));
  openSession(computer);
}

// ---- the session ---------------------------------------------------------------

let viewport;
let gestures;
let keyboard;

function setState(state) {
  document.body.dataset.state = state;
  $('session-state').textContent = t(`state-${state}`);
  $('waiting-text').textContent = t(`state-${state}`);
}

async function openSession(computer, { replaceSession = false } = {}) {
  closeSession();
  app.computer = computer;
  $('session-name').textContent = computer.name;
  $('monitors').hidden = true;
  app.scene = null;
  renderElements();
  show('session');
  computer.lastUsed = Date.now();
  computers.put(computer).catch(() => {});
  settings.set('lastComputer', computer.agentId).catch(() => {});
  const session = new Session(computer, {
    relay: new URLSearchParams(location.search).get('relay') === '1',
  });
  app.session = session;
  session.addEventListener('state', ({ detail }) => {
    if (session === app.session) setState(detail.state);
    if (detail.state === 'connected') {
      clearTimeout(app.retry.timer);
      app.retry.delay = 0;
      hideNotice();
    }
  });
  session.addEventListener('video', ({ detail }) => {
    $('screen').srcObject = detail.stream;
  });
  document.body.dataset.video = 'no';
  $('screen').onplaying = () => { document.body.dataset.video = 'yes'; };
  session.addEventListener('hello', ({ detail }) => {
    const granted = detail.ok.permissions || [];
    if (!granted.includes('control')) toast(t('fail-permission'));
    if (!$('elements').hidden) requestScene();
  });
  session.addEventListener('message', ({ detail }) => onMessage(detail.message));
  session.addEventListener('failure', ({ detail }) => onFailure(detail.code));
  session.addEventListener('lost', () => scheduleReconnect(1000));
  await session.connect({ replaceSession });
}

function closeSession() {
  clearTimeout(app.retry.timer);
  if (gestures) gestures.cancel();
  if (app.session) app.session.close();
  app.session = null;
  app.computer = null;
  $('screen').srcObject = null;
  hideNotice();
}

function reconnect(options) {
  if (!app.session) return;
  clearTimeout(app.retry.timer);
  app.session.connect(options);
}

// Again and again, more slowly each time, until it works or the user leaves.
function scheduleReconnect(first = 2000) {
  clearTimeout(app.retry.timer);
  app.retry.delay = app.retry.delay ? Math.min(15000, app.retry.delay * 1.6) : first;
  app.retry.timer = setTimeout(() => {
    if (navigator.onLine === false) {
      setState('offline');
      scheduleReconnect();
      return;
    }
    reconnect();
  }, app.retry.delay);
}

function onFailure(code) {
  const computer = app.computer;
  const home = { label: t('back'), action: () => { closeSession(); show('home'); renderHome(); } };
  const retry = { label: t('retry'), action: () => reconnect(), primary: true };
  const forget = { label: t('forget'), action: () => forgetComputer(computer), danger: true };
  const pairAgain = { label: t('pairAgain'), primary: true,
    action: () => { closeSession(); openScanner(); } };
  const text = failureText(code, computer.signalUrl);
  setState('closed');
  switch (code) {
    case 'server-unreachable':
      notice(text, [pairAgain, { ...retry, primary: false }, home], code);
      scheduleReconnect();
      break;
    case 'offline':
    case 'agent-offline':
      notice(text, [retry, home], code);
      scheduleReconnect();
      break;
    case 'another-session':
    case 'taken-over':
      notice(text, [{ label: t('takeOver'), primary: true,
        action: () => reconnectTakingOver() }, home], code);
      break;
    case 'not-paired':
    case 'device-revoked':
      app.session?.close();
      notice(text, [pairAgain, forget, home], code);
      break;
    case 'fingerprint':
      notice(text, [forget, home], code);
      break;
    default:
      notice(text, [retry, home], code);
  }
}

// A hello with replaceSession: this phone takes the control over.
function reconnectTakingOver() {
  const session = app.session;
  if (!session) return;
  if (session.channels.control && session.channels.control.readyState === 'open') {
    session.replaceSession = true;
    session.hello(true).catch(() => reconnect({ replaceSession: true }));
  } else {
    reconnect({ replaceSession: true });
  }
}

function onMessage(message) {
  if (message.type === 'control.monitor.list') {
    renderMonitors(message);
  } else if (message.type === 'scene.snapshot') {
    clearTimeout(app.sceneTimer);
    if (message.source === 'none' && app.sceneRetry) {
      app.sceneRetry = false;
      app.sceneTimer = setTimeout(() => requestScene(false), 700);
      return;
    }
    app.scene = message;
    renderElements();
  } else if (message.type === 'control.error' && app.session?.established) {
    const text = String(message.message || '');
    if (/^denied\(/.test(text)) {
      toast(t('fail-permission'));
    } else if (/staleElement/.test(text)) {
      // The window changed since the list was made: a fresh one.
      toast(t('staleElement'));
      app.scene = null;
      renderElements();
      requestScene();
    } else if (!/noActiveSession/.test(text)) {
      toast(t('notDone'));
    }
  }
}

function renderMonitors(message) {
  const box = $('monitors');
  const list = Array.isArray(message.monitors) ? message.monitors : [];
  const previous = app.monitors?.selected;
  app.monitors = message;
  box.replaceChildren(...list.map((m) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.dataset.index = m.index;
    button.textContent = String(m.index + 1);
    button.setAttribute('role', 'radio');
    button.setAttribute('aria-checked', String(m.index === message.selected));
    const size = m.rect ? ` (${m.rect.w}×${m.rect.h})` : '';
    button.title = t('monitor', { n: m.index + 1 }) + size;
    button.setAttribute('aria-label', button.title);
    button.onclick = () => {
      if (m.index === app.monitors.selected) return;
      app.session?.send('control', { type: 'control.monitor.select', index: m.index });
    };
    return button;
  }));
  box.hidden = list.length < 2;
  // After a switch the elements are those of the other screen.
  if (previous !== undefined && previous !== message.selected) {
    app.scene = null;
    renderElements();
    requestScene();
  }
}

// ---- elements ---------------------------------------------------------------

// Asks for the focused window's elements. A scan that found no window (focus
// moving at that moment) or an answer that does not come is tried once more.
function requestScene(again = true) {
  clearTimeout(app.sceneTimer);
  app.sceneRetry = again;
  if (!app.session?.send('scene', { type: 'scene.request_snapshot' })) return;
  app.sceneTimer = setTimeout(() => {
    if (!app.scene && app.sceneRetry) requestScene(false);
  }, 3000);
}

function renderElements() {
  const list = $('element-list');
  const query = $('element-search').value.trim().toLowerCase();
  if (!app.scene) {
    const li = document.createElement('li');
    li.className = 'none';
    li.textContent = t('loading');
    list.replaceChildren(li);
    return;
  }
  const elements = (app.scene.elements || []).filter((e) => {
    const text = `${e.text || ''} ${e.role || ''}`.toLowerCase();
    return !query || text.includes(query);
  });
  if (elements.length === 0) {
    const li = document.createElement('li');
    li.className = 'none';
    li.textContent = t('noElements');
    list.replaceChildren(li);
    return;
  }
  const sequence = app.scene.seq;
  list.replaceChildren(...elements.map((element) => {
    const li = document.createElement('li');
    const button = document.createElement('button');
    button.type = 'button';
    const role = document.createElement('span');
    role.className = 'role';
    role.textContent = element.role || '?';
    const label = document.createElement('span');
    label.className = 'label';
    label.textContent = element.text || t('unnamed');
    button.append(role, label);
    button.onclick = () => {
      app.session?.send('input', { type: 'input.invoke', elementId: element.id,
        sceneSeq: sequence });
      toast(t('invoked', { name: element.text || element.role }));
    };
    li.append(button);
    return li;
  }));
}

function toggleElements(open = $('elements').hidden) {
  $('elements').hidden = !open;
  $('open-elements').setAttribute('aria-pressed', String(open));
  if (open) {
    app.scene = null;
    renderElements();
    requestScene();
  }
}

// ---- wiring ---------------------------------------------------------------------

function setMode(mode) {
  gestures.setMode(mode);
  for (const button of document.querySelectorAll('[data-mode]')) {
    button.setAttribute('aria-checked', String(button.dataset.mode === mode));
  }
  settings.set('mode', mode).catch(() => {});
}

function drawPointer() {
  const cursor = $('cursor');
  const show = gestures && gestures.mode === 'trackpad' && gestures.pointer && viewport.videoWidth;
  cursor.hidden = !show;
  if (!show) return;
  // Another monitor may be smaller than the last.
  gestures.pointer.x = Math.min(gestures.pointer.x, viewport.videoWidth - 1);
  gestures.pointer.y = Math.min(gestures.pointer.y, viewport.videoHeight - 1);
  const p = viewport.toStage(gestures.pointer.x, gestures.pointer.y);
  cursor.style.transform = `translate(${p.x}px, ${p.y}px)`;
}

function wire() {
  translate();
  viewport = new Viewport($('stage'), $('screen'), () => {
    $('fit').hidden = viewport.zoom === 1;
    drawPointer();
  });
  $('fit').onclick = () => viewport.reset();
  // The button is on the stage: its touches are not gestures.
  $('fit').addEventListener('pointerdown', (event) => event.stopPropagation());
  const sendInput = (message) => app.session?.send('input', message);
  gestures = new Gestures($('stage'), viewport, sendInput, drawPointer);
  keyboard = new Keyboard($('typing'), $('keyboard'), sendInput);

  $('add').onclick = openScanner;
  for (const el of document.querySelectorAll('[data-action=home]')) {
    el.onclick = () => { show('home'); renderHome(); };
  }
  document.querySelector('[data-action=disconnect]').onclick = () => {
    closeSession();
    show('home');
    renderHome();
  };
  $('paste').onsubmit = (event) => {
    event.preventDefault();
    const payload = parseLink($('link').value);
    if (!payload) {
      toast(t('badLink'));
      return;
    }
    $('link').value = '';
    pairWith(payload);
  };
  for (const button of document.querySelectorAll('[data-mode]')) {
    button.onclick = () => setMode(button.dataset.mode);
  }
  $('open-keyboard').onclick = () => {
    const open = $('keyboard').hidden;
    keyboard.show(open);
    $('open-keyboard').setAttribute('aria-pressed', String(open));
  };
  $('open-elements').onclick = () => toggleElements();
  $('close-elements').onclick = () => toggleElements(false);
  $('refresh-elements').onclick = () => {
    app.scene = null;
    renderElements();
    requestScene();
  };
  $('element-search').oninput = renderElements;

  // Where the phone's keyboard covers the page without resizing it (iOS),
  // the key bar moves up above it.
  const viewportChanged = () => {
    const v = window.visualViewport;
    const covered = Math.max(0, window.innerHeight - v.height - v.offsetTop);
    document.documentElement.style.setProperty('--keyboard-inset', `${covered}px`);
  };
  window.visualViewport?.addEventListener('resize', viewportChanged);
  window.visualViewport?.addEventListener('scroll', viewportChanged);

  // A network change: the connection is restarted on the new path.
  const networkChanged = () => {
    $('offline').hidden = navigator.onLine !== false;
    if (app.session && navigator.onLine !== false && app.session.state !== 'connected') {
      app.retry.delay = 0;
      reconnect();
    }
  };
  window.addEventListener('online', networkChanged);
  window.addEventListener('offline', () => {
    $('offline').hidden = false;
    if (app.session) setState('offline');
  });
  navigator.connection?.addEventListener?.('change', () => {
    if (app.session?.established) reconnect();
  });
  document.addEventListener('visibilitychange', () => {
    if (document.visibilityState === 'visible') networkChanged();
  });
}

async function start() {
  wire();
  $('offline').hidden = navigator.onLine !== false;
  if (!window.isSecureContext || !crypto.subtle) {
    notice(t('fail-no-webcrypto'));
    return;
  }
  if ('serviceWorker' in navigator) {
    navigator.serviceWorker.register('sw.js').catch(() => {});
  }
  setMode((await settings.get('mode').catch(() => null)) || 'direct');
  const params = new URLSearchParams(location.search);
  // A QR code's "#zul://pair?payload=…" (or "?link=…") pairs at once.
  const linkText = location.hash.startsWith('#zul://') ? location.hash.slice(1) : params.get('link');
  if (linkText) {
    history.replaceState(null, '', location.pathname);
    const payload = parseLink(linkText);
    if (payload) {
      pairWith(payload);
      document.body.dataset.ready = '1';
      return;
    }
    toast(t('badLink'));
  }
  await renderHome();
  show('home');
  document.body.dataset.ready = '1';
}

// For the browser console and the tests.
window.zulApp = {
  get state() { return app.session?.state || 'closed'; },
  pointer: () => gestures?.pointer && { ...gestures.pointer },
  video: () => ({ width: viewport.videoWidth, height: viewport.videoHeight }),
  zoom: () => viewport.zoom,
  deviceId: () => app.computer?.device.id,
};

start();
