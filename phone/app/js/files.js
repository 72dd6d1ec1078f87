// The computer's home folder over the binary "files" channel, for a phone
// granted "files": listings, downloads (pieces put together and checked
// against the SHA-256 the computer sends) and uploads (sent in pieces paced
// by the channel's buffer, then checked there against the phone's SHA-256).
// An upload cut off by a lost connection goes on after the next hello from
// the offset the computer already holds. SHA-256 is worked out piece by
// piece as the bytes go by, so no file is ever held whole for it.


const PIECE = 65523; // data bytes a binary message may carry
const HEADER = 13; // byte 2, the transfer (4), the offset (8)
const LOW = 1 << 20; // the channel's send buffer is topped up below this
const READ = 16 * PIECE; // bytes of a file read at once
const PAGE = 200; // a folder's entries asked at once
const decoder = new TextDecoder();

// A fresh incremental SHA-256 (hash-wasm's, served under /vendor/; Web Crypto
// hashes only whole buffers).
let hashWasm;
function sha256() {
  hashWasm ??= new Promise((resolve, reject) => {
    const script = document.createElement('script');
    script.src = new URL('vendor/hash-wasm/sha256.umd.min.js', document.baseURI).href;
    script.onload = () => resolve(globalThis.hashwasm);
    script.onerror = () => {
      hashWasm = null;
      reject(new Error('hash-wasm did not load'));
    };
    document.head.append(script);
  });
  return hashWasm.then((module) => module.createSHA256());
}

// Events (CustomEvent detail):
//   listing  { path, offset, entries, uploadFolder, total }
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

  // A page of a folder's entries (folders first, then by name).
  list(path = '', { hidden = false, offset = 0 } = {}) {
    return this.send({ type: 'files.list', path, hidden, offset, limit: PAGE });
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
    sha256().then((hash) => {
      transfer.hash = hash;
      if (transfer.state === 'starting') {
        this.send({ type: 'files.download', transfer: transfer.number, path });
      }
    }, (error) => this.end(transfer, 'failed', error.message));
    return transfer;
  }

  async upload(file, folder = '') {
    const transfer = this.newTransfer({ kind: 'upload', file, folder, name: file.name,
      size: file.size, sent: 0, run: 0, hashed: 0 });
    transfer.hash = await sha256();
    this.askUpload(transfer);
    return transfer;
  }

  // An upload's hash takes `data` read at `at` once every byte before it is in.
  async hashed(transfer, at, data) {
    while (transfer.hashed < at) { // bytes the computer had before this run
      const end = Math.min(at, transfer.hashed + PIECE * 16);
      const gap = new Uint8Array(await transfer.file.slice(transfer.hashed, end).arrayBuffer());
      transfer.hash.update(gap);
      transfer.hashed = end;
    }
    if (at === transfer.hashed) {
      transfer.hash.update(data);
      transfer.hashed += data.length;
    }
    if (transfer.hashed === transfer.size && !transfer.sha256) {
      transfer.sha256 = transfer.hash.digest('hex');
    }
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
      if (!transfer.hash) continue; // still starting: it asks by itself
      if (transfer.kind === 'upload') {
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
      transfer.hash.update(piece);
      transfer.done += piece.length;
      // Progress shows a few times a second, not for every piece.
      const now = performance.now();
      if (now - (transfer.shownAt || 0) > 100) {
        transfer.shownAt = now;
        this.changed(transfer);
      }
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
        transfer.hash.init();
        transfer.done = 0;
      }
      transfer.state = 'running';
      this.changed(transfer);
    } else if (m.type === 'files.accepted') {
      transfer.state = 'running';
      transfer.folder = m.folder;
      transfer.done = m.offset;
      transfer.from = m.offset; // where this run starts
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
    if (blob.size !== m.size || transfer.hash.digest('hex') !== m.sha256) {
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
      // Read in larger slices (each read is a trip through the browser), sent in pieces.
      const slice = new Uint8Array(await transfer.file.slice(at, at + READ).arrayBuffer());
      for (let i = 0; i < slice.length; i += PIECE) {
        await drained(channel);
        if (!live()) return;
        const data = slice.subarray(i, i + PIECE);
        await this.hashed(transfer, at, data);
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
      if (slice.length === 0) return;
    }
    if (live() && transfer.size === 0) await this.hashed(transfer, 0, new Uint8Array());
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
