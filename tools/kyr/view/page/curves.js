// Fetches what the plots need and keeps it. While a fetch is under way, plots are drawn from what
// is there, so that moving them waits for nothing.

const margin = 0.5;  // fetched on both sides of the window, in widths of it

export class Curves {
  constructor(runs, view, onArrival) {
    this.runs = runs;
    this.view = view;
    this.onArrival = onArrival;
    this.kept = new Map();
  }

  // The curve of an element of a signal: {points | spans, rows, fault}, of which nothing may be
  // there yet.
  get(run, signal, element, pixels) {
    return this.fetched(`${run}/${signal.id}/${element}`, run, pixels, (window) => {
      const asked = {run, id: signal.id, element};
      const isBand = signal.kind === "boolean" || signal.kind === "text";
      return isBand ? this.runs.source.spans(asked, window).then((spans) => ({spans}))
                    : this.runs.source.points(asked, window);
    });
  }

  // {pairs, rows, isInterpolated, fault} of two elements.
  getPairs(x, y, pixels) {
    const key = `${x.run}/${x.id}/${x.element}/${y.id}/${y.element}`;
    return this.fetched(key, x.run, pixels, (window) =>
      this.runs.source.pairs(x, y, {...window, columns: 20000}), 0);
  }

  fetched(key, run, pixels, fetchIt, extra = margin) {
    let curve = this.kept.get(key);
    if (!curve) this.kept.set(key, curve = {isBusy: false});
    this.touch(key, curve);
    const needed = this.needed(pixels, extra);
    const revision = this.runs.all[run].revision;
    if (!curve.isBusy && !this.suits(curve, needed, revision, extra)) {
      this.fetchCurve(curve, needed, revision, fetchIt);
    }
    return curve;
  }

  // The last used curves come last; the first ones go.
  touch(key, curve) {
    this.kept.delete(key);
    this.kept.set(key, curve);
    if (this.kept.size > 400) this.kept.delete(this.kept.keys().next().value);
  }

  needed(pixels, extra) {
    const {from, to} = this.view;
    const most = Number.MAX_VALUE;
    const part = extra * (to - from);
    const columns = Math.min(8000, Math.max(50, Math.round(pixels * (1 + 2 * extra))));
    return {from: Math.max(-most, from - part), to: Math.min(most, to + part), columns};
  }

  suits(curve, needed, revision, extra) {
    const {asked} = curve;
    if (!asked || curve.revision !== revision) return false;
    if (this.runs.source.isReport) return true;
    const {from, to} = this.view;
    if (extra === 0) return asked.from === from && asked.to === to;
    if (asked.from > from || asked.to < to) return false;
    // Half or twice the resolution will do, except where all rows are there already.
    const ratio = (asked.to - asked.from) / asked.columns / ((needed.to - needed.from) / needed.columns);
    return ratio < 1.3 && ratio > 0.4;
  }

  async fetchCurve(curve, asked, revision, fetchIt) {
    curve.isBusy = true;
    try {
      Object.assign(curve, {fault: null}, await fetchIt(asked));
    } catch (error) {
      curve.fault = error.message || String(error);
    }
    Object.assign(curve, {asked, revision, isBusy: false});
    this.onArrival();
  }
}

// The place of the last point at or before a time; -1 if there is none. Points ascend mostly.
export function placeOf(points, time) {
  let low = 0;
  let high = points.length / 2;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (points[2 * middle] <= time) low = middle + 1;
    else high = middle;
  }
  return low - 1;
}

// Smallest and largest value in [from, to], if not all rows there are points; null otherwise.
export function rangeAt({points, rows}, from, to) {
  if (!points || rows <= points.length / 2) return null;
  let [low, high] = [Infinity, -Infinity];
  for (let i = 2 * Math.max(0, placeOf(points, from)); i < points.length && points[i] <= to; i += 2) {
    if (points[i + 1] < low) low = points[i + 1];
    if (points[i + 1] > high) high = points[i + 1];
  }
  return low < high ? [low, high] : null;
}

// What the cursor reads: the value of the last point at or before the time.
export function valueAt(curve, time) {
  if (curve.points) {
    const place = placeOf(curve.points, time);
    return place < 0 ? undefined : curve.points[2 * place + 1];
  }
  return curve.spans?.findLast((span) => span.from <= time && time <= span.to);
}
