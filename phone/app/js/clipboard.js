// The computer's clipboard over the control channel, for a phone granted
// "clipboard": which types it holds now (control.clipboard.changed, never
// the content), fetching one (control.clipboard.get, answered in pieces)
// and setting it (control.clipboard.set in pieces, answered with
// control.clipboard.done). One exchange at a time.

import { b64url, errorReason, unb64url } from './protocol.js';

export const TEXT = 'text/plain;charset=utf-8';
export const PNG = 'image/png';
export const LIMITS = { [TEXT]: 1 << 20, [PNG]: 16 << 20 };

// The refusals of a clipboard request; any with "permission": "clipboard" too.
const REASONS = new Set(['empty', 'tooLarge', 'unavailable', 'unsupportedType',
  'invalidClipboardPiece']);
// No piece or answer for this long: the exchange is given up.
const STALL_MS = 15000;

export class ClipboardError extends Error {
  constructor(reason) {
    super(reason);
    this.reason = reason;
  }
}

// Events: changed { types } – the computer's clipboard holds other content.
export class RemoteClipboard extends EventTarget {
  constructor(session) {
    super();
    this.session = session;
    this.types = null; // unknown until the computer says
    this.pending = null;
    this.queue = Promise.resolve();
  }

  // Every control message goes through here; true when it was the clipboard's.
  take(message) {
    if (message.type === 'control.clipboard.changed') {
      this.types = (Array.isArray(message.mimeTypes) ? message.mimeTypes : [])
        .filter((type) => LIMITS[type]);
      this.dispatchEvent(new CustomEvent('changed', { detail: { types: this.types } }));
      return true;
    }
    const pending = this.pending;
    if (!pending) return false;
    if (message.type === 'control.clipboard.content') {
      pending.alive();
      pending.piece(message);
      return true;
    }
    if (message.type === 'control.clipboard.done') {
      pending.done(message);
      return true;
    }
    if (message.type === 'control.error' &&
        (REASONS.has(errorReason(message)) || message.permission === 'clipboard')) {
      pending.reject(new ClipboardError(errorReason(message)));
      return true;
    }
    return false;
  }

  // Gives up what is under way (the session ended).
  cancel() {
    this.pending?.reject(new ClipboardError('unavailable'));
  }

  // Runs `start(pending)` once the previous exchange is over; it resolves
  // through pending.resolve / pending.reject.
  exclusive(start) {
    let pending;
    const task = this.queue.then(() => new Promise((resolve, reject) => {
      pending = {
        resolve, reject, timer: 0,
        piece: () => reject(new ClipboardError('invalidClipboardPiece')),
        done: () => reject(new ClipboardError('invalidClipboardPiece')),
        alive: () => {
          clearTimeout(pending.timer);
          pending.timer = setTimeout(() => reject(new ClipboardError('unavailable')), STALL_MS);
        },
      };
      this.pending = pending;
      pending.alive();
      Promise.resolve().then(() => start(pending)).catch(reject);
    })).finally(() => {
      clearTimeout(pending?.timer);
      this.pending = null;
    });
    this.queue = task.catch(() => {});
    return task;
  }

  // The content of one type as a Blob; onProgress(received, total).
  get(mimeType, onProgress = () => {}) {
    return this.exclusive((pending) => {
      const parts = [];
      let received = 0;
      pending.piece = (m) => {
        const data = typeof m.data === 'string' ? unb64url(m.data) : null;
        if (m.offset === 0) {
          parts.length = 0;
          received = 0;
        }
        if (!data || m.mimeType !== mimeType || m.offset !== received ||
            !(m.total >= received + data.length) || m.total > LIMITS[mimeType]) {
          pending.reject(new ClipboardError('invalidClipboardPiece'));
          return;
        }
        parts.push(data);
        received += data.length;
        onProgress(received, m.total);
        if (received === m.total) pending.resolve(new Blob(parts, { type: mimeType }));
      };
      this.send({ type: 'control.clipboard.get', mimeType });
    });
  }

  // Puts `bytes` (a Uint8Array) on the computer's clipboard, in pieces the
  // data channel takes; onProgress(sent, total).
  set(mimeType, bytes, onProgress = () => {}) {
    return this.exclusive(async (pending) => {
      if (bytes.length > LIMITS[mimeType]) throw new ClipboardError('tooLarge');
      pending.done = (m) => (m.total === bytes.length && m.mimeType === mimeType
        ? pending.resolve() : pending.reject(new ClipboardError('invalidClipboardPiece')));
      const channel = this.session.channels.control;
      const size = this.pieceSize();
      for (let offset = 0; offset === 0 || offset < bytes.length; offset += size) {
        await drained(channel);
        const piece = bytes.subarray(offset, offset + size);
        this.send({ type: 'control.clipboard.set', mimeType, offset, total: bytes.length,
          data: b64url(piece) });
        pending.alive();
        onProgress(offset + piece.length, bytes.length);
      }
    });
  }

  send(message) {
    if (!this.session.send('control', message)) throw new ClipboardError('unavailable');
  }

  // At most 1 MiB of content a piece, and no message larger than the
  // connection carries (its base64 and envelope included).
  pieceSize() {
    const most = this.session.pc?.sctp?.maxMessageSize || 65536;
    return Math.max(1024, Math.min(1 << 20, Math.floor((most - 512) / 4) * 3));
  }
}

// Resolves once the channel's send buffer is low enough for another piece.
function drained(channel, low = 1 << 20) {
  if (!channel || channel.readyState !== 'open') {
    return Promise.reject(new ClipboardError('unavailable'));
  }
  if (channel.bufferedAmount <= low) return Promise.resolve();
  channel.bufferedAmountLowThreshold = low;
  return new Promise((resolve, reject) => {
    channel.addEventListener('bufferedamountlow', resolve, { once: true });
    channel.addEventListener('close', () => reject(new ClipboardError('unavailable')),
      { once: true });
  });
}
