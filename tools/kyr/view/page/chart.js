// Paints one plot: its axes, curves, bands and cursor.

import {themeColor} from "./colors.js";
import {shortened} from "./elements.js";
import {ticks, tickText} from "./ticks.js";

const left = 66;
const top = 8;
const bottom = 24;
const bandHeight = 22;
const far = 1e5;  // pixels beyond which a line is cut

// Where things lie on a plot of this size. All plots leave room for a right axis if one has it, so
// that their times lie below each other.
export function layoutOf(width, height, curves, hasRightAxis) {
  const right = hasRightAxis ? 66 : 22;
  const bands = curves.filter((curve) => curve.isBand).length;
  const lines = curves.length - bands;
  const plotHeight = Math.max(1, height - top - bottom - bands * bandHeight);
  return {width, height, x: left, y: top, plotWidth: Math.max(1, width - left - right),
          plotHeight: lines > 0 ? plotHeight : 0, bands,
          bandsY: lines > 0 ? top + plotHeight + 2 : top};
}

export function heightOfBands(count) {
  return top + bottom + count * bandHeight;
}

// Smallest and largest finite value of points in a window; null if there is none.
function rangeOf(curves, from, to) {
  let low = Infinity;
  let high = -Infinity;
  for (const {points} of curves) {
    for (let i = 0; points && i < points.length; i += 2) {
      const next = i + 2 < points.length ? points[i + 2] : points[i];
      const previous = i > 0 ? points[i - 2] : points[i];
      if (next < from || previous > to) continue;
      const value = points[i + 1];
      if (!isFinite(value)) continue;
      if (value < low) low = value;
      if (value > high) high = value;
    }
  }
  return low <= high ? [low, high] : null;
}

// With some room, so that lines do not run along the edge.
export function axisRange(curves, axis, view) {
  const range = rangeOf(curves.filter((curve) => curve.axis === axis), view.from, view.to);
  if (!range) return [0, 1];
  const [low, high] = range;
  const room = high > low ? (high / 2 - low / 2) * 0.1 : Math.max(Math.abs(high) * 0.1, 0.5);
  return [Math.max(-Number.MAX_VALUE, low - room), Math.min(Number.MAX_VALUE, high + room)];
}

export function scale(from, to, start, length) {
  const width = to / 2 - from / 2;
  return (value) => {
    const place = start + (value / 2 - from / 2) / width * length;
    return Math.min(far, Math.max(-far, place));
  };
}

function paintTimeAxis(painter, layout, view, unit) {
  const {x, y, plotWidth} = layout;
  const end = layout.bandsY + layout.bands * bandHeight;
  const {step, values} = ticks(view.from, view.to, plotWidth / 90);
  const toX = scale(view.from, view.to, x, plotWidth);
  painter.lines(values.map((value) => [toX(value), y, toX(value), end]), themeColor("grid"), 1);
  painter.text(x - 26, end + 12, unit, themeColor("quiet"), "right");
  for (const value of values) {
    painter.text(toX(value), end + 12, tickText(value, step), themeColor("quiet"), "center");
  }
}

function paintValueAxis(painter, layout, axis, [low, high], label) {
  const {x, y, plotWidth, plotHeight} = layout;
  const {step, values} = ticks(low, high, plotHeight / 34);
  const toY = scale(low, high, y + plotHeight, -plotHeight);
  const isLeft = axis === 0;
  if (isLeft) {
    painter.lines(values.map((value) => [x, toY(value), x + plotWidth, toY(value)]),
                  themeColor("grid"), 1);
  }
  for (const value of values) {
    painter.text(isLeft ? x - 6 : x + plotWidth + 6, toY(value), tickText(value, step),
                 themeColor("quiet"), isLeft ? "right" : "left");
  }
  painter.text(isLeft ? 9 : layout.width - 9, y + plotHeight / 2, shortened(label, 30),
               themeColor("quiet"), "center", -Math.PI / 2);
}

// Pieces of a line between the places where it is interrupted.
function piecesOf(points, toX, toY, steps) {
  const pieces = [];
  let piece = null;
  for (let i = 0; i < points.length; i += 2) {
    if (!isFinite(points[i + 1])) {
      if (piece && steps) piece.push(toX(points[i]), piece[piece.length - 1]);
      piece = null;
      continue;
    }
    const x = toX(points[i]);
    const y = toY(points[i + 1]);
    if (!piece) pieces.push(piece = []);
    else if (steps) piece.push(x, piece[piece.length - 1]);
    piece.push(x, y);
  }
  return pieces;
}

// Fills what is between the lower and upper ends of a tolerance, which come by turns.
function paintTolerance(painter, {tolerance, color}, toX, toY) {
  let corners = [];
  const fill = () => {
    const upper = corners.map(([x, , high]) => [x, high]).reverse();
    painter.area([...corners.map(([x, low]) => [x, low]), ...upper].flat(), color, 0.18);
    corners = [];
  };
  for (let i = 0; i < tolerance.length; i += 4) {
    if (isFinite(tolerance[i + 1])) {
      corners.push([toX(tolerance[i]), toY(tolerance[i + 1]), toY(tolerance[i + 3])]);
    } else if (corners.length > 0) {
      fill();
    }
  }
  if (corners.length > 0) fill();
}

function paintCurve(painter, layout, curve, toX, toY) {
  const {points, color, style} = curve;
  const pieces = piecesOf(points, toX, toY, style === "steps");
  if (style !== "points") painter.lines(pieces, color, 1.5, curve.dashes);
  const visible = [];
  for (let i = 0; i < points.length; i += 2) {
    const x = toX(points[i]);
    if (x < layout.x - 5 || x > layout.x + layout.plotWidth + 5 || !isFinite(points[i + 1])) continue;
    visible.push(x, toY(points[i + 1]));
  }
  // Few points are marked also where a line joins them.
  const isSparse = visible.length / 2 < layout.plotWidth / 12;
  if (style === "points" || isSparse) painter.dots(visible, color, isSparse ? 5 : 2.5);
}

function bandColor(curve, span) {
  if (span.mixed) return [curve.color, 0.45];
  if (curve.kind === "boolean") return [curve.color, span.value === 1 ? 0.85 : 0.1];
  return [curve.color, span.text === undefined ? 0.5 : 0.22];
}

function paintBand(painter, layout, curve, place, toX) {
  const y = layout.bandsY + place * bandHeight;
  for (const span of curve.spans) {
    const from = Math.max(layout.x, toX(span.from));
    const to = Math.min(layout.x + layout.plotWidth, Math.max(toX(span.to), toX(span.from) + 1));
    if (to <= from) continue;
    const [color, opacity] = bandColor(curve, span);
    painter.box(from, y + 3, to - from, bandHeight - 6, color, opacity);
    painter.box(from, y + 3, 1, bandHeight - 6, color, 1);
    const width = to - from - 6;
    if (curve.kind !== "text" || span.mixed || width < 14) continue;
    const fitting = shortened(span.text, Math.floor(width / 7));
    painter.text(from + 4, y + bandHeight / 2, fitting, themeColor("text"));
  }
}

// Paints curves over time: {points | spans, kind, isBand, axis, unit, color, dashes, style}.
export function paintChart(painter, layout, curves, view, ranges) {
  const {x, y, plotWidth, plotHeight} = layout;
  paintTimeAxis(painter, layout, view, "s");
  const toX = scale(view.from, view.to, x, plotWidth);
  const lines = curves.filter((curve) => !curve.isBand);
  for (const axis of [0, 1]) {
    const onAxis = lines.filter((curve) => curve.axis === axis);
    if (onAxis.length === 0) continue;
    const units = [...new Set(onAxis.map((curve) => curve.unit).filter(Boolean))];
    paintValueAxis(painter, layout, axis, ranges[axis], units.join(", "));
  }
  painter.clip(x, 0, plotWidth, layout.height);
  for (const curve of lines) {
    const [low, high] = ranges[curve.axis];
    painter.clip(x, y - 1, plotWidth, plotHeight + 2);
    const toY = scale(low, high, y + plotHeight, -plotHeight);
    if (curve.tolerance) paintTolerance(painter, curve, toX, toY);
    if (curve.points) paintCurve(painter, layout, curve, toX, toY);
    painter.unclip();
  }
  curves.filter((curve) => curve.isBand).forEach((curve, place) => {
    if (curve.spans) paintBand(painter, layout, curve, place, toX);
  });
  painter.unclip();
  if (plotHeight > 0) {
    painter.lines([[x, y, x, y + plotHeight, x + plotWidth, y + plotHeight]], themeColor("line"), 1);
  }
}

function pairRange(pairs, offset) {
  const points = new Float64Array(pairs.length);
  for (let i = offset; i < pairs.length; i += 2) points[i - offset + 1] = pairs[i];
  return axisRange([{axis: 0, points}], 0, {from: -1, to: 1});
}

// Paints curves of pairs against each other: {pairs, color, dashes, style, xLabel, yLabel}.
export function paintPairs(painter, layout, curves) {
  const {x, y, plotWidth, plotHeight} = layout;
  const filled = curves.filter((curve) => curve.pairs?.length > 0);
  const rangeOver = (offset) => filled.map((curve) => pairRange(curve.pairs, offset))
    .reduce(([low, high], [a, b]) => [Math.min(low, a), Math.max(high, b)], [Infinity, -Infinity]);
  if (filled.length === 0) return;
  const [left_, right_] = rangeOver(0);
  const [low, high] = rangeOver(1);
  paintTimeAxis(painter, layout, {from: left_, to: right_}, "");
  paintValueAxis(painter, layout, 0, [low, high], filled[0].yLabel);
  painter.text(x + plotWidth, y + plotHeight - 9, shortened(filled[0].xLabel, 60),
               themeColor("quiet"), "right");
  painter.clip(x, y, plotWidth, plotHeight);
  const toX = scale(left_, right_, x, plotWidth);
  const toY = scale(low, high, y + plotHeight, -plotHeight);
  for (const curve of filled) {
    const pieces = [[]];
    for (let i = 0; i < curve.pairs.length; i += 2) {
      if (!isFinite(curve.pairs[i]) || !isFinite(curve.pairs[i + 1])) pieces.push([]);
      else pieces[pieces.length - 1].push(toX(curve.pairs[i]), toY(curve.pairs[i + 1]));
    }
    const lines = pieces.filter((piece) => piece.length > 0);
    if (curve.style === "points") lines.forEach((piece) => painter.dots(piece, curve.color, 2.5));
    else painter.lines(lines, curve.color, 1.2, curve.dashes);
  }
  painter.unclip();
}
