// Downloads written to disk as their pieces arrive: each goes into the
// origin's private file system (a file named after its transfer in the folder
// "downloads") and into its SHA-256, here, off the page's thread. A download
// cut off by a lost connection keeps what it holds and goes on from there.
//
// It also works out an upload's SHA-256 from its file, beside the sending.
//
// Messages { op, number, ... }; those with an id are answered { id, value }
// or { id, error }. They are handled one after another, in order, but for
// hash, which runs beside them.
//   hash     { file }: its SHA-256
//   open     a fresh, empty file for the transfer
//   write    { at, data, skip }: data's bytes after `skip` at `at`
//   restart  back to an empty file (the computer starts from the beginning)
//   finish   the file flushed and closed: { sha256, size }
//   discard  closed and removed
importScripts('../vendor/hash-wasm/sha256.umd.min.js');

const held = new Map(); // number -> { access, hash, size, error }
let folder;
let queue = Promise.resolve();

// The folder, emptied of what earlier pages left (a file another page still
// writes is locked and stays).
function downloads() {
  folder ??= navigator.storage.getDirectory()
    .then((root) => root.getDirectoryHandle('downloads', { create: true }))
    .then(async (handle) => {
      for await (const name of handle.keys()) await handle.removeEntry(name).catch(() => {});
      return handle;
    });
  return folder;
}

const ops = {
  async open({ number }) {
    const file = await (await downloads()).getFileHandle(String(number), { create: true });
    const access = await file.createSyncAccessHandle();
    access.truncate(0);
    held.set(number, { access, hash: await hashwasm.createSHA256(), size: 0, error: null });
  },
  write({ number, at, data, skip }) {
    const file = held.get(number);
    if (!file || file.error) return;
    const bytes = new Uint8Array(data, skip);
    try {
      if (at !== file.size) throw new Error('a piece out of order');
      file.access.write(bytes, { at });
      file.hash.update(bytes);
      file.size += bytes.length;
    } catch (error) {
      file.error = error.name === 'QuotaExceededError' ? 'phoneFull' : error.message;
    }
  },
  restart({ number }) {
    const file = held.get(number);
    if (!file) return;
    file.access.truncate(0);
    file.hash.init();
    file.size = 0;
    file.error = null;
  },
  finish({ number }) {
    const file = held.get(number);
    if (!file) throw new Error('unavailable');
    held.delete(number);
    file.access.flush();
    file.access.close();
    if (file.error) throw new Error(file.error);
    return { sha256: file.hash.digest('hex'), size: file.size };
  },
  async discard({ number }) {
    held.get(number)?.access.close();
    held.delete(number);
    await (await downloads()).removeEntry(String(number)).catch(() => {});
  },
};

async function hash({ file }) {
  const sha256 = await hashwasm.createSHA256();
  const slice = 4 << 20;
  for (let at = 0; at < file.size; at += slice) {
    sha256.update(new Uint8Array(await file.slice(at, at + slice).arrayBuffer()));
  }
  return sha256.digest('hex');
}

self.onmessage = ({ data }) => {
  const work = data.op === 'hash' ? hash(data) : queue.then(() => ops[data.op](data));
  if (data.op !== 'hash') queue = work.catch(() => {});
  work.then((value) => {
    if (data.id) self.postMessage({ id: data.id, value });
  }, (error) => {
    if (data.id) self.postMessage({ id: data.id, error: error.message });
  });
};
