// The computer's home folder over the binary "files" channel, for a phone
// granted "files": listings, downloads (pieces put together and checked
// against the SHA-256 the computer sends) and uploads (sent in pieces paced
// by the channel's buffer, then checked there against the phone's SHA-256).
// An upload cut off by a lost connection goes on after the next hello from
// the offset the computer already holds.

const PIECE = 65523; // data bytes a binary message may carry
const HEADER = 13; // byte 2, the transfer (4), the offset (8)
const LOW = 1 << 20; // the channel's send buffer is topped up below this
const decoder = new TextDecoder();

export async function sha256Hex(bytes) {
  const digest = new Uint8Array(await crypto.subtle.digest('SHA-256', bytes));
  return Array.from(digest, (b) => b.toString(16).padStart(2, '0')).join('');
}

// Events (CustomEvent detail):
//   listing  { path, entries, uploadFolder, total }
//   transfer { transfer } – one transfer changed (state, done bytes, error)
//   saved    { name, blob } – a checked download, to be saved
export class RemoteFiles extends EventTarget {
  constructor(session) {
    super();
    this.session = session;
    this.transfers = new Map(); // number -> transfer
    this.next = crypto.getRandomValues(new Uint32Array(1))[0] & 0x7fffffff;
  }

  emit(type, detail) {
    this.dispatchEvent(new CustomEvent(type, { detail }));
  }

  send(message) {
    return this.session.send('files', message);
  }

  list(path = '', hidden = false) {
    return this.send({ type: 'files.list', path, hidden, offset: 0, limit: 1000 });
  }

  newTransfer(fields) {
    this.next = (this.next + 1) >>> 0;
    const transfer = { number: this.next, done: 0, size: 0, state: 'starting', error: null,
      started: performance.now(), ...fields };
    this.transfers.set(transfer.number, transfer);
    this.changed(transfer);
    return transfer;
  }

  changed(transfer) {
    this.emit('transfer', { transfer });
  }

  download(path, name, size = 0) {
    const transfer = this.newTransfer({ kind: 'download', path, name, size, parts: [] });
    this.send({ type: 'files.download', transfer: transfer.number, path });
    return transfer;
  }

  async upload(file, folder = '') {
    const transfer = this.newTransfer({ kind: 'upload', file, folder, name: file.name,
      size: file.size, sent: 0, run: 0 });
    transfer.sha256 = await sha256Hex(await file.arrayBuffer());
    this.askUpload(transfer);
    return transfer;
  }

  askUpload(transfer) {
    this.send({ type: 'files.upload', transfer: transfer.number, folder: transfer.folder,
      name: transfer.name, size: transfer.size });
  }

  cancel(number) {
    const transfer = this.transfers.get(number);
    if (!transfer || transfer.state === 'finished') return;
    transfer.run += 1;
    this.send({ type: 'files.cancel', transfer: number });
    this.end(transfer, 'cancelled');
  }

  end(transfer, state, error = null) {
    transfer.state = state;
    transfer.error = error;
    transfer.parts = null;
    transfer.run = (transfer.run || 0) + 1;
    this.changed(transfer);
  }

  // After every hello: what was under way goes on where the computer is.
  resume() {
    for (const transfer of this.transfers.values()) {
      if (!['starting', 'running'].includes(transfer.state)) continue;
      if (transfer.kind === 'upload' && transfer.sha256) {
        transfer.run += 1;
        this.askUpload(transfer);
      } else if (transfer.kind === 'download') {
        this.send({ type: 'files.download', transfer: transfer.number, path: transfer.path,
          offset: transfer.done });
      }
    }
  }

  // Every binary message of the files channel.
  take(data) {
    const bytes = new Uint8Array(data);
    if (bytes[0] === 1) {
      let message;
      try {
        message = JSON.parse(decoder.decode(bytes.subarray(1)));
      } catch {
        return;
      }
      this.onMessage(message);
    } else if (bytes[0] === 2 && bytes.length >= HEADER) {
      const view = new DataView(data);
      const transfer = this.transfers.get(view.getUint32(1));
      const offset = Number(view.getBigUint64(5));
      if (!transfer || transfer.kind !== 'download' || transfer.state !== 'running') return;
      if (offset !== transfer.done) return; // a piece already held (a resumed download)
      const piece = bytes.slice(HEADER);
      transfer.parts.push(piece);
      transfer.done += piece.length;
      this.changed(transfer);
    }
  }

  onMessage(m) {
    if (m.type === 'files.listing') {
      this.emit('listing', m);
      return;
    }
    const transfer = this.transfers.get(m.transfer);
    if (m.type === 'files.error' && !transfer) {
      this.emit('failed', { reason: m.reason, message: m.message });
      return;
    }
    if (!transfer || ['finished', 'cancelled', 'failed'].includes(transfer.state)) return;
    if (m.type === 'files.started') {
      transfer.name = m.name || transfer.name;
      transfer.size = m.size;
      if (m.offset !== transfer.done) {
        transfer.parts = [];
        transfer.done = 0;
      }
      transfer.state = 'running';
      this.changed(transfer);
    } else if (m.type === 'files.accepted') {
      transfer.state = 'running';
      transfer.folder = m.folder;
      transfer.done = m.offset;
      this.changed(transfer);
      this.pump(transfer, m.offset).catch(() => {});
    } else if (m.type === 'files.progress') {
      transfer.done = Math.max(transfer.done, m.offset);
      this.changed(transfer);
    } else if (m.type === 'files.finished') {
      this.finished(transfer, m).catch((error) => this.end(transfer, 'failed', error.message));
    } else if (m.type === 'files.error') {
      this.end(transfer, 'failed', m.reason || 'failed');
    }
  }

  async finished(transfer, m) {
    if (transfer.kind === 'upload') {
      transfer.done = transfer.size;
      transfer.folder = m.folder ?? transfer.folder;
      transfer.name = m.name ?? transfer.name;
      this.end(transfer, 'finished');
      return;
    }
    const blob = new Blob(transfer.parts);
    const sha256 = await sha256Hex(await blob.arrayBuffer());
    if (blob.size !== m.size || sha256 !== m.sha256) {
      this.end(transfer, 'failed', 'checksum');
      return;
    }
    this.end(transfer, 'finished');
    this.emit('saved', { name: transfer.name, blob });
  }

  // Sends the file from `offset` on, in order, while the channel takes it.
  async pump(transfer, offset) {
    const run = (transfer.run += 1);
    const channel = this.session.channels.files;
    const live = () => transfer.run === run && channel?.readyState === 'open';
    for (let at = offset; at < transfer.size && live();) {
      await drained(channel);
      if (!live()) return;
      const data = new Uint8Array(await transfer.file.slice(at, at + PIECE).arrayBuffer());
      const message = new Uint8Array(HEADER + data.length);
      const view = new DataView(message.buffer);
      view.setUint8(0, 2);
      view.setUint32(1, transfer.number);
      view.setBigUint64(5, BigInt(at));
      message.set(data, HEADER);
      if (!live() || !this.session.sendBinary('files', message)) return;
      at += data.length;
      transfer.sent = at;
    }
    if (live()) this.send({ type: 'files.done', transfer: transfer.number, sha256: transfer.sha256 });
  }

  // The session ended for good: nothing goes on.
  stop() {
    for (const transfer of this.transfers.values()) {
      if (['starting', 'running'].includes(transfer.state)) this.end(transfer, 'failed', 'unavailable');
    }
  }
}

// Resolves once the channel's send buffer is low enough for another piece.
function drained(channel) {
  if (channel.bufferedAmount <= LOW) return Promise.resolve();
  channel.bufferedAmountLowThreshold = LOW;
  return new Promise((resolve) => {
    channel.addEventListener('bufferedamountlow', resolve, { once: true });
    channel.addEventListener('close', resolve, { once: true });
  });
}
