// The computer's home folder over the binary "files" channel, for a phone
// granted "files": listings, downloads (written to disk piece by piece,
// each piece confirmed so that the computer paces its sending, and
// checked against the SHA-256 the computer sends) and uploads (sent in
// pieces paced by the channel's buffer, then checked there against the
// phone's SHA-256). A transfer cut off by a lost connection goes on after the
// next hello from the offset the receiving side already holds. SHA-256 is
// worked out piece by piece as the bytes go by, so no file is ever held whole.


// A piece's data bytes: 56 full SCTP packets (1160 data bytes each) under the
// channel's 64 KiB a message, so that no packet goes out mostly empty.
const PIECE = 56 * 1160 - 13;
const HEADER = 13; // byte 2, the transfer (4), the offset (8)
const LOW = 1 << 20; // the channel's send buffer is topped up below this
// An upload's window: the bytes on their way that the computer has not yet
// confirmed (it confirms every piece). It grows while confirmations come back
// as fast as the quickest one did and shrinks once they wait more than QUEUED
// ms behind earlier bytes: a slow link is kept full, but its buffer never
// fills with seconds of data, on which the browser's SCTP would time out and
// send everything in flight again.
const WINDOW = { first: 256 << 10, least: 2 * PIECE, most: 16 << 20 };
const QUEUED = 100;
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

// Where a download's pieces go. On disk: the download worker writes them into
// the origin's private file system and hashes them; the browser then saves
// that file. Only a browser without it keeps them in memory.
let diskWorker;
function worker() {
  if (diskWorker !== undefined) return diskWorker;
  diskWorker = null;
  if (!navigator.storage?.getDirectory || typeof Worker === 'undefined') return null;
  const w = new Worker(new URL('download-worker.js', import.meta.url));
  const waiting = new Map();
  let next = 0;
  w.onmessage = ({ data }) => {
    const call = waiting.get(data.id);
    waiting.delete(data.id);
    if ('error' in data) call?.reject(new Error(data.error));
    else call?.resolve(data.value);
  };
  w.onerror = () => { // it did not load: nothing more goes to it
    for (const call of waiting.values()) call.reject(new Error('the download worker failed'));
    waiting.clear();
    diskWorker = null;
  };
  diskWorker = {
    post: (message, moved = []) => w.postMessage(message, moved),
    call: (message) => new Promise((resolve, reject) => {
      next += 1;
      waiting.set(next, { resolve, reject });
      w.postMessage({ ...message, id: next });
    }),
  };
  return diskWorker;
}

async function diskSink(number) {
  const disk = worker();
  if (!disk) throw new Error('no private file system');
  await disk.call({ op: 'open', number });
  const discard = () => disk.post({ op: 'discard', number });
  return {
    onDisk: true,
    // `data` is the whole message, handed over (not copied) to the worker.
    write: (at, data) => disk.post({ op: 'write', number, at, data, skip: HEADER }, [data]),
    restart: () => disk.post({ op: 'restart', number }),
    async finish() {
      const { sha256 } = await disk.call({ op: 'finish', number });
      const root = await navigator.storage.getDirectory();
      const handle = await (await root.getDirectoryHandle('downloads')).getFileHandle(String(number));
      return { sha256, blob: await handle.getFile(), release: discard };
    },
    discard,
  };
}

// An upload's SHA-256, worked out beside the sending from the file itself:
// in the download worker (off the page's thread) where there is one.
async function fileSha256(file) {
  const hashed = worker()?.call({ op: 'hash', file });
  if (hashed) {
    try {
      return await hashed;
    } catch { /* here then */ }
  }
  const hash = await sha256();
  for (let at = 0; at < file.size; at += READ) {
    hash.update(new Uint8Array(await file.slice(at, at + READ).arrayBuffer()));
  }
  return hash.digest('hex');
}

async function memorySink() {
  const hash = await sha256();
  let parts = [];
  return {
    onDisk: false,
    write: (at, data) => {
      const piece = new Uint8Array(data, HEADER);
      parts.push(piece);
      hash.update(piece);
    },
    restart: () => {
      parts = [];
      hash.init();
    },
    finish: async () => ({ sha256: hash.digest('hex'), blob: new Blob(parts), release: () => {} }),
    discard: () => {
      parts = [];
    },
  };
}

// Events (CustomEvent detail):
//   listing  { path, offset, entries, uploadFolder, total }
//   transfer { transfer } – one transfer changed (state, done bytes, error)
//   saved    { name, blob, release } – a checked download, to be saved;
//            release() once the browser has it
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
    const transfer = this.newTransfer({ kind: 'download', path, name, size });
    diskSink(transfer.number).catch(() => memorySink()).then((sink) => {
      if (transfer.state !== 'starting') {
        sink.discard();
        return;
      }
      transfer.sink = sink;
      transfer.onDisk = sink.onDisk;
      this.send({ type: 'files.download', transfer: transfer.number, path, confirm: true });
    }, (error) => this.end(transfer, 'failed', error.message));
    return transfer;
  }

  async upload(file, folder = '') {
    const transfer = this.newTransfer({ kind: 'upload', file, folder, name: file.name,
      size: file.size, sent: 0, run: 0 });
    transfer.sha256 = fileSha256(file);
    transfer.sha256.catch(() => {}); // a failure shows when the upload ends
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
    if (state !== 'finished') transfer.sink?.discard();
    transfer.sink = null;
    transfer.state = state;
    transfer.error = error;
    transfer.run = (transfer.run || 0) + 1;
    transfer.wake?.();
    this.changed(transfer);
  }

  // After every hello: what was under way goes on where the computer is.
  resume() {
    for (const transfer of this.transfers.values()) {
      if (!['starting', 'running'].includes(transfer.state)) continue;
      // Not a download still starting (it asks by itself) or being checked.
      if (transfer.kind === 'upload') {
        transfer.run += 1;
        this.askUpload(transfer);
      } else if (transfer.kind === 'download' && transfer.sink) {
        this.send({ type: 'files.download', transfer: transfer.number, path: transfer.path,
          offset: transfer.done, confirm: true });
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
      if (!transfer?.sink || transfer.state !== 'running') return;
      if (offset !== transfer.done) return; // a piece already held (a resumed download)
      transfer.done += bytes.length - HEADER;
      transfer.sink.write(offset, data);
      // The computer paces a download by these, as it does an upload's
      // confirmations here.
      if (transfer.confirms) {
        this.send({ type: 'files.received', transfer: transfer.number, offset: transfer.done });
      }
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
        transfer.sink.restart();
        transfer.done = 0;
      }
      transfer.from = m.offset; // where this run starts
      transfer.confirms = m.confirm === true; // a computer that paces by confirmations
      transfer.state = 'running';
      this.changed(transfer);
      this.roomFor(transfer);
    } else if (m.type === 'files.accepted') {
      transfer.state = 'running';
      transfer.folder = m.folder;
      transfer.done = m.offset;
      transfer.from = m.offset; // where this run starts
      transfer.wake?.(); // a run waiting for the lost connection ends
      Object.assign(transfer, { window: WINDOW.first, sentAt: [], quickest: Infinity });
      this.changed(transfer);
      this.pump(transfer, m.offset).catch(() => {});
    } else if (m.type === 'files.progress') {
      this.confirmed(transfer, m.offset);
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
    const { sink } = transfer;
    transfer.sink = null; // from here on the file is the caller's
    const { sha256: digest, blob, release } = await sink.finish().catch((error) => {
      sink.discard();
      throw error;
    });
    if (blob.size !== m.size || digest !== m.sha256) {
      release();
      this.end(transfer, 'failed', 'checksum');
      return;
    }
    this.end(transfer, 'finished');
    this.emit('saved', { name: transfer.name, blob, release });
  }

  // A download to disk that the phone's storage cannot take fails before it
  // fills the disk.
  async roomFor(transfer) {
    if (!transfer.onDisk || !navigator.storage?.estimate) return;
    const { quota, usage } = await navigator.storage.estimate().catch(() => ({}));
    if (quota === undefined || quota - usage >= transfer.size - transfer.done) return;
    if (transfer.state !== 'running') return;
    this.send({ type: 'files.cancel', transfer: transfer.number });
    this.end(transfer, 'failed', 'phoneFull');
  }

  // The computer holds an upload up to `offset`: the window follows how long
  // the confirmation took.
  confirmed(transfer, offset) {
    if (!transfer.sentAt || offset <= transfer.done) return;
    const now = performance.now();
    let sent;
    while (transfer.sentAt.length && transfer.sentAt[0][0] <= offset) sent = transfer.sentAt.shift()[1];
    if (sent !== undefined) {
      transfer.quickest = Math.min(transfer.quickest, now - sent);
      const gain = Math.max(-1, 1 - (now - sent - transfer.quickest) / QUEUED);
      transfer.window = Math.min(WINDOW.most, Math.max(WINDOW.least,
        transfer.window + gain * (offset - transfer.done)));
    }
    transfer.done = offset;
    transfer.wake?.();
    if (now - (transfer.shownAt || 0) > 100 || offset === transfer.size) {
      transfer.shownAt = now;
      this.changed(transfer);
    }
  }

  // Resolves once the upload's window has room for another piece at `at`
  // (or the run is over).
  async room(transfer, at, live) {
    while (live() && at - transfer.done >= transfer.window) {
      await new Promise((resolve) => {
        transfer.wake = resolve;
      });
    }
  }

  // Sends the file from `offset` on, in order, while the channel and the
  // window take it.
  async pump(transfer, offset) {
    const run = (transfer.run += 1);
    const channel = this.session.channels.files;
    const live = () => transfer.run === run && channel?.readyState === 'open';
    for (let at = offset; at < transfer.size && live();) {
      // Read in larger slices (each read is a trip through the browser), sent in pieces.
      const slice = new Uint8Array(await transfer.file.slice(at, at + READ).arrayBuffer());
      for (let i = 0; i < slice.length; i += PIECE) {
        await drained(channel);
        await this.room(transfer, at, live);
        if (!live()) return;
        const data = slice.subarray(i, i + PIECE);
        const message = new Uint8Array(HEADER + data.length);
        const view = new DataView(message.buffer);
        view.setUint8(0, 2);
        view.setUint32(1, transfer.number);
        view.setBigUint64(5, BigInt(at));
        message.set(data, HEADER);
        if (!live() || !this.session.sendBinary('files', message)) return;
        at += data.length;
        transfer.sentAt.push([at, performance.now()]);
        transfer.sent = at;
      }
      if (slice.length === 0) return;
    }
    if (!live()) return;
    const sha256Text = await transfer.sha256.catch((error) => {
      this.end(transfer, 'failed', error.message);
    });
    if (sha256Text && live()) {
      this.send({ type: 'files.done', transfer: transfer.number, sha256: sha256Text });
    }
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
