// The files sheet: the computer's home folder in pages, its breadcrumbs,
// and a line per transfer with progress, speed and Cancel.

import { t } from './i18n.js';
import { $, app } from './ui.js';

// In session with the files channel open (whichever came last): what was
// under way goes on, once per connection.
export function filesReady(session, files) {
  if (!session.established || session.channels.files?.readyState !== 'open' ||
      files.readyFor === session.pc) return;
  files.readyFor = session.pc;
  files.resume();
  if (!$('files').hidden) listFolder();
}

export function filesStatus(text) {
  $('files-status').textContent = text;
}

export function filesReason(reason) {
  const key = `files-${reason}`;
  return t(key) === key ? String(reason || '?') : t(key);
}

const joinPath = (folder, name) => (folder ? `${folder}/${name}` : name);

export function openFolder(folder) {
  app.folder = folder;
  filesStatus('');
  renderCrumbs();
  listFolder();
}

// The folder shown from its first entry, or its next page.
function listFolder(offset = 0) {
  app.files?.list(app.folder, { hidden: $('files-hidden').checked, offset });
}

function renderCrumbs() {
  const parts = app.folder ? app.folder.split('/') : [];
  const crumb = (label, folder) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = label;
    button.dataset.folder = folder;
    button.onclick = () => openFolder(folder);
    return button;
  };
  $('crumbs').replaceChildren(crumb(`🏠 ${t('home')}`, ''),
    ...parts.map((name, i) => crumb(name, parts.slice(0, i + 1).join('/'))));
}

function formatSize(bytes) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let value = bytes;
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit += 1;
  }
  return `${unit ? value.toFixed(1) : value} ${units[unit]}`;
}

export function renderListing(listing) {
  if ((listing.path || '') !== app.folder) return;
  app.uploadFolder = listing.uploadFolder;
  const entries = listing.entries || [];
  const offset = listing.offset || 0;
  // A later page goes below what is shown; the computer keeps the order.
  const shown = offset > 0 ? $('file-list').querySelectorAll('li:not(.none)').length : 0;
  if (offset > 0 && offset !== shown) return;
  const left = (listing.total || 0) - offset - entries.length;
  $('files-more').hidden = left <= 0;
  $('files-more').textContent = t('more', { left });
  $('files-more').onclick = () => listFolder(offset + entries.length);
  if (entries.length === 0 && offset === 0) {
    const li = document.createElement('li');
    li.className = 'none';
    li.textContent = t('emptyFolder');
    $('file-list').replaceChildren(li);
    return;
  }
  const format = new Intl.DateTimeFormat(document.documentElement.lang,
    { dateStyle: 'short', timeStyle: 'short' });
  const items = entries.map((entry) => {
    const li = document.createElement('li');
    const button = document.createElement('button');
    button.type = 'button';
    button.dataset.name = entry.name;
    const name = document.createElement('span');
    name.className = 'label';
    name.textContent = `${entry.folder ? '📁' : '📄'} ${entry.name}`;
    const meta = document.createElement('span');
    meta.className = 'role';
    const when = entry.modified ? format.format(new Date(entry.modified * 1000)) : '';
    meta.textContent = entry.folder ? when : `${formatSize(entry.size)} · ${when}`;
    button.append(name, meta);
    const path = joinPath(app.folder, entry.name);
    button.onclick = () => (entry.folder ? openFolder(path)
      : app.files?.download(path, entry.name, entry.size));
    li.append(button);
    return li;
  });
  if (offset > 0) $('file-list').append(...items);
  else $('file-list').replaceChildren(...items);
}

// One line per transfer: name, progress and speed, Cancel while under way.
export function renderTransfer(transfer) {
  let li = $('transfers').querySelector(`[data-transfer="${transfer.number}"]`);
  if (!li) {
    li = document.createElement('li');
    li.dataset.transfer = transfer.number;
    li.innerHTML = '<span class="label"></span><progress max="1" value="0"></progress>' +
      '<span class="role"></span><button type="button" class="icon cancel">✕</button>';
    li.querySelector('.cancel').onclick = () => app.files?.cancel(transfer.number);
    li.querySelector('.cancel').setAttribute('aria-label', t('cancel'));
    $('transfers').prepend(li);
  }
  li.dataset.state = transfer.state;
  li.dataset.kind = transfer.kind;
  li.querySelector('.label').textContent = `${transfer.kind === 'upload' ? '⬆' : '⬇'} ${transfer.name}`;
  const share = transfer.size ? transfer.done / transfer.size : 0;
  li.querySelector('progress').value = transfer.state === 'finished' ? 1 : share;
  const seconds = Math.max(0.001, (performance.now() - transfer.started) / 1000);
  li.querySelector('.role').textContent = t(`tr-${transfer.state}`, {
    percent: Math.floor(100 * share), speed: formatSize(Math.round(transfer.done / seconds)),
    why: filesReason(transfer.error) });
  li.querySelector('.cancel').hidden = !['starting', 'running'].includes(transfer.state);
  if (transfer.kind === 'upload' && transfer.state === 'finished') {
    filesStatus(t('uploaded', { name: transfer.name, folder: transfer.folder || '~' }));
    if (!$('files').hidden) listFolder();
  }
}

// The browser copies the file (on disk, or in memory) into its downloads; a
// minute later it is let go.
export function saveBlob(name, blob, release = () => {}) {
  const link = document.createElement('a');
  link.href = URL.createObjectURL(blob);
  link.download = name;
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => {
    URL.revokeObjectURL(link.href);
    release();
  }, 60000);
}

export function uploadPicked() {
  const files = [...$('upload-input').files];
  $('upload-input').value = '';
  for (const file of files) {
    app.files?.upload(file, app.folder).catch(() => filesStatus(t('tr-failed',
      { why: filesReason('unavailable') })));
  }
}
