// Typing: the text field sends what the phone's keyboard produces (any
// language; a composition is sent once it is committed), as the difference
// between what the field held and what it holds now, so that autocorrection
// and deletions arrive too. The key bar sends named keys; Ctrl, Alt, Shift
// and Super stay pressed for the next key.

const HARDWARE_KEYS = {
  Escape: 'ESC', Tab: 'TAB', ArrowLeft: 'LEFT', ArrowRight: 'RIGHT', ArrowUp: 'UP',
  ArrowDown: 'DOWN', Home: 'HOME', End: 'END', PageUp: 'PAGEUP', PageDown: 'PAGEDOWN',
  Delete: 'DELETE',
};

export class Keyboard {
  constructor(field, panel, send) {
    this.field = field;
    this.panel = panel;
    this.send = send;
    this.sent = '';
    this.composing = false;
    this.modifiers = new Set();
    field.addEventListener('compositionstart', () => { this.composing = true; });
    field.addEventListener('compositionend', () => {
      this.composing = false;
      this.sync();
    });
    field.addEventListener('input', (event) => {
      if (!event.isComposing && !this.composing) this.sync();
    });
    field.addEventListener('keydown', (event) => this.keydown(event));
    field.addEventListener('blur', () => this.reset());
    for (const button of panel.querySelectorAll('[data-key]')) {
      // Keeps the focus (and the phone's keyboard) in the field.
      button.addEventListener('pointerdown', (event) => event.preventDefault());
      button.addEventListener('click', () => this.key(button.dataset.key));
    }
    for (const button of panel.querySelectorAll('[data-modifier]')) {
      button.addEventListener('pointerdown', (event) => event.preventDefault());
      button.addEventListener('click', () => this.toggle(button.dataset.modifier));
    }
  }

  show(open) {
    this.panel.hidden = !open;
    if (open) this.field.focus();
    else this.field.blur();
  }

  toggle(modifier) {
    if (this.modifiers.has(modifier)) this.modifiers.delete(modifier);
    else this.modifiers.add(modifier);
    this.drawModifiers();
  }

  drawModifiers() {
    for (const button of this.panel.querySelectorAll('[data-modifier]')) {
      button.setAttribute('aria-pressed', String(this.modifiers.has(button.dataset.modifier)));
    }
  }

  // One key, with the sticky modifiers, which then let go.
  key(name) {
    const combo = [...this.modifiers, name].join('+');
    this.send({ type: 'input.key', combo });
    if (this.modifiers.size) {
      this.modifiers.clear();
      this.drawModifiers();
    }
  }

  keydown(event) {
    if (event.isComposing || this.composing) return;
    if (event.key === 'Enter') {
      event.preventDefault();
      this.key('ENTER');
      this.reset();
    } else if (event.key === 'Backspace' && this.field.value === '') {
      event.preventDefault();
      this.key('BACKSPACE');
    } else if (HARDWARE_KEYS[event.key]) {
      event.preventDefault();
      this.key(HARDWARE_KEYS[event.key]);
    }
  }

  sync() {
    const before = Array.from(this.sent);
    const after = Array.from(this.field.value);
    let same = 0;
    while (same < before.length && same < after.length && before[same] === after[same]) same += 1;
    for (let i = same; i < before.length; i += 1) this.key('BACKSPACE');
    const added = after.slice(same).join('');
    if (added) {
      // With a modifier held, a letter or digit is a combination (Ctrl+C).
      if (this.modifiers.size && /^[\p{L}\p{N}]$/u.test(added) && /^[A-Za-z0-9]$/.test(added)) {
        this.key(added.toUpperCase());
        this.field.value = this.sent = after.slice(0, same).join('');
        return;
      }
      this.send({ type: 'input.text', value: added });
    }
    this.sent = this.field.value;
    // A long field is of no use: start afresh (not in the middle of a word).
    if (this.sent.length > 200 && /\s$/.test(this.sent)) this.reset();
  }

  reset() {
    this.field.value = '';
    this.sent = '';
  }
}
