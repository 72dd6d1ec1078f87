// Shells on the computer, for a phone granted "shell" and "control": up to
// four, each an xterm.js terminal (from npm, served under /vendor/, drawn
// with WebGL where a GPU does it) fitted to the phone's width; typing goes
// as shell.input, the computer's output comes as shell.output (text, or
// base64url data where it is not UTF-8).
// After a reconnect the computer offers the shells it kept (shell.sessions)
// and replays their recent output on shell.attach.
// What xterm.js has drawn is acknowledged (shell.ack), so the computer sends
// no more than the terminal can draw in time.

import { b64url, unb64url } from './protocol.js';

export const MOST = 4;
const ACK_EVERY = 256 * 1024; // bytes of output drawn between two shell.ack
const encoder = new TextEncoder();

let loading;
function loadXterm() {
  if (!loading) {
    const css = document.createElement('link');
    css.rel = 'stylesheet';
    css.href = new URL('vendor/xterm/css/xterm.css', document.baseURI).href;
    document.head.append(css);
    const from = (file) => import(new URL(file, document.baseURI).href);
    loading = Promise.all([from('vendor/xterm/lib/xterm.mjs'),
      from('vendor/xterm-webgl/addon-webgl.mjs').catch(() => ({}))])
      .then(([{ Terminal }, { WebglAddon }]) => ({ Terminal, WebglAddon }));
  }
  return loading;
}

// Whether WebGL is drawn by a GPU: a software one (SwiftShader, llvmpipe)
// draws a terminal slower than the DOM does. Asked once.
let gpu;
function gpuWebgl() {
  if (gpu !== undefined) return gpu;
  gpu = false;
  const gl = document.createElement('canvas').getContext('webgl2');
  if (!gl) return false;
  const info = gl.getExtension('WEBGL_debug_renderer_info');
  const name = info ? String(gl.getParameter(info.UNMASKED_RENDERER_WEBGL)) : '';
  gl.getExtension('WEBGL_lose_context')?.loseContext();
  gpu = !/swiftshader|llvmpipe|softpipe|software/i.test(name);
  return gpu;
}

// Draws with WebGL where a GPU does it (a fraction of the DOM renderer's
// work per frame); xterm.js's own DOM renderer otherwise, and again when the
// GPU takes the context away. The element says which.
function drawFast(term, element, WebglAddon) {
  element.dataset.renderer = 'dom';
  if (!WebglAddon || !gpuWebgl()) return;
  try {
    const webgl = new WebglAddon();
    webgl.onContextLoss(() => {
      webgl.dispose();
      element.dataset.renderer = 'dom';
    });
    term.loadAddon(webgl);
    element.dataset.renderer = 'webgl';
  } catch {
    // The DOM renderer stays.
  }
}

// Events: changed {} – a shell came or went, or another one is shown;
//         error { reason, message }
export class Terminals extends EventTarget {
  constructor(session, host) {
    super();
    this.session = session;
    this.host = host; // the element the terminals live in
    this.shells = new Map(); // id -> { id, path, term, element }
    this.current = null;
    this.modifiers = { ctrl: false, alt: false };
    this.opening = false;
    this.observer = new ResizeObserver(() => this.fit());
    this.observer.observe(host);
  }

  emit(type, detail = {}) {
    this.dispatchEvent(new CustomEvent(type, { detail }));
  }

  send(message) {
    return this.session.send('control', message);
  }

  // The columns and rows that fit the element, from the font's cell.
  size(term) {
    const cell = term?._core?._renderService?.dimensions?.css?.cell;
    let width = cell?.width;
    let height = cell?.height;
    if (!width || !height) {
      const context = document.createElement('canvas').getContext('2d');
      context.font = '14px monospace';
      const metrics = context.measureText('W');
      width = metrics.width;
      height = Math.ceil((metrics.fontBoundingBoxAscent || 11) +
        (metrics.fontBoundingBoxDescent || 4));
    }
    const box = this.host.getBoundingClientRect();
    return { columns: Math.max(20, Math.floor((box.width - 8) / width)),
      rows: Math.max(5, Math.floor((box.height - 4) / height)) };
  }

  async open(path) {
    if (this.shells.size >= MOST || this.opening) return false;
    await loadXterm();
    this.opening = true;
    const { columns, rows } = this.size(this.current?.term);
    const message = { type: 'shell.open', columns, rows };
    if (path) message.path = path;
    if (!this.send(message)) this.opening = false;
    return true;
  }

  async add(id, path, columns = 80, rows = 24) {
    if (this.shells.has(id)) return this.shells.get(id);
    const { Terminal, WebglAddon } = await loadXterm();
    const element = document.createElement('div');
    element.className = 'term';
    element.dataset.shell = id;
    this.host.append(element);
    const term = new Terminal({ cols: columns, rows, fontSize: 14, scrollback: 2000,
      fontFamily: 'monospace', theme: { background: '#101418' } });
    term.open(element);
    drawFast(term, element, WebglAddon);
    term.onData((data) => this.input(id, data));
    const shell = { id, path, term, element, drawn: 0, acked: 0 };
    this.shells.set(id, shell);
    this.show(id);
    return shell;
  }

  // What was typed, with the key bar's sticky Ctrl and Alt on its first key.
  input(id, data) {
    let text = data;
    if (this.modifiers.ctrl && text.length === 1) {
      const code = text.toUpperCase().charCodeAt(0);
      if (code >= 0x40 && code <= 0x5f) text = String.fromCharCode(code & 0x1f);
      else if (text === ' ') text = '\0';
    }
    if (this.modifiers.alt) text = `\x1b${text}`;
    if (this.modifiers.ctrl || this.modifiers.alt) {
      this.modifiers = { ctrl: false, alt: false };
      this.emit('changed');
    }
    this.send({ type: 'shell.input', shell: id, data: b64url(encoder.encode(text)) });
  }

  // A key bar key into the shell shown.
  key(text) {
    if (this.current) this.input(this.current.id, text);
    this.current?.term.focus();
  }

  toggle(modifier) {
    this.modifiers[modifier] = !this.modifiers[modifier];
    this.emit('changed');
    this.current?.term.focus();
  }

  show(id) {
    this.current = this.shells.get(id) || null;
    for (const shell of this.shells.values()) shell.element.hidden = shell !== this.current;
    this.fit();
    this.current?.term.focus();
    this.emit('changed');
  }

  // The shown terminal at the size its element has now.
  fit() {
    const shell = this.current;
    if (!shell || this.host.offsetParent === null) return;
    const { columns, rows } = this.size(shell.term);
    if (columns === shell.term.cols && rows === shell.term.rows) return;
    shell.term.resize(columns, rows);
    this.send({ type: 'shell.resize', shell: shell.id, columns, rows });
  }

  close(id = this.current?.id) {
    if (id !== undefined) this.send({ type: 'shell.close', shell: id });
  }

  remove(id) {
    const shell = this.shells.get(id);
    if (!shell) return;
    shell.term.dispose();
    shell.element.remove();
    this.shells.delete(id);
    if (this.current === shell) this.current = null;
    this.show(this.current?.id ?? [...this.shells.keys()].at(-1));
  }

  // Every control message goes through here; true when it was a shell's.
  take(m) {
    if (m.type === 'shell.opened') {
      this.opening = false;
      this.add(m.shell, m.path, m.columns, m.rows).then(() => this.fit());
    } else if (m.type === 'shell.output') {
      const shell = this.shells.get(m.shell);
      if (shell && typeof m.text === 'string') {
        shell.term.write(m.text, () => this.drawn(shell, Number(m.bytes) || 0));
      } else if (shell && typeof m.data === 'string') {
        const bytes = unb64url(m.data);
        shell.term.write(bytes, () => this.drawn(shell, bytes.length));
      }
    } else if (m.type === 'shell.closed') {
      this.remove(m.shell);
    } else if (m.type === 'shell.error') {
      this.opening = false;
      this.emit('error', { reason: m.reason, message: m.message });
    } else if (m.type === 'shell.sessions') {
      this.reattach(Array.isArray(m.shells) ? m.shells : []);
    } else {
      return false;
    }
    return true;
  }

  // The shells the computer kept: the same tabs, their output replayed.
  async reattach(list) {
    const kept = new Set(list.map((s) => s.shell));
    for (const id of [...this.shells.keys()]) if (!kept.has(id)) this.remove(id);
    for (const { shell: id, path } of list) {
      const shell = await this.add(id, path);
      shell.term.reset();
      shell.drawn = 0;
      shell.acked = 0;
      this.send({ type: 'shell.attach', shell: id });
    }
    this.fit();
  }

  drawn(shell, count) {
    shell.drawn += count;
    if (shell.drawn - shell.acked < ACK_EVERY) return;
    shell.acked = shell.drawn;
    this.send({ type: 'shell.ack', shell: shell.id, bytes: shell.drawn });
  }

  // Every shell of a session that ended for good.
  clear() {
    for (const id of [...this.shells.keys()]) this.remove(id);
    this.opening = false;
  }

  dispose() {
    this.clear();
    this.observer.disconnect();
  }
}
