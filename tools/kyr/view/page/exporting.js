// Saves what is seen as PNG, SVG or CSV.

import {themeColor} from "./colors.js";
import {download, shortened} from "./elements.js";
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

// One line for each point that is drawn.
export function csvOf(plots, view) {
  const lines = ["recording,signal,unit,element,time,value"];
  for (const plot of plots) {
    for (const curve of plot.filledCurves()) {
      const head = [plot.page.runs.all[curve.run].name, curve.series.name, curve.unit].map(cell);
      const start = [...head, curve.series.element].join(",");
      const isSeen = (time) => time >= view.from && time <= view.to;
      for (let i = 0; curve.points && i < curve.points.length; i += 2) {
        if (isSeen(curve.points[i])) lines.push(`${start},${curve.points[i]},${curve.points[i + 1]}`);
      }
      for (const span of curve.spans ?? []) {
        if (span.to < view.from || span.from > view.to || span.mixed) continue;
        lines.push(`${start},${span.from},${span.text === undefined ? span.value : cell(span.text)}`);
      }
    }
  }
  return lines.join("\n") + "\n";
}

export function exportCsv(plots, view) {
  download("plot.csv", new Blob([csvOf(plots, view)], {type: "text/csv"}));
}
