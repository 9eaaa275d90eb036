// Round numbers along an axis.

// Returns {step, values}: about `count` multiples of 1, 2 or 5 times a power of ten in [from, to].
export function ticks(from, to, count) {
  // Not so small that neighbouring multiples of the step are the same number.
  const least = Math.max(Math.abs(from), Math.abs(to)) * 1e-15;
  const rough = Math.max((to / 2 - from / 2) / Math.max(1, count / 2), least);
  if (!(rough > 1e-307)) return {step: 1, values: [from]};
  const power = Math.pow(10, Math.floor(Math.log10(rough)));
  const factor = [1, 2, 5, 10].find((each) => each * power >= rough * 0.999);
  const step = isFinite(factor * power) ? factor * power : power;
  const values = [];
  const first = Math.ceil(from / step - 1e-9);
  const last = Math.floor(to / step + 1e-9);
  for (let i = first; i <= last && values.length < 100; ++i) values.push(i * step);
  return {step, values};
}

export function tickText(value, step) {
  const size = Math.abs(value);
  if (size < step / 1e6) return "0";
  if (size >= 1e7 || size < 1e-4) {
    const digits = Math.floor(Math.log10(size)) - Math.floor(Math.log10(step) + 1e-9);
    return value.toExponential(Math.min(Math.max(digits, 0), 12));
  }
  return value.toFixed(Math.min(Math.max(-Math.floor(Math.log10(step) + 1e-9), 0), 12));
}

// A value for people: as many digits as tell it apart.
export function valueText(value, digits = 7) {
  if (value === undefined || value === null) return "–";
  if (!isFinite(value)) return isNaN(value) ? "NaN" : value > 0 ? "∞" : "−∞";
  return String(Number(value.toPrecision(digits)));
}
