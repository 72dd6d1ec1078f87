// What the app's screens and sheets share: the element look-up, the app's
// state, and the short message at the bottom.

export const $ = (id) => document.getElementById(id);
export const app = {
  computer: null,
  session: null,
  scanner: null,
  retry: { timer: 0, delay: 0 },
  scene: null,
  monitors: null,
  clipboard: null, // the computer's, while in session with the permission
  fetched: null, // { type, blob, url } last fetched from the computer
  picked: null, // a PNG Blob to send
  shared: null, // text shared from another app, for the clipboard sheet
  sharedFiles: null, // files shared from another app, for the upload folder
  files: null, // the computer's home folder, while in session with the permission
  folder: '', // the folder the files sheet shows, relative to home
  terminals: null, // the shells, while in session with "shell" and "control"
  shellPaths: [],
};

let toastTimer = 0;
export function toast(text) {
  const el = $('toast');
  el.textContent = text;
  el.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { el.hidden = true; }, 2600);
}
