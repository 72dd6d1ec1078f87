// The picture on the phone: the video fitted to the stage in either
// orientation, zoomed and panned locally (no round trip to the computer), and
// the mapping between touch points and the video's own pixels, in which the
// agent takes pointer coordinates.

export const MAX_ZOOM = 6;

export class Viewport {
  constructor(stage, video, onChange = () => {}) {
    this.stage = stage;
    this.video = video;
    this.onChange = onChange;
    this.zoom = 1;
    this.panX = 0; // CSS pixels of the picture's offset from its centred place
    this.panY = 0;
    new ResizeObserver(() => this.layout()).observe(stage);
    video.addEventListener('resize', () => this.reset());
    video.addEventListener('loadedmetadata', () => this.reset());
  }

  get videoWidth() { return this.video.videoWidth || 0; }
  get videoHeight() { return this.video.videoHeight || 0; }

  // CSS pixels per video pixel when the whole picture fits.
  get fitScale() {
    const w = this.videoWidth;
    const h = this.videoHeight;
    if (!w || !h) return 1;
    return Math.min(this.stage.clientWidth / w, this.stage.clientHeight / h);
  }

  get scale() { return this.fitScale * this.zoom; }

  reset() {
    this.zoom = 1;
    this.panX = 0;
    this.panY = 0;
    this.layout();
  }

  // The picture's top-left corner in stage coordinates.
  origin() {
    const s = this.scale;
    return {
      x: (this.stage.clientWidth - this.videoWidth * s) / 2 + this.panX,
      y: (this.stage.clientHeight - this.videoHeight * s) / 2 + this.panY,
    };
  }

  // Keeps the picture on the stage: a zoomed picture larger than the stage
  // may leave only a narrow band (so that its edges can be pulled from under
  // floating bars), a smaller one stays centred.
  clamp() {
    const s = this.scale;
    const margin = this.zoom > 1 ? 56 : 0;
    for (const [axis, size, stageSize] of [['panX', this.videoWidth * s, this.stage.clientWidth],
      ['panY', this.videoHeight * s, this.stage.clientHeight]]) {
      const room = size > stageSize ? (size - stageSize) / 2 + margin : 0;
      this[axis] = Math.min(room, Math.max(-room, this[axis]));
    }
  }

  layout() {
    if (!this.videoWidth) return;
    this.clamp();
    const o = this.origin();
    const s = this.scale;
    this.video.style.width = `${this.videoWidth}px`;
    this.video.style.height = `${this.videoHeight}px`;
    this.video.style.transform = `translate(${o.x}px, ${o.y}px) scale(${s})`;
    this.onChange();
  }

  // Zooms by `factor` keeping the stage point (cx, cy) over the same picture point.
  zoomBy(factor, cx, cy) {
    const before = this.toVideo(cx, cy, false);
    this.zoom = Math.min(MAX_ZOOM, Math.max(1, this.zoom * factor));
    this.panX = 0;
    this.panY = 0;
    const o = this.origin();
    const s = this.scale;
    this.panX = cx - (o.x + before.x * s);
    this.panY = cy - (o.y + before.y * s);
    this.layout();
  }

  panBy(dx, dy) {
    this.panX += dx;
    this.panY += dy;
    this.layout();
  }

  // Stage coordinates (from a touch's client point) to video pixels;
  // clamped to the picture unless `clampToPicture` is false.
  toVideo(x, y, clampToPicture = true) {
    const o = this.origin();
    const s = this.scale;
    let vx = (x - o.x) / s;
    let vy = (y - o.y) / s;
    if (clampToPicture) {
      vx = Math.min(this.videoWidth - 1, Math.max(0, vx));
      vy = Math.min(this.videoHeight - 1, Math.max(0, vy));
    }
    return { x: vx, y: vy };
  }

  toStage(vx, vy) {
    const o = this.origin();
    const s = this.scale;
    return { x: o.x + vx * s, y: o.y + vy * s };
  }

  // Pans a zoomed picture so that the video point stays visible.
  follow(vx, vy, margin = 40) {
    if (this.zoom === 1) return;
    const p = this.toStage(vx, vy);
    const w = this.stage.clientWidth;
    const h = this.stage.clientHeight;
    let dx = 0;
    let dy = 0;
    if (p.x < margin) dx = margin - p.x;
    if (p.x > w - margin) dx = w - margin - p.x;
    if (p.y < margin) dy = margin - p.y;
    if (p.y > h - margin) dy = h - margin - p.y;
    if (dx || dy) this.panBy(dx, dy);
  }
}
