// Fingers to pointer requests. Two modes:
//   direct:   a tap clicks where it lands, a long press right-clicks, a
//             press-and-drag drags; two fingers pinch to zoom and pan the
//             picture (or scroll when it is not zoomed).
//   trackpad: one finger moves the pointer relatively, with acceleration; a
//             tap clicks, a two-finger tap right-clicks, two fingers moving
//             together scroll, a double-tap-and-hold drags; pinching zooms.
// Coordinates sent are the video's pixels, as the agent maps them.

const SLOP = 10; // CSS pixels a finger may wander and still tap
const LONG_PRESS_MS = 500;
const TAP_MS = 300;
const DOUBLE_TAP_MS = 280;
const SCROLL_STEP = 36; // CSS pixels of finger travel per wheel step
const PINCH_START = 0.12; // spread change that makes two fingers a pinch

export class Gestures {
  // `send(message)` sends one input message (without the envelope);
  // `onPointer()` redraws the trackpad pointer.
  constructor(stage, viewport, send, onPointer = () => {}) {
    this.stage = stage;
    this.view = viewport;
    this.send = send;
    this.onPointer = onPointer;
    this.mode = 'direct';
    this.pointer = null; // trackpad pointer in video pixels
    this.touches = new Map(); // pointerId -> { x, y, sx, sy, t }
    this.gesture = null;
    this.pendingTap = null; // trackpad: { timer, at } of a tap that may become a double tap
    this.frame = 0;
    this.queuedMove = null;
    for (const type of ['pointerdown', 'pointermove', 'pointerup', 'pointercancel']) {
      stage.addEventListener(type, (event) => this[type](event));
    }
    stage.addEventListener('contextmenu', (event) => event.preventDefault());
    // A mouse wheel on a desktop browser scrolls too (handy when developing).
    stage.addEventListener('wheel', (event) => {
      event.preventDefault();
      if (event.ctrlKey) {
        this.view.zoomBy(Math.exp(-event.deltaY / 200), ...this.local(event));
        return;
      }
      this.send({ type: 'input.scroll', dx: event.deltaX / 100, dy: event.deltaY / 100 });
    }, { passive: false });
  }

  setMode(mode) {
    this.cancel();
    this.mode = mode;
    if (mode === 'trackpad' && !this.pointer && this.view.videoWidth) {
      this.pointer = { x: this.view.videoWidth / 2, y: this.view.videoHeight / 2 };
      this.move(this.pointer);
    }
    this.onPointer();
  }

  local(event) {
    const r = this.stage.getBoundingClientRect();
    return [event.clientX - r.left, event.clientY - r.top];
  }

  // ---- what goes to the agent ----------------------------------------------

  cursor(phase, point, button = 'left') {
    this.flushMove();
    this.send({ type: 'input.cursor', phase, x: Math.round(point.x), y: Math.round(point.y),
      button });
  }

  // Moves are coalesced to one per frame.
  move(point) {
    this.queuedMove = point;
    if (!this.frame) this.frame = requestAnimationFrame(() => this.flushMove());
  }

  flushMove() {
    if (this.frame) cancelAnimationFrame(this.frame);
    this.frame = 0;
    const point = this.queuedMove;
    this.queuedMove = null;
    if (point) {
      this.send({ type: 'input.cursor', phase: 'move', x: Math.round(point.x),
        y: Math.round(point.y), button: 'left' });
    }
  }

  click(point, button = 'left', count = 1) {
    this.cursor('move', point, button);
    for (let i = 0; i < count; i += 1) {
      this.cursor('down', point, button);
      this.cursor('up', point, button);
    }
  }

  scroll(dxCss, dyCss, at) {
    const message = { type: 'input.scroll', dx: -dxCss / SCROLL_STEP, dy: -dyCss / SCROLL_STEP };
    if (at) {
      message.x = Math.round(at.x);
      message.y = Math.round(at.y);
    }
    this.send(message);
  }

  // ---- touches -------------------------------------------------------------

  pointerdown(event) {
    if (event.pointerType === 'mouse' && event.button !== 0) {
      if (event.button === 2) this.click(this.view.toVideo(...this.local(event)), 'right');
      return;
    }
    this.stage.setPointerCapture?.(event.pointerId);
    const [x, y] = this.local(event);
    this.touches.set(event.pointerId, { x, y, sx: x, sy: y, t: event.timeStamp });
    if (this.touches.size === 1) this.startOne(x, y, event.timeStamp);
    else if (this.touches.size === 2) this.startTwo(event.timeStamp);
  }

  startOne(x, y, t) {
    if (this.mode === 'trackpad' && !this.pointer) {
      this.pointer = { x: this.view.videoWidth / 2, y: this.view.videoHeight / 2 };
    }
    const g = { kind: 'pending', sx: x, sy: y, lx: x, ly: y, t, lt: t };
    this.gesture = g;
    if (this.mode === 'direct') {
      g.timer = setTimeout(() => {
        if (this.gesture !== g || g.kind !== 'pending') return;
        g.kind = 'done';
        navigator.vibrate?.(25);
        this.click(this.view.toVideo(g.sx, g.sy), 'right');
      }, LONG_PRESS_MS);
    } else if (this.pendingTap && t - this.pendingTap.at < DOUBLE_TAP_MS) {
      // The second tap of a double tap: held and moved it drags.
      clearTimeout(this.pendingTap.timer);
      this.pendingTap = null;
      g.second = true;
    }
  }

  startTwo(t) {
    const g = this.gesture;
    if (g) {
      clearTimeout(g.timer);
      if (g.kind === 'drag') this.cursor('up', g.last);
    }
    const [a, b] = [...this.touches.values()];
    this.gesture = {
      kind: 'two', t, decided: null, moved: false,
      spread: Math.hypot(a.x - b.x, a.y - b.y) || 1,
      cx: (a.x + b.x) / 2, cy: (a.y + b.y) / 2,
    };
  }

  pointermove(event) {
    const touch = this.touches.get(event.pointerId);
    if (!touch) return;
    [touch.x, touch.y] = this.local(event);
    const g = this.gesture;
    if (!g) return;
    if (g.kind === 'two') this.moveTwo(g);
    else if (this.touches.size === 1) this.moveOne(g, touch, event.timeStamp);
  }

  moveOne(g, touch, t) {
    if (g.kind === 'pending') {
      if (Math.hypot(touch.x - g.sx, touch.y - g.sy) < SLOP) return;
      clearTimeout(g.timer);
      if (this.mode === 'direct') {
        g.kind = 'drag';
        g.last = this.view.toVideo(g.sx, g.sy);
        this.cursor('move', g.last);
        this.cursor('down', g.last);
      } else {
        g.kind = g.second ? 'tapdrag' : 'glide';
        if (g.kind === 'tapdrag') this.cursor('down', this.pointer);
      }
    }
    if (g.kind === 'drag') {
      g.last = this.view.toVideo(touch.x, touch.y);
      this.move(g.last);
    } else if (g.kind === 'glide' || g.kind === 'tapdrag') {
      const dx = touch.x - g.lx;
      const dy = touch.y - g.ly;
      const dt = Math.max(1, t - g.lt);
      // Slow fingers aim, fast ones travel: the gain grows with speed.
      const speed = Math.hypot(dx, dy) / dt; // CSS px per ms
      const gain = (0.9 / this.view.scale) * Math.min(3.5, 1 + speed * 1.6);
      this.pointer = {
        x: Math.min(this.view.videoWidth - 1, Math.max(0, this.pointer.x + dx * gain)),
        y: Math.min(this.view.videoHeight - 1, Math.max(0, this.pointer.y + dy * gain)),
      };
      this.view.follow(this.pointer.x, this.pointer.y);
      this.onPointer();
      this.move(this.pointer);
    }
    g.lx = touch.x;
    g.ly = touch.y;
    g.lt = t;
  }

  moveTwo(g) {
    if (this.touches.size < 2) return;
    const [a, b] = [...this.touches.values()];
    const spread = Math.hypot(a.x - b.x, a.y - b.y) || 1;
    const cx = (a.x + b.x) / 2;
    const cy = (a.y + b.y) / 2;
    const dx = cx - g.cx;
    const dy = cy - g.cy;
    if (!g.decided) {
      const startSpread = g.startSpread || (g.startSpread = g.spread);
      if (Math.abs(spread / startSpread - 1) > PINCH_START) g.decided = 'pinch';
      else if (Math.hypot(a.x - a.sx, a.y - a.sy) > SLOP || Math.hypot(b.x - b.sx, b.y - b.sy) > SLOP) {
        g.decided = this.mode === 'direct' && this.view.zoom > 1 ? 'pan' : 'scroll';
      }
      if (!g.decided) return;
    }
    g.moved = true;
    if (g.decided === 'pinch') {
      this.view.zoomBy(spread / g.spread, cx, cy);
      this.view.panBy(dx, dy);
      this.onPointer();
    } else if (g.decided === 'pan') {
      this.view.panBy(dx, dy);
      this.onPointer();
    } else {
      const at = this.mode === 'direct' ? this.view.toVideo(cx, cy) : null;
      this.scroll(dx, dy, at);
    }
    g.spread = spread;
    g.cx = cx;
    g.cy = cy;
  }

  pointerup(event) {
    const touch = this.touches.get(event.pointerId);
    if (!touch) return;
    this.touches.delete(event.pointerId);
    const g = this.gesture;
    if (!g) return;
    if (g.kind === 'two') {
      if (this.touches.size === 0) {
        // Two fingers down and up together without moving: a right click.
        if (!g.moved && event.timeStamp - g.t < TAP_MS) {
          const [x, y] = [g.cx, g.cy];
          this.click(this.mode === 'trackpad' ? this.pointer : this.view.toVideo(x, y), 'right');
        }
        this.gesture = null;
      }
      return; // a finger left over from two starts nothing
    }
    clearTimeout(g.timer);
    this.gesture = null;
    if (g.kind === 'drag') {
      this.cursor('move', g.last);
      this.cursor('up', g.last);
    } else if (g.kind === 'tapdrag') {
      this.cursor('up', this.pointer);
    } else if (g.kind === 'pending') {
      this.tap(g, event.timeStamp);
    }
  }

  pointercancel(event) {
    this.pointerup(event);
  }

  tap(g, t) {
    if (this.mode === 'direct') {
      this.click(this.view.toVideo(g.sx, g.sy));
      return;
    }
    if (g.second) {
      this.click(this.pointer, 'left', 2);
      return;
    }
    // Held back a moment: a second tap may follow and turn it into a drag.
    this.pendingTap = {
      at: t,
      timer: setTimeout(() => {
        this.pendingTap = null;
        this.click(this.pointer);
      }, DOUBLE_TAP_MS),
    };
  }

  // Lets go of whatever is held (mode switch, lost connection).
  cancel() {
    const g = this.gesture;
    if (g) {
      clearTimeout(g.timer);
      if (g.kind === 'drag') this.cursor('up', g.last);
      if (g.kind === 'tapdrag') this.cursor('up', this.pointer);
    }
    if (this.pendingTap) clearTimeout(this.pendingTap.timer);
    this.pendingTap = null;
    this.gesture = null;
    this.touches.clear();
  }
}
