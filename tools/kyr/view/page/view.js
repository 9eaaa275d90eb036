// What is shown: plots with their signals, and the window of times. It is kept in the address,
// with names instead of numbers, so that a link fits other recordings with the same signals.
//
// A plot is {series: [{name, nth, element}], style, xy}; nth counts signals of the same name.

export class View {
  constructor() {
    this.plots = [];
    this.from = 0;
    this.to = 1;
    this.follows = false;
    this.hidden = new Set();  // recordings, by number
    this.cursor = null;       // [s]
    this.listeners = [];
  }

  onChange(listener) { this.listeners.push(listener); }
  changed(what) { this.listeners.forEach((listener) => listener(what)); }

  setWindow(from, to) {
    if (!isFinite(from) || !isFinite(to)) return;
    // Neighbouring doubles, and the largest ones, can be no window.
    const least = Math.max(Math.abs(from), Math.abs(to), 1e-300) * 1e-13;
    if (to - from < least) [from, to] = [(from + to - least) / 2, (from + to + least) / 2];
    const most = 8e307;
    this.from = Math.max(-most, from);
    this.to = Math.min(most, to);
    this.changed("window");
  }

  // Both relative to the window: pan by a part of it, zoom at a place of it.
  pan(part) {
    const width = this.to - this.from;
    this.setWindow(this.from + part * width, this.to + part * width);
  }
  zoom(factor, place = 0.5) {
    const center = this.from + place * (this.to - this.from);
    this.setWindow(center - (center - this.from) * factor, center + (this.to - center) * factor);
  }

  setCursor(time) {
    this.cursor = time;
    this.changed("cursor");
  }

  add(series, plot) {
    const target = plot ?? {series: [], style: "auto", xy: false};
    if (!plot) this.plots.push(target);
    if (!target.series.some((each) => isSame(each, series))) target.series.push(series);
    this.changed("plots");
  }

  remove(series, plot) {
    plot.series = plot.series.filter((each) => !isSame(each, series));
    if (plot.series.length === 0) this.plots = this.plots.filter((each) => each !== plot);
    this.changed("plots");
  }

  removePlot(plot) {
    this.plots = this.plots.filter((each) => each !== plot);
    this.changed("plots");
  }

  toggleRun(run) {
    if (!this.hidden.delete(run)) this.hidden.add(run);
    this.changed("plots");
  }

  shows(series) {
    return this.plots.some((plot) => plot.series.some((each) => isSame(each, series)));
  }

  toText() {
    const plots = this.plots.map((plot) => ({
      s: plot.series.map(({name, nth, element}) => [name, nth, element]),
      ...(plot.style === "auto" ? {} : {m: plot.style}),
      ...(plot.xy ? {x: 1} : {}),
    }));
    return encodeURIComponent(JSON.stringify({
      t: [this.from, this.to], p: plots, h: [...this.hidden], ...(this.follows ? {f: 1} : {}),
    }));
  }

  // Returns whether the text was understood; nothing is changed otherwise.
  fromText(text) {
    try {
      const {t, p, h, f} = JSON.parse(decodeURIComponent(text));
      if (!t.every((time) => typeof time === "number")) return false;
      const count = (number) => (Number.isSafeInteger(number) && number >= 0 ? number : 0);
      const plots = p.map(({s, m, x}) => ({
        series: s.map(([name, nth, element]) => ({
          name: String(name), nth: count(nth), element: count(element),
        })),
        style: ["line", "steps", "points"].includes(m) ? m : "auto",
        xy: x === 1,
      }));
      this.hidden = new Set(h);
      this.plots = plots;
      this.follows = f === 1;
      this.setWindow(t[0], t[1]);
      return true;
    } catch {
      return false;
    }
  }
}

export function isSame(a, b) {
  return a.name === b.name && a.nth === b.nth && a.element === b.element;
}
