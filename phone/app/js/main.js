// The phone web app: the list of paired computers, pairing from a QR code or
// link, and the session screen (picture, fingers, keyboard, elements); the
// clipboard, files and terminal sheets live in their own modules, wired here.

import { t, translate } from './i18n.js';
import { RemoteClipboard } from './clipboard.js';
import { RemoteFiles } from './files.js';
import { Gestures } from './gestures.js';
import { Keyboard } from './keyboard.js';
import { errorReason, pair, parseLink, reachableSignalUrl, Session } from './protocol.js';
import { startScanner } from './scanner.js';
import { computers, settings } from './store.js';
import { Terminals } from './terminal.js';
import { Viewport } from './viewport.js';
import { $, app, toast } from './ui.js';
import { clipboardChanged, clipStatus, copyFetched, pickImage, renderClipboardTypes, sendClipboard,
  unpickImage } from './clipboard-sheet.js';
import { filesReady, filesReason, filesStatus, openFolder, renderListing, renderTransfer, saveBlob,
  uploadPicked } from './files-sheet.js';
import { copyTerminal, pasteTerminal, renderShellPaths, renderTabs, terminalShown } from './terminal-sheet.js';

// ---- small pieces of UI ---------------------------------------------------

function show(screen) {
  document.body.dataset.screen = screen;
  if (screen !== 'scan' && app.scanner) {
    app.scanner.stop();
    app.scanner = null;
  }
}

// A message with the ways forward: [{ label, action, primary, danger }],
// and an element of its own (`extra`) above them.
function notice(text, actions = [], code = '', extra = null) {
  $('notice-text').textContent = text;
  $('notice-extra').replaceChildren(...(extra ? [extra] : []));
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
      await forgetComputer(computer, { tell: true });
    };
    more.append(connect, rename, forget);
    li.append(name, meta, more);
    return li;
  }));
}

// With `tell`, the computer is asked to forget this phone too.
async function forgetComputer(computer, { tell = false } = {}) {
  let told = false;
  if (tell) {
    notice(t('forgetting'));
    told = await tellComputerToForget(computer).catch(() => false);
    hideNotice();
  }
  await computers.remove(computer.agentId);
  if (app.computer && app.computer.agentId === computer.agentId) closeSession();
  show('home');
  renderHome();
  if (tell) toast(t(told ? 'forgotBoth' : 'forgotHere'));
}

// Through the session in progress, else a quick one; false when the
// computer could not be told (offline, another phone in control).
async function tellComputerToForget(computer) {
  if (app.session?.established && app.computer?.agentId === computer.agentId) {
    return app.session.forget();
  }
  const session = new Session(computer);
  const inSession = await new Promise((resolve) => {
    const timer = setTimeout(() => resolve(false), 8000);
    const end = (value) => {
      clearTimeout(timer);
      resolve(value);
    };
    session.addEventListener('hello', () => end(true));
    session.addEventListener('failure', () => end(false));
    session.connect();
  });
  if (inSession) return session.forget();
  session.close();
  return false;
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

// The code the computer's own windows show for it.
const computerCode = (agentId) => `VELTO-PC-${agentId.slice(-8).toUpperCase()}`;
const computerName = (payload) => payload.name || payload.hostName || computerCode(payload.agentId);

// A link opened from outside (the phone's camera read the QR code) asks
// first, with the choice the scan screen offers: the clipboard too or not.
function askToPair(payload) {
  const choice = document.createElement('div');
  const boxes = ['pair-clipboard', 'pair-files'].map((id) => {
    const label = $(id).closest('label').cloneNode(true);
    const box = label.querySelector('input');
    box.removeAttribute('id');
    box.checked = $(id).checked;
    choice.append(label);
    return box;
  });
  notice(t('pairAsk', { name: computerName(payload) }), [
    { label: t('pairButton'), primary: true,
      action: () => pairWith(payload, boxes[0].checked, boxes[1].checked) },
    { label: t('cancel'), action: () => { show('home'); renderHome(); } },
  ], 'pair-ask', choice);
}

async function pairWith(payload, clipboard = $('pair-clipboard').checked,
  files = $('pair-files').checked) {
  // Where a failure's notice goes back to when closed.
  const from = document.body.dataset.screen;
  if (app.scanner) {
    app.scanner.stop();
    app.scanner = null;
  }
  notice(t('pairing'));
  // Paired before: the same device key, so that the computer replaces its
  // record of this phone rather than adding another.
  const existing = await computers.get(payload.agentId);
  let result;
  try {
    result = await pair(payload, { device: existing?.device,
      permissions: ['view', 'control', ...(clipboard ? ['clipboard'] : []),
        ...(files ? ['files'] : [])] });
  } catch (error) {
    const code = error.code || 'refused';
    const back = from === 'scan' ? openScanner : () => { show('home'); renderHome(); };
    notice(failureText(code, payload.signalUrl),
      [{ label: t('pairAgain'), action: openScanner, primary: true },
        { label: t('close'), action: back }], code);
    return;
  }
  const name = payload.name || payload.hostName || existing?.name || computerCode(payload.agentId);
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
  $('desktop-lost').hidden = true;
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
  const clipboard = new RemoteClipboard(session);
  app.clipboard = clipboard;
  clipboard.addEventListener('changed', () => clipboardChanged(clipboard));
  const files = new RemoteFiles(session);
  app.files = files;
  app.folder = '';
  files.addEventListener('listing', ({ detail }) => renderListing(detail));
  files.addEventListener('transfer', ({ detail }) => renderTransfer(detail.transfer));
  files.addEventListener('failed', ({ detail }) => filesStatus(t('tr-failed',
    { why: filesReason(detail.reason) })));
  files.addEventListener('saved', ({ detail }) => saveBlob(detail.name, detail.blob, detail.release));
  session.addEventListener('open', ({ detail }) => {
    if (detail.channel === 'files') filesReady(session, files);
  });
  session.addEventListener('binary', ({ detail }) => {
    if (detail.channel === 'files') files.take(detail.data);
  });
  $('transfers').replaceChildren();
  const terminals = new Terminals(session, $('term-host'));
  app.terminals = terminals;
  terminals.addEventListener('changed', renderTabs);
  terminals.addEventListener('error', ({ detail }) => {
    $('term-status').textContent = t('shell-error', { reason: detail.reason || detail.message });
  });
  session.addEventListener('state', ({ detail }) => {
    if (session === app.session) setState(detail.state);
    if (detail.state === 'connected') {
      stopRetrying();
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
    // A new connection starts with the desktop there.
    $('desktop-lost').hidden = !session.desktopLost;
    const withClipboard = granted.includes('clipboard') && detail.ok.host?.clipboardCopy === true;
    $('open-clipboard').hidden = !withClipboard;
    if (!withClipboard) hidePanel('clipboard');
    const withFiles = granted.includes('files');
    $('open-files').hidden = !withFiles;
    if (withFiles) {
      filesReady(session, files);
    } else {
      hidePanel('files');
    }
    const withShell = granted.includes('shell') && granted.includes('control') &&
      detail.ok.host?.shellKeyCombos === true;
    app.shellPaths = withShell && Array.isArray(detail.ok.host?.shells) ? detail.ok.host.shells : [];
    $('open-terminal').hidden = !withShell;
    $('terminal-hint').hidden = withShell;
    if (!withShell) hidePanel('terminal');
    renderShellPaths();
    if (app.shared) {
      if (withClipboard) {
        $('clip-out').value = app.shared;
        showPanel('clipboard');
      } else {
        toast(t('clip-denied'));
      }
      app.shared = null;
    }
    if (app.sharedFiles) {
      if (withFiles) {
        showPanel('files');
        for (const file of app.sharedFiles) {
          files.upload(file, '').catch(() => filesStatus(t('tr-failed',
            { why: filesReason('unavailable') })));
        }
      } else {
        toast(t('files-denied'));
      }
      app.sharedFiles = null;
    }
  });
  session.addEventListener('notice', ({ detail }) => onNotice(detail.reason));
  session.addEventListener('message', ({ detail }) => onMessage(detail.message));
  session.addEventListener('failure', ({ detail }) => onFailure(detail.code));
  session.addEventListener('lost', () => scheduleReconnect(1000));
  await session.connect({ replaceSession });
}

function closeSession() {
  stopRetrying();
  if (gestures) gestures.cancel();
  if (app.session) app.session.close();
  app.clipboard?.cancel();
  app.clipboard = null;
  app.files?.stop();
  app.files = null;
  app.terminals?.dispose();
  app.terminals = null;
  app.session = null;
  app.computer = null;
  $('screen').srcObject = null;
  $('open-clipboard').hidden = true;
  $('open-files').hidden = true;
  $('open-terminal').hidden = true;
  showPanel(null);
  hideNotice();
}

function reconnect(options) {
  if (!app.session) return;
  stopRetrying();
  app.session.connect(options);
}

function stopRetrying() {
  clearTimeout(app.retry.timer);
  app.retry.timer = 0;
}

// Again and again, more slowly each time, until it works or the user leaves.
function scheduleReconnect(first = 2000) {
  stopRetrying();
  app.retry.delay = app.retry.delay ? Math.min(15000, app.retry.delay * 1.6) : first;
  app.retry.timer = setTimeout(() => {
    app.retry.timer = 0;
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

// The agent's notices. The session ended at the computer (or its screen
// locked, or Velto was paused there): no retry until the person connects
// again. The computer's screen went away and came back.
const ENDING_NOTICES = {
  sessionEnded: 'session-ended',
  computerLocked: 'computer-locked',
  agentPaused: 'computer-paused',
};
function onNotice(reason) {
  if (ENDING_NOTICES[reason]) {
    stopRetrying();
    app.clipboard?.cancel();
    const computer = app.computer;
    setState('closed');
    const code = ENDING_NOTICES[reason];
    notice(t(`fail-${code}`), [
      { label: t('connect'), primary: true, action: () => openSession(computer) },
      { label: t('back'), action: () => { closeSession(); show('home'); renderHome(); } },
    ], code);
  } else if (reason === 'desktopLost' || reason === 'desktopBack') {
    $('desktop-lost').hidden = reason === 'desktopBack';
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
  if (app.clipboard?.take(message)) return;
  if (app.terminals?.take(message)) return;
  if (message.type === 'control.monitor.list') {
    renderMonitors(message);
  } else if (message.type === 'scene.snapshot') {
    clearTimeout(app.sceneTimer);
    if (message.source === 'none' && app.sceneTries > 0 && !$('elements').hidden) {
      app.sceneTimer = setTimeout(() => requestScene(app.sceneTries - 1), 1000);
      return;
    }
    app.scene = message;
    renderElements();
  } else if (message.type === 'control.error' && app.session?.established) {
    const reason = errorReason(message);
    if (reason === 'denied') {
      toast(t(message.permission === 'clipboard' ? 'clip-denied' : 'fail-permission'));
    } else if (reason === 'staleElement') {
      // The window changed since the list was made: a fresh one.
      toast(t('staleElement'));
      app.scene = null;
      renderElements();
      requestScene();
    } else if (reason !== 'noActiveSession') {
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
// moving at that moment, or a busy application not answering in time) or an
// answer that does not come is tried again a few times while the list is open.
function requestScene(tries = 5) {
  clearTimeout(app.sceneTimer);
  app.sceneTries = tries;
  if (!app.session?.send('scene', { type: 'scene.request_snapshot' })) return;
  app.sceneTimer = setTimeout(() => {
    if (!app.scene && tries > 0) requestScene(tries - 1);
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

// ---- the sheets over the screen ---------------------------------------------------

// What each sheet does as it opens; at most one is open at a time.
const PANELS = {
  elements: () => {
    app.scene = null;
    renderElements();
    requestScene();
  },
  clipboard: () => renderClipboardTypes(),
  files: () => openFolder(app.folder),
  terminal: () => terminalShown(),
};

// Opens the sheet `name` and closes the others (null closes them all).
function showPanel(name) {
  for (const panel of Object.keys(PANELS)) {
    $(panel).hidden = panel !== name;
    $(`open-${panel}`).setAttribute('aria-pressed', String(panel === name));
  }
  document.body.dataset.terminal = name === 'terminal' ? 'open' : '';
  if (name) PANELS[name]();
}

function hidePanel(name) {
  if (!$(name).hidden) showPanel(null);
}

const togglePanel = (name) => showPanel($(name).hidden ? name : null);

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
  $('open-elements').onclick = () => togglePanel('elements');
  $('close-elements').onclick = () => showPanel(null);
  $('refresh-elements').onclick = () => {
    app.scene = null;
    renderElements();
    requestScene();
  };
  $('element-search').oninput = renderElements;
  $('open-clipboard').onclick = () => togglePanel('clipboard');
  $('close-clipboard').onclick = () => showPanel(null);
  $('clip-copy').onclick = copyFetched;
  $('clip-send').onclick = sendClipboard;
  $('clip-file').onchange = () => pickImage($('clip-file').files[0])
    .catch(() => clipStatus(t('clip-unsupportedType')));
  $('clip-unpick').onclick = unpickImage;
  $('open-files').onclick = () => togglePanel('files');
  $('close-files').onclick = () => showPanel(null);
  $('files-refresh').onclick = () => openFolder(app.folder);
  $('files-hidden').onchange = () => openFolder(app.folder);
  $('upload-input').onchange = uploadPicked;
  $('open-terminal').onclick = () => togglePanel('terminal');
  $('close-terminal').onclick = () => showPanel(null);
  $('term-new').onclick = () => {
    if (!app.terminals?.open($('term-path').value)) $('term-status').textContent = t('shell-limit');
  };
  $('term-close-shell').onclick = () => app.terminals?.close();
  $('term-copy').onclick = copyTerminal;
  $('term-paste').onclick = pasteTerminal;
  for (const button of document.querySelectorAll('#term-keys [data-seq]')) {
    button.onclick = () => app.terminals?.key(button.dataset.seq);
  }
  for (const button of document.querySelectorAll('#term-keys [data-mod]')) {
    button.onclick = () => app.terminals?.toggle(button.dataset.mod);
  }
  // The key bar's taps leave the focus in the terminal.
  $('term-keys').addEventListener('pointerdown', (event) => event.preventDefault());
  $('pair-files').onchange = () => settings.set('pairFiles', $('pair-files').checked)
    .catch(() => {});
  $('clip-sync').onchange = () => settings.set('clipboardSync', $('clip-sync').checked)
    .catch(() => {});
  $('pair-clipboard').onchange = () => settings.set('pairClipboard',
    $('pair-clipboard').checked).catch(() => {});

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
  $('clip-sync').checked = (await settings.get('clipboardSync').catch(() => false)) === true;
  $('pair-clipboard').checked = (await settings.get('pairClipboard').catch(() => null)) !== false;
  $('pair-files').checked = (await settings.get('pairFiles').catch(() => null)) !== false;
  const params = new URLSearchParams(location.search);
  // A QR code's "#zul://pair?payload=…" (or "?link=…") asks to pair.
  const linkText = location.hash.startsWith('#zul://') ? location.hash.slice(1) : params.get('link');
  if (linkText) {
    history.replaceState(null, '', location.pathname);
    const payload = parseLink(linkText);
    if (payload) {
      askToPair(payload);
      document.body.dataset.ready = '1';
      return;
    }
    toast(t('badLink'));
  }
  // What another app shared (the manifest's share target) goes to the
  // computer used last: text to its clipboard sheet, files (kept by the
  // service worker) to its upload folder.
  const sharedText = params.get('share-text') || params.get('share-title') || '';
  const sharedUrl = params.get('share-url') || '';
  // A shared page's text usually holds its address already.
  const shared = sharedText.includes(sharedUrl) ? sharedText
    : [sharedText, sharedUrl].filter(Boolean).join('\n');
  const sharedFiles = params.has('share-files') ? await takeSharedFiles() : [];
  if (shared || sharedFiles.length) {
    history.replaceState(null, '', location.pathname);
    const last = await settings.get('lastComputer').catch(() => null);
    const computer = (last && await computers.get(last)) || (await computers.list())[0];
    if (computer) {
      app.shared = shared || null;
      app.sharedFiles = sharedFiles.length ? sharedFiles : null;
      openSession(computer);
      document.body.dataset.ready = '1';
      return;
    }
    toast(t('shareNoComputer'));
  }
  await renderHome();
  show('home');
  document.body.dataset.ready = '1';
}

// The files the service worker kept from a share, taken out of its cache.
async function takeSharedFiles() {
  try {
    const cache = await caches.open('zul-shared');
    const files = [];
    for (const request of await cache.keys()) {
      const response = await cache.match(request);
      const name = decodeURIComponent(response.headers.get('x-name') || 'shared');
      files.push(new File([await response.blob()], name,
        { type: response.headers.get('content-type') || '' }));
      await cache.delete(request);
    }
    return files;
  } catch {
    return [];
  }
}

// For the browser console and the tests.
window.zulApp = {
  get state() { return app.session?.state || 'closed'; },
  pointer: () => gestures?.pointer && { ...gestures.pointer },
  video: () => ({ width: viewport.videoWidth, height: viewport.videoHeight }),
  zoom: () => viewport.zoom,
  deviceId: () => app.computer?.device.id,
  retrying: () => app.retry.timer !== 0,
  // A control message as if the computer had sent it.
  receive: (message) => app.session?.onMessage('control', message),
  // The connection cut as a lost network cuts it (for the tests).
  dropConnection: () => {
    app.session?.pc?.close();
    app.session?.setState('reconnecting');
    app.session?.emit('lost', {});
  },
  // The way the connection took: the selected candidate pair's protocol and types.
  route: async () => {
    const stats = await app.session?.pc?.getStats();
    let route = null;
    stats?.forEach((s) => {
      if (s.type !== 'transport' || !s.selectedCandidatePairId) return;
      const pair = stats.get(s.selectedCandidatePairId);
      const [local, remote] = [stats.get(pair.localCandidateId), stats.get(pair.remoteCandidateId)];
      route = `${local.protocol} ${local.candidateType} -> ${remote.candidateType}`;
    });
    return route;
  },
  // What came in so far (for the benchmark): the picture's bytes (with their
  // headers), frames and key frames; all bytes of the connection; the files'.
  received: async () => {
    const stats = await app.session?.pc?.getStats();
    const got = { video: 0, frames: 0, keyFrames: 0, all: 0, files: 0 };
    stats?.forEach((s) => {
      if (s.type === 'inbound-rtp' && s.kind === 'video') {
        Object.assign(got, { video: s.bytesReceived + s.headerBytesReceived,
          frames: s.framesReceived, keyFrames: s.keyFramesDecoded });
      } else if (s.type === 'transport') {
        got.all += s.bytesReceived;
      } else if (s.type === 'data-channel' && s.label === 'files') {
        got.files = s.bytesReceived;
      }
    });
    return got;
  },
  // The xterm.js terminal shown (for the benchmark's timings).
  terminal: () => app.terminals?.current?.term,
  // The text of the terminal shown, line by line.
  terminalText: () => {
    const buffer = app.terminals?.current?.term.buffer.active;
    if (!buffer) return '';
    const lines = [];
    for (let i = 0; i < buffer.length; i += 1) lines.push(buffer.getLine(i)?.translateToString(true));
    return lines.join('\n');
  },
  transfers: () => [...(app.files?.transfers.values() || [])].map(
    ({ number, kind, name, folder, state, done, size, error, from, onDisk }) =>
      ({ number, kind, name, folder, state, done, size, error, from, onDisk })),
};

start();
