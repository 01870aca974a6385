// Numbers as people read them.

const units = [
  ['s', 1e9],
  ['ms', 1e6],
  ['µs', 1e3],
];

/** Nanoseconds with a unit and so many digits. */
export function timeText(nanoseconds, digits = 4) {
  for (const [unit, size] of units) {
    const value = nanoseconds / size;
    if (Math.abs(value) >= 0.9995) return `${withDigits(value, digits)} ${unit}`;
  }
  return `${Math.round(nanoseconds)} ns`;
}

function withDigits(value, digits) {
  const whole = String(Math.trunc(Math.abs(value))).length;
  return value.toFixed(Math.max(0, digits - whole));
}

export function countText(count) {
  return count.toLocaleString('en-US');
}

export function counted(count, noun) {
  return `${countText(count)} ${noun}${count === 1 ? '' : 's'}`;
}

export function percentText(part, whole) {
  if (!whole) return '';
  const percent = (100 * part) / whole;
  if (percent > 0 && percent < 0.05) return '< 0.1 %';
  return `${percent.toFixed(percent < 9.95 ? 1 : 0)} %`;
}

/** A measured value: short, without a unit. */
export function valueText(value) {
  if (Number.isInteger(value) && Math.abs(value) < 1e7) return countText(value);
  const size = Math.abs(value);
  return size < 1e-3 || size >= 1e7 ? value.toExponential(2) : String(Number(value.toPrecision(4)));
}

/** The hue of a name, in degrees: the same in every report. */
export function hueOf(name) {
  let hash = 2166136261;
  for (let i = 0; i < name.length; i += 1) hash = Math.imul(hash ^ name.charCodeAt(i), 16777619);
  return Math.round((((hash >>> 0) * 0.61803398875) % 1) * 360);
}

/** The next 1, 2 or 5 times a power of ten. */
export function roundStep(least) {
  const power = 10 ** Math.floor(Math.log10(Math.max(least, 1)));
  return [1, 2, 5, 10].map((times) => times * power).find((step) => step >= least) ?? 10 * power;
}
