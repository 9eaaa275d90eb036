// Where the page gets its recordings from: the server, or a report's own data.

async function ask(path, query = {}) {
  const parameters = Object.entries(query).map(([name, value]) => `${name}=${value}`).join("&");
  const answer = await fetch(parameters ? `${path}?${parameters}` : path);
  if (!answer.ok) throw new Error(await answer.text());
  return answer;
}

function pointsIn(buffer) {
  const numbers = new Float64Array(buffer);
  return {rows: numbers[0], points: numbers.subarray(2)};
}

class ServerSource {
  isReport = false;

  async runs() { return (await ask("runs")).json(); }
  async states() { return (await ask("states")).json(); }
  async points(signal, window) {
    return pointsIn(await (await ask("points", {...signal, ...window})).arrayBuffer());
  }
  async spans(signal, window) { return (await ask("spans", {...signal, ...window})).json(); }
  async pairs(x, y, window) {
    const query = {run: x.run, id: x.id, element: x.element, y: y.id, yElement: y.element,
                   ...window};
    const numbers = new Float64Array(await (await ask("pairs", query)).arrayBuffer());
    return {rows: numbers[0], isInterpolated: numbers[1] === 1, pairs: numbers.subarray(2)};
  }
  // Times and values of all rows by turns. It fails if they are too many.
  async rows(signal, window) {
    const query = {...signal, ...window};
    const numbers = new Float64Array(await (await ask("rows", query)).arrayBuffer());
    if (numbers.length < 1 + 2 * numbers[0]) {
      const count = numbers[0].toLocaleString("en");
      throw new Error(`a signal has ${count} rows in the window. kyr cat prints them.`);
    }
    return numbers.subarray(1);
  }
}

// Times of a report are parts of the window that it shows.
function decoded({from, to, rows, wide, points}) {
  const bytes = Uint8Array.from(atob(points), (c) => c.charCodeAt(0));
  const numbers = Float64Array.from(new (wide ? Float64Array : Float32Array)(bytes.buffer));
  for (let i = 0; i < numbers.length; i += 2) numbers[i] = from * (1 - numbers[i]) + numbers[i] * to;
  return {rows, points: numbers};
}

class ReportSource {
  isReport = true;

  constructor(data) {
    this.data = data;
    this.decoded = new Map();
  }
  async runs() { return this.data.runs; }
  async states() { return this.data.runs; }
  async points(signal) {
    const key = `${signal.run}/${signal.id}`;
    const stored = this.data.points[key];
    if (!stored || signal.element > 0) throw new Error("This signal is not in the report.");
    if (!this.decoded.has(key)) {
      const {tolerance} = stored;
      this.decoded.set(key, {...decoded(stored),
                             tolerance: tolerance && decoded(tolerance).points});
    }
    return this.decoded.get(key);
  }
  async spans(signal) {
    const stored = this.data.spans[`${signal.run}/${signal.id}`];
    if (!stored) throw new Error("This signal is not in the report.");
    return stored;
  }
  async pairs() { throw new Error("A report has no x-y plots."); }
  async rows() { throw new Error("A report has no more than these."); }
}

export function openSource() {
  const data = document.getElementById("data");
  return data ? new ReportSource(JSON.parse(data.textContent)) : new ServerSource();
}
