// The clipboard sheet: what the computer's clipboard holds, fetched on
// request, and the phone's text or image sent to it.

import { PNG, TEXT } from './clipboard.js';
import { t } from './i18n.js';
import { $, app, toast } from './ui.js';

// What the computer's clipboard holds, each kind with its Fetch button.
export function renderClipboardTypes() {
  const types = app.clipboard?.types;
  if (!types || types.length === 0) {
    const li = document.createElement('li');
    li.className = 'none';
    li.textContent = t(types ? 'clipNothing' : 'clipUnknown');
    $('clip-types').replaceChildren(li);
    return;
  }
  $('clip-types').replaceChildren(...types.map((type) => {
    const li = document.createElement('li');
    const name = document.createElement('span');
    name.textContent = t(`type-${type}`);
    const fetch = document.createElement('button');
    fetch.type = 'button';
    fetch.dataset.type = type;
    fetch.textContent = t('fetch');
    fetch.onclick = () => fetchClipboard(type);
    li.append(name, fetch);
    return li;
  }));
}

export async function clipboardChanged(clipboard) {
  if (clipboard !== app.clipboard) return;
  renderClipboardTypes();
  if ($('clip-sync').checked && clipboard.types.includes(TEXT)) {
    const text = await fetchClipboard(TEXT, { quiet: true });
    // The phone's own clipboard too, where the browser allows it unasked.
    if (typeof text === 'string') navigator.clipboard?.writeText(text).catch(() => {});
  }
}

export function clipStatus(text) {
  $('clip-status').textContent = text;
}

function clipFailed(error) {
  const key = `clip-${error.reason || 'unavailable'}`;
  clipStatus(t(key) === key ? t('clip-failed', { reason: error.reason || error.message }) : t(key));
}

// Progress of a large exchange under the Send button.
function clipProgress(key) {
  return (done, total) => {
    if (total < (256 << 10)) return;
    $('clip-progress').hidden = false;
    $('clip-progress').value = done / total;
    clipStatus(t(key, { percent: Math.floor((100 * done) / total) }));
  };
}

// Shows the content of one type; resolves to the text for text.
async function fetchClipboard(type, { quiet = false } = {}) {
  const clipboard = app.clipboard;
  if (!clipboard) return null;
  if (!quiet) clipStatus('');
  let blob;
  try {
    blob = await clipboard.get(type, quiet ? undefined : clipProgress('fetching'));
  } catch (error) {
    if (!quiet) clipFailed(error);
    return null;
  } finally {
    $('clip-progress').hidden = true;
  }
  if (clipboard !== app.clipboard) return null;
  if (!quiet) clipStatus('');
  if (app.fetched?.url) URL.revokeObjectURL(app.fetched.url);
  const text = type === TEXT ? await blob.text() : null;
  app.fetched = { type, blob, url: text === null ? URL.createObjectURL(blob) : '' };
  $('clip-got').hidden = false;
  $('clip-text').hidden = text === null;
  $('clip-text').value = text ?? '';
  $('clip-image').hidden = text !== null;
  $('clip-image').src = app.fetched.url;
  $('clip-save').hidden = text !== null;
  $('clip-save').href = app.fetched.url;
  $('clip-copy').hidden = text === null && !window.ClipboardItem;
  return text;
}

export async function copyFetched() {
  const { type, blob } = app.fetched || {};
  try {
    if (type === PNG) {
      await navigator.clipboard.write([new ClipboardItem({ [PNG]: blob })]);
    } else {
      await navigator.clipboard.writeText($('clip-text').value);
    }
    toast(t('copied'));
  } catch {
    $('clip-text').select();
    toast(t('copyFailed'));
  }
}

// An image for the computer, as the PNG its clipboard takes.
export async function pickImage(file) {
  if (!file) return;
  let png = file;
  if (file.type !== PNG) {
    const bitmap = await createImageBitmap(file);
    const canvas = document.createElement('canvas');
    [canvas.width, canvas.height] = [bitmap.width, bitmap.height];
    canvas.getContext('2d').drawImage(bitmap, 0, 0);
    png = await new Promise((resolve) => canvas.toBlob(resolve, PNG));
  }
  unpickImage();
  app.picked = png;
  $('clip-out-image').src = URL.createObjectURL(png);
  $('clip-picked').hidden = false;
}

export function unpickImage() {
  if (app.picked) URL.revokeObjectURL($('clip-out-image').src);
  app.picked = null;
  $('clip-picked').hidden = true;
  $('clip-file').value = '';
}

// The picked image, else the text, onto the computer's clipboard.
export async function sendClipboard() {
  const clipboard = app.clipboard;
  const text = $('clip-out').value;
  if (!clipboard || (!app.picked && !text)) {
    clipStatus(t('clipNothingToSend'));
    return;
  }
  const [type, bytes] = app.picked
    ? [PNG, new Uint8Array(await app.picked.arrayBuffer())]
    : [TEXT, new TextEncoder().encode(text)];
  clipStatus('');
  $('clip-send').disabled = true;
  try {
    await clipboard.set(type, bytes, clipProgress('sending'));
    clipStatus(t('sent'));
  } catch (error) {
    clipFailed(error);
  } finally {
    $('clip-send').disabled = false;
    $('clip-progress').hidden = true;
  }
}
