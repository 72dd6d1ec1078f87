// The computers this phone paired with, in IndexedDB: name, agent id and
// key, signalling address, pinned DTLS fingerprint and this phone's device
// key for it (a CryptoKey that cannot be exported), plus small settings.

const DB_NAME = 'zul';
const COMPUTERS = 'computers';
const SETTINGS = 'settings';

let opening;
function open() {
  opening = opening || new Promise((resolve, reject) => {
    const request = indexedDB.open(DB_NAME, 1);
    request.onupgradeneeded = () => {
      request.result.createObjectStore(COMPUTERS, { keyPath: 'agentId' });
      request.result.createObjectStore(SETTINGS);
    };
    request.onsuccess = () => resolve(request.result);
    request.onerror = () => reject(request.error);
  });
  return opening;
}

async function run(storeName, mode, action) {
  const db = await open();
  return new Promise((resolve, reject) => {
    const tx = db.transaction(storeName, mode);
    const request = action(tx.objectStore(storeName));
    tx.oncomplete = () => resolve(request.result);
    tx.onerror = () => reject(tx.error);
    tx.onabort = () => reject(tx.error);
  });
}

export const computers = {
  // Most recently used first.
  async list() {
    const all = await run(COMPUTERS, 'readonly', (s) => s.getAll());
    return all.sort((a, b) => (b.lastUsed || 0) - (a.lastUsed || 0));
  },
  get: (agentId) => run(COMPUTERS, 'readonly', (s) => s.get(agentId)),
  put: (computer) => run(COMPUTERS, 'readwrite', (s) => s.put(computer)),
  remove: (agentId) => run(COMPUTERS, 'readwrite', (s) => s.delete(agentId)),
};

export const settings = {
  get: (key) => run(SETTINGS, 'readonly', (s) => s.get(key)),
  set: (key, value) => run(SETTINGS, 'readwrite', (s) => s.put(value, key)),
};
