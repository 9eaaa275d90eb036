// Saves what is seen as PNG, SVG or CSV.

import {themeColor} from "./colors.js";
import {download, shortened, tell} from "./elements.js";
import {SvgPainter} from "./painters.js";

const headHeight = 22;

export function svgOf(plots) {
  const width = Math.max(...plots.map((plot) => plot.canvas.clientWidth));
  const heights = plots.map((plot) => plot.canvas.clientHeight + headHeight);
  const painter = new SvgPainter(width, heights.reduce((sum, height) => sum + height, 0));
  painter.box(0, 0, painter.width, painter.height, themeColor("back"));
  let y = 0;
  plots.forEach((plot, place) => {
    painter.shifted(y, () => {
      paintNames(painter, plot, width);
      painter.shifted(headHeight, () => plot.paintWith(painter, width, heights[place] - headHeight));
    });
    y += heights[place];
  });
  return painter.result();
}

function paintNames(painter, plot, width) {
  let x = 66;
  for (const {curve} of plot.places) {
    const name = shortened(curve.series.name, 40);
    if (x > width - 60) break;
    painter.lines([[x, 13, x + 18, 13]], curve.color, 3, curve.dashes);
    painter.text(x + 24, 13, name, themeColor("text"));
    x += 40 + name.length * 7;
  }
}

export function exportSvg(plots) {
  download("plot.svg", new Blob([svgOf(plots)], {type: "image/svg+xml"}));
}

// The SVG at twice its size, as a picture.
export async function exportPng(plots) {
  const picture = new Image();
  picture.src = URL.createObjectURL(new Blob([svgOf(plots)], {type: "image/svg+xml"}));
  await picture.decode();
  const canvas = document.createElement("canvas");
  canvas.width = 2 * picture.width;
  canvas.height = 2 * picture.height;
  canvas.getContext("2d").drawImage(picture, 0, 0, canvas.width, canvas.height);
  URL.revokeObjectURL(picture.src);
  download("plot.png", await new Promise((resolve) => canvas.toBlob(resolve, "image/png")));
}

// Spreadsheets take cells that begin so for formulas.
function cell(text) {
  const safe = /^[=+\-@\t\r]/.test(text) ? `'${text}` : text;
  return /[",\n\r]/.test(safe) ? `"${safe.replaceAll("\"", "\"\"")}"` : safe;
}

// [time, value] of what is drawn.
function drawnRows({points, spans}, {from, to}) {
  const rows = [];
  for (let i = 0; points && i < points.length; i += 2) {
    if (points[i] >= from && points[i] <= to) rows.push([points[i], points[i + 1]]);
  }
  for (const span of spans ?? []) {
    if (span.to < from || span.from > to || span.mixed) continue;
    rows.push([span.from, span.text === undefined ? span.value : cell(span.text)]);
  }
  return rows;
}

// [time, value] of all rows in the window; text only where it changes.
async function allRows(curve, source, {from, to}) {
  if (curve.kind === "text") {
    if (curve.spans?.some((span) => span.mixed)) throw new Error("Text changes too often.");
    return drawnRows(curve, {from, to});
  }
  const {run, signal, series} = curve;
  const numbers = await source.rows({run, id: signal.id, element: series.element}, {from, to});
  return Array.from({length: numbers.length / 2}, (_, i) => [numbers[2 * i], numbers[2 * i + 1]]);
}

// One line for each row in the window. Of a signal with too many of them, the points that are
// drawn; `why` tells that.
async function csvOf(plots, {from, to}) {
  const parts = ["recording,signal,unit,element,time,value\n"];  // one text might become too long
  let why = "";
  for (const plot of plots) {
    const {runs} = plot.page;
    for (const curve of plot.filledCurves()) {
      const head = [runs.all[curve.run].name, curve.series.name, curve.unit].map(cell);
      const start = [...head, curve.series.element].join(",");
      const rows = await allRows(curve, runs.source, {from, to}).catch((error) => {
        why = error.message;
        return drawnRows(curve, {from, to});
      });
      parts.push(rows.map(([time, value]) => `${start},${time},${value}\n`).join(""));
    }
  }
  return {parts, why};
}

export async function exportCsv(plots, {from, to}) {
  const {parts, why} = await csvOf(plots, {from, to});
  download(why ? "plot-points.csv" : "plot.csv", new Blob(parts, {type: "text/csv"}));
  if (why) tell(`Saved are the points that are drawn, not all rows: ${why}`);
}
