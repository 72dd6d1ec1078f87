// The terminal sheet: the shells' tabs, the key bar's state, copy and
// paste.

import { t } from './i18n.js';
import { MOST } from './terminal.js';
import { $, app, toast } from './ui.js';

export function terminalShown() {
  $('term-status').textContent = '';
  const terminals = app.terminals;
  if (!terminals) return;
  if (terminals.shells.size === 0) terminals.open($('term-path').value);
  else terminals.show(terminals.current?.id ?? [...terminals.shells.keys()][0]);
}

export function renderShellPaths() {
  const select = $('term-path');
  select.replaceChildren(...app.shellPaths.map((path) => {
    const option = document.createElement('option');
    option.value = path;
    option.textContent = path.split('/').pop();
    return option;
  }));
  select.hidden = app.shellPaths.length < 2;
}

export function renderTabs() {
  const terminals = app.terminals;
  if (!terminals) return;
  $('term-tabs').replaceChildren(...[...terminals.shells.values()].map((shell, i) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.setAttribute('role', 'tab');
    button.setAttribute('aria-selected', String(shell === terminals.current));
    button.textContent = `${i + 1} ${String(shell.path || '').split('/').pop()}`;
    button.onclick = () => terminals.show(shell.id);
    return button;
  }));
  $('term-new').disabled = terminals.shells.size >= MOST;
  for (const button of document.querySelectorAll('#term-keys [data-mod]')) {
    button.setAttribute('aria-pressed', String(terminals.modifiers[button.dataset.mod]));
  }
}

export async function copyTerminal() {
  const term = app.terminals?.current?.term;
  if (!term) return;
  const text = term.hasSelection() ? term.getSelection() : '';
  try {
    await navigator.clipboard.writeText(text);
    toast(t('copied'));
  } catch {
    toast(t('copyFailed'));
  }
}

export async function pasteTerminal() {
  const shell = app.terminals?.current;
  if (!shell) return;
  try {
    const text = await navigator.clipboard.readText();
    if (text) shell.term.paste(text);
  } catch {
    toast(t('copyFailed'));
  }
}
