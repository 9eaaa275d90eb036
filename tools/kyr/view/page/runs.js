// The recordings and their signals, by name.

export class Runs {
  constructor(source) {
    this.source = source;
    this.all = [];
  }

  async load() {
    this.all = await this.source.runs();
    this.byName = new Map();  // a list of [run, signal] for each name and number of its use
    this.all.forEach((run, index) => {
      const uses = new Map();
      for (const signal of run.signals) {
        const nth = uses.get(signal.name) ?? 0;
        uses.set(signal.name, nth + 1);
        const key = `${nth}/${signal.name}`;
        if (!this.byName.has(key)) this.byName.set(key, {name: signal.name, nth, found: []});
        this.byName.get(key).found.push([index, signal]);
      }
    });
  }

  get signals() { return [...this.byName.values()]; }
  get isLive() { return this.all.some((run) => run.state === "live"); }

  // [[run, signal], ...] for a series of a plot.
  find({name, nth}) { return this.byName.get(`${nth}/${name}`)?.found ?? []; }

  // Smallest and largest time of all recordings, a little wider if they are the same.
  span() {
    const timed = this.all.filter((run) => run.from !== undefined);
    if (timed.length === 0) return [0, 1];
    const from = Math.min(...timed.map((run) => run.from));
    const to = Math.max(...timed.map((run) => run.to));
    return from < to ? [from, to] : [from - 0.5, to + 0.5];
  }

  // Asks for news. Returns what has changed: nothing, "rows" or "signals".
  async refresh() {
    const states = await this.source.states();
    let news = null;
    states.forEach((state, index) => {
      const run = this.all[index];
      if (state.revision === run.revision && state.state === run.state) return;
      if (state.signals !== run.signals.length || state.state !== run.state) news = "signals";
      news ??= "rows";
      Object.assign(run, {revision: state.revision, state: state.state, from: state.from,
                          to: state.to});
    });
    this.fault = states.find((state) => state.fault)?.fault;
    if (news === "signals") await this.load();
    return news;
  }
}
