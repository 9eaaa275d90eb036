// A plot on the page: its legend, its canvas, and the curves in it.

import {axisRange, heightOfBands, layoutOf, paintChart, paintPairs, scale} from "./chart.js";
import {colorOf, dashesOf, themeColor} from "./colors.js";
import {rangeAt, valueAt} from "./curves.js";
import {element, shortened} from "./elements.js";
import {Gestures} from "./gestures.js";
import {CanvasPainter} from "./painters.js";
import {valueText} from "./ticks.js";

const styles = [["auto", "auto"], ["line", "lines"], ["steps", "steps"], ["points", "points"]];

export class Plot {
  constructor(model, page) {
    this.model = model;
    this.page = page;
    this.ranges = null;  // of values that a box chose
    this.box = null;
    this.canvas = element("canvas", {tabIndex: 0, role: "img"});
    this.legend = element("ul", {className: "legend"});
    this.root = element("section", {className: "plot"}, this.head(),
                        element("div", {className: "canvas"}, this.canvas));
    this.gestures = new Gestures(this.canvas, page.view, () => this.area(), page.tools, {
      onBox: (box, isDone) => this.onBox(box, isDone),
      onReset: () => this.page.reset(),
    });
    this.takeDrops();
    this.showLegend();
  }

  head() {
    const {model, page} = this;
    const style = element("select", {title: "How curves are drawn", "aria-label": "How curves are drawn",
      onchange: () => { model.style = style.value; page.view.changed("style"); }},
      ...styles.map(([value, text]) => element("option", {value}, text)));
    style.value = model.style;
    const xy = element("button", {title: "Draw the other signals over the first one",
      "aria-pressed": model.xy,
      onclick: () => {
        model.xy = !model.xy;
        xy.setAttribute("aria-pressed", model.xy);
        page.view.changed("style");
      }}, "x-y");
    xy.hidden = page.runs.source.isReport;
    const close = element("button", {title: "Remove this plot", "aria-label": "Remove this plot",
      onclick: () => page.view.removePlot(model)}, "✕");
    return element("div", {className: "plot-head"}, this.legend, style, xy, close);
  }

  takeDrops() {
    const {root, page, model} = this;
    const isSeries = (event) => event.dataTransfer.types.includes("application/x-kyr");
    root.addEventListener("dragover", (event) => {
      if (!isSeries(event)) return;
      event.preventDefault();
      root.classList.add("drop");
    });
    root.addEventListener("dragleave", () => root.classList.remove("drop"));
    root.addEventListener("drop", (event) => {
      root.classList.remove("drop");
      if (!isSeries(event)) return;
      event.preventDefault();
      event.stopPropagation();
      page.view.add(JSON.parse(event.dataTransfer.getData("application/x-kyr")), model);
    });
  }

  // The curves of all series in all recordings that are shown, with how they look.
  curves() {
    const {page, model} = this;
    const pixels = this.canvas.clientWidth || 800;
    const units = [];
    const curves = [];
    model.series.forEach((series, place) => {
      for (const [run, signal] of page.runs.find(series)) {
        if (page.view.hidden.has(run)) continue;
        const isBand = signal.kind === "boolean" || signal.kind === "text";
        if (!isBand && !units.includes(signal.unit)) units.push(signal.unit);
        const automatic = signal.kind === "integer" ? "steps" : "line";
        curves.push({run, signal, series, isBand, kind: signal.kind, unit: signal.unit,
                     axis: units.indexOf(signal.unit) > 0 ? 1 : 0,
                     color: colorOf(place), dashes: dashesOf(run),
                     style: model.style === "auto" ? automatic : model.style, pixels});
      }
    });
    return curves;
  }

  filledCurves() {
    return this.curves().map((curve) => Object.assign(
      curve, pick(this.page.curves.get(curve.run, curve.signal, curve.series.element, curve.pixels))));
  }

  pairedCurves() {
    const [first, ...others] = this.model.series;
    const all = this.curves();
    return others.flatMap((series) => all.filter((each) => each.series === series).map((y) => {
      const x = all.find((each) => each.series === first && each.run === y.run);
      if (!x) return {...y, fault: "The recording does not have the signal of the x axis."};
      const id = (each) => ({run: each.run, id: each.signal.id, element: each.series.element});
      const got = this.page.curves.getPairs(id(x), id(y), y.pixels);
      return {...y, pairs: got.pairs, fault: got.fault, note: noteOf(got),
              xLabel: labelOf(x), yLabel: labelOf(y)};
    }));
  }

  area() {
    return layoutOf(this.canvas.clientWidth, this.canvas.clientHeight, this.layoutCurves ?? [],
                    this.page.hasRightAxis);
  }

  // Seconds of a pixel.
  pixelTime() {
    const {from, to} = this.page.view;
    return (to - from) / this.area().plotWidth;
  }

  paint() {
    const {canvas, model} = this;
    const ratio = window.devicePixelRatio || 1;
    const curves = model.xy ? this.pairedCurves() : this.filledCurves();
    this.layoutCurves = model.xy ? [{}] : curves;
    this.fitBands(curves);
    const width = canvas.clientWidth;
    const height = canvas.clientHeight;
    if (canvas.width !== Math.round(width * ratio)) canvas.width = Math.round(width * ratio);
    if (canvas.height !== Math.round(height * ratio)) canvas.height = Math.round(height * ratio);
    const context = canvas.getContext("2d");
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    this.paintWith(new CanvasPainter(context), width, height, curves);
    if (!model.xy) this.paintCursor(context);
    if (this.box) this.paintBox(context);
    this.showValues(curves);
  }

  fitBands(curves) {
    const isBands = curves.length > 0 && !this.model.xy && curves.every((curve) => curve.isBand);
    this.root.classList.toggle("bands", isBands);
    this.canvas.parentElement.style.height = isBands ? `${heightOfBands(curves.length)}px` : "";
    this.canvas.parentElement.style.flex = isBands ? "none" : "";
  }

  paintWith(painter, width, height, curves = this.model.xy ? this.pairedCurves()
                                                           : this.filledCurves()) {
    const layout = layoutOf(width, height, this.model.xy ? [{}] : curves, this.page.hasRightAxis);
    if (this.model.xy) return paintPairs(painter, layout, curves);
    const {view} = this.page;
    const lines = curves.filter((curve) => !curve.isBand);
    const ranges = this.ranges ?? [axisRange(lines, 0, view), axisRange(lines, 1, view)];
    this.shownRanges = ranges;
    return paintChart(painter, layout, curves, view, ranges);
  }

  paintCursor(context) {
    const {from, to, cursor} = this.page.view;
    if (cursor === null || cursor < from || cursor > to) return;
    const {x, plotWidth, height} = this.area();
    const place = scale(from, to, x, plotWidth)(cursor);
    new CanvasPainter(context).lines([[place, 0, place, height - 22]], themeColor("quiet"), 1, [3, 3]);
  }

  paintBox(context) {
    const {x, y, width, height} = this.box;
    const {accent, bandsY} = {accent: themeColor("accent"), bandsY: this.area().bandsY};
    const isFlat = height < 20;
    const box = isFlat ? [x, 0, width, bandsY] : [x, y, width, height];
    new CanvasPainter(context).box(...box, accent, 0.2);
  }

  onBox(box, isDone) {
    this.box = isDone ? null : box;
    if (isDone && box) {
      const {x, y, plotWidth, plotHeight} = this.area();
      const {view} = this.page;
      const timeAt = (place) => view.from + (place - x) / plotWidth * (view.to - view.from);
      const [from, to] = [timeAt(box.x), timeAt(box.x + box.width)];
      // A flat box chooses times only.
      if (box.height >= 20 && plotHeight > 0 && !this.model.xy) {
        const valueAtY = ([low, high], place) => high - (place - y) / plotHeight * (high - low);
        this.ranges = this.shownRanges.map((range) => [
          valueAtY(range, box.y + box.height), valueAtY(range, box.y)]);
      }
      view.setWindow(from, to);
    }
    this.page.paint();
  }

  // The legend is made anew when signals come and go; values change with the cursor.
  showLegend() {
    const {page, model} = this;
    this.places = [];
    const items = this.curves().map((curve) => {
      const {series, signal, run} = curve;
      const value = element("span", {className: "value"});
      this.places.push({value, curve});
      const item = element("li", {title: shortened(`${series.name}\n${signal.description}`, 600)},
        sample(curve), element("span", {className: "name"}, shortened(labelOf(curve), 120)));
      if (page.runs.all.length > 1) {
        item.append(element("span", {className: "state"}, shortened(page.runs.all[run].name, 40)));
      }
      if (signal.elements !== 1 && signal.kind !== "text") item.append(this.elementInput(curve));
      item.append(value, element("button", {title: "Remove", onclick: () => page.view.remove(series, model),
        "aria-label": `Remove ${shortened(series.name, 80)}`}, "✕"));
      return item;
    });
    const lost = model.series.filter((series) => page.runs.find(series).length === 0);
    items.push(...lost.map((series) => element("li", {},
      element("span", {className: "name fault"}, `${shortened(series.name, 80)}: no such signal`),
      element("button", {onclick: () => page.view.remove(series, model)}, "✕"))));
    this.legend.replaceChildren(...items);
    const names = model.series.map((series) => shortened(series.name, 60)).join(", ");
    this.canvas.setAttribute("aria-label",
      `Plot of ${names}. Arrow keys move and zoom, 0 shows all, comma and dot move the cursor.`);
  }

  // Which elements of a matrix are shown: "3" for one, "0,3,5" for several curves.
  elementInput({series, signal}) {
    const {model, page} = this;
    const input = element("input", {type: "text", value: String(series.element),
      title: `Element, from 0${signal.elements ? ` to ${signal.elements - 1}` : ""}; several with commas`,
      "aria-label": `Element of ${shortened(series.name, 80)}`,
      onchange: () => {
        const chosen = input.value.split(",").map(Number)
          .filter((each) => Number.isInteger(each) && each >= 0).slice(0, 32);
        if (chosen.length === 0) return page.view.changed("plots");
        const place = model.series.indexOf(series);
        const fresh = chosen.map((number) => ({...series, element: number}));
        model.series.splice(place, 1, ...fresh);
        page.view.changed("plots");
        return undefined;
      }});
    return input;
  }

  // What the cursor reads, as a sentence.
  reading() {
    return this.places.filter(({value}) => value.textContent).map(
      ({value, curve}) => `${shortened(labelOf(curve), 60)} ${value.textContent}`).join(", ");
  }

  showValues(curves) {
    const {cursor} = this.page.view;
    for (const {value, curve} of this.places) {
      const found = curves.find((each) => each.series === curve.series && each.run === curve.run);
      const text = found?.fault ? `⚠ ${shortened(found.fault, 160)}`
        : this.model.xy ? found?.note ?? ""
        : cursor === null || !found ? "" : readOut(found, cursor, this.pixelTime() / 2);
      if (value.textContent !== text) value.textContent = text;
      value.classList.toggle("fault", Boolean(found?.fault));
    }
  }
}

function pick({points, spans, rows, fault, tolerance}) {
  return {points, spans, rows, fault, tolerance};
}

function labelOf({series, signal}) {
  const part = signal.elements === 1 || signal.kind === "text" ? "" : `[${series.element}]`;
  return `${series.name}${part}${signal.unit ? ` [${signal.unit}]` : ""}`;
}

// How pairs were made of rows, if they are not the rows themselves.
function noteOf({pairs, rows, isInterpolated}) {
  if (!pairs) return "";
  const thinned = rows > pairs.length / 2 ? [`${pairs.length / 2} of ${rows} rows`] : [];
  return [...isInterpolated ? ["interpolated: the times differ"] : [], ...thinned].join(", ");
}

// The value at a time; where a pixel has many rows, the smallest and largest one.
function readOut(curve, time, reach) {
  const range = rangeAt(curve, time - reach, time + reach);
  if (range) return `${valueText(range[0], 4)} … ${valueText(range[1], 4)}`;
  const value = valueAt(curve, time);
  if (!curve.isBand) return valueText(value);
  if (value === undefined) return "–";
  if (value.mixed) return "several";
  if (value.text !== undefined) return `“${shortened(value.text, 60)}”`;
  return value.value === 1 ? "true" : value.value === 0 ? "false" : valueText(value.value);
}

// A piece of the line, as the legend shows it.
function sample({color, dashes}) {
  const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
  const line = document.createElementNS("http://www.w3.org/2000/svg", "path");
  const attributes = (node, all) => Object.entries(all).forEach(
    ([name, value]) => node.setAttribute(name, value));
  attributes(svg, {width: 22, height: 8, "aria-hidden": "true"});
  attributes(line, {d: "M1 4L21 4", stroke: color, "stroke-width": 3, fill: "none",
                    "stroke-dasharray": dashes.join(" ")});
  svg.append(line);
  return svg;
}
