// Mouse, touch and keys on a plot. They move the window of times, which all plots share.

const least = 5;  // pixels that a box has at least

// `area()` returns {x, y, plotWidth, plotHeight}, in pixels of the canvas; `tools.boxes` tells
// whether dragging draws a box; `onBox(box)` zooms to one, `onReset()` forgets its values.
export class Gestures {
  constructor(canvas, view, area, tools, callbacks) {
    Object.assign(this, {canvas, view, area, tools, callbacks});
    this.pointers = new Map();
    this.box = null;
    const on = (name, handler, options) => canvas.addEventListener(name, handler, options);
    on("wheel", (event) => this.onWheel(event), {passive: false});
    on("pointerdown", (event) => this.onDown(event));
    on("pointermove", (event) => this.onMove(event));
    on("pointerup", (event) => this.onUp(event));
    on("pointercancel", (event) => this.onUp(event));
    on("pointerleave", () => { if (this.pointers.size === 0) this.view.setCursor(null); });
    on("dblclick", () => this.callbacks.onReset());
    on("keydown", (event) => this.onKey(event));
  }

  // 0 at the left end of the plot, 1 at its right end.
  part(event) {
    const {x, plotWidth} = this.area();
    return (event.clientX - this.canvas.getBoundingClientRect().left - x) / plotWidth;
  }

  onWheel(event) {
    if (event.ctrlKey || !event.shiftKey) event.preventDefault();
    const unit = event.deltaMode === 1 ? 16 : 1;
    if (Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      this.view.pan(event.deltaX * unit / this.area().plotWidth);
    } else if (!event.shiftKey) {
      const turn = Math.max(-300, Math.min(300, event.deltaY * unit));
      this.view.zoom(Math.pow(1.0025, turn), Math.min(1, Math.max(0, this.part(event))));
    }
  }

  onDown(event) {
    if (event.button !== 0) return;
    this.canvas.focus({preventScroll: true});
    this.canvas.setPointerCapture(event.pointerId);
    this.pointers.set(event.pointerId, {x: event.clientX, y: event.clientY});
    const isBox = this.pointers.size === 1 && (event.shiftKey || this.tools.boxes);
    this.box = isBox ? {startX: event.offsetX, startY: event.offsetY} : null;
  }

  onMove(event) {
    const before = this.pointers.get(event.pointerId);
    if (!before) return this.moveCursor(event);
    const [a, b] = [...this.pointers.values()];
    const distance = b && Math.abs(a.x - b.x);
    const middle = b && (a.x + b.x) / 2;
    const oldX = before.x;
    Object.assign(before, {x: event.clientX, y: event.clientY});
    if (b) this.pinch(distance, middle, a, b);
    else if (this.box) this.callbacks.onBox(this.boxTo(event), false);
    else this.view.pan((oldX - event.clientX) / this.area().plotWidth);
  }

  moveCursor(event) {
    const {from, to} = this.view;
    const part = this.part(event);
    this.view.setCursor(part >= 0 && part <= 1 ? from + part * (to - from) : null);
  }

  pinch(oldDistance, oldMiddle, a, b) {
    const distance = Math.max(8, Math.abs(a.x - b.x));
    const middle = (a.x + b.x) / 2;
    const {x, plotWidth} = this.area();
    const left = this.canvas.getBoundingClientRect().left + x;
    this.view.pan((oldMiddle - middle) / plotWidth);
    this.view.zoom(Math.max(8, oldDistance) / distance, (middle - left) / plotWidth);
  }

  boxTo({offsetX, offsetY}) {
    const {startX, startY} = this.box;
    return {x: Math.min(startX, offsetX), y: Math.min(startY, offsetY),
            width: Math.abs(offsetX - startX), height: Math.abs(offsetY - startY)};
  }

  onUp(event) {
    if (!this.pointers.delete(event.pointerId) || !this.box) return;
    const box = event.type === "pointerup" ? this.boxTo(event) : null;
    this.box = null;
    this.callbacks.onBox(box && box.width >= least ? box : null, true);
  }

  onKey(event) {
    const move = event.shiftKey ? 0.5 : 0.1;
    const actions = {
      ArrowLeft: () => this.view.pan(-move),
      ArrowRight: () => this.view.pan(move),
      ArrowUp: () => this.view.zoom(0.8),
      ArrowDown: () => this.view.zoom(1.25),
      "+": () => this.view.zoom(0.8),
      "=": () => this.view.zoom(0.8),
      "-": () => this.view.zoom(1.25),
      "0": () => this.callbacks.onReset(),
      Home: () => this.callbacks.onReset(),
      ",": () => this.stepCursor(-1),
      ".": () => this.stepCursor(1),
      Escape: () => this.view.setCursor(null),
    };
    if (!actions[event.key] || event.ctrlKey || event.metaKey || event.altKey) return;
    actions[event.key]();
    event.preventDefault();
  }

  stepCursor(direction) {
    const {from, to, cursor} = this.view;
    const step = (to - from) / this.area().plotWidth * 4;
    const start = cursor ?? (from + to) / 2;
    this.view.setCursor(Math.min(to, Math.max(from, start + direction * step)));
  }
}
