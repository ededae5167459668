// Formats numbers and times for display.

const kNothing = '–';
const exact = new Intl.NumberFormat('en');
const short = new Intl.NumberFormat('en', {notation: 'compact', maximumFractionDigits: 1});

export const orNothing = (format) => (value) => value === null ? kNothing : format(value);
export const exactCount = (value) => exact.format(value);
export const count = (value) => value < 1e7 ? exact.format(value) : short.format(value);

export const shortCount = (value) => short.format(value);

export function rate(value) {
  return value === 0 || value >= 99.95 ? exact.format(Math.round(value)) : value.toFixed(1);
}

export function share(value) {
  const percent = value * 100;
  if (percent === 0) return '0 %';
  return percent < 0.1 ? '<0.1 %' : `${percent.toFixed(percent < 99.95 ? 1 : 0)} %`;
}

export function duration(seconds) {
  const ms = seconds * 1000;
  if (ms >= 9999.5) return `${seconds.toFixed(1)} s`;
  return `${ms >= 99.95 ? exact.format(Math.round(ms)) : ms.toFixed(ms < 9.995 ? 2 : 1)} ms`;
}

export function bytes(value) {
  const units = ['B', 'kB', 'MB', 'GB', 'TB', 'PB'];
  let unit = 0;
  while (value >= 999.5 && unit + 1 < units.length) {
    value /= 1000;
    ++unit;
  }
  return `${value.toFixed(unit > 0 && value < 99.95 ? 1 : 0)} ${units[unit]}`;
}

export function time(seconds) {
  const date = new Date(seconds * 1000);
  const clock = date.toLocaleTimeString('en-GB');
  const isToday = date.toDateString() === new Date().toDateString();
  return isToday ? clock : `${date.toLocaleDateString('en-CA')} ${clock.slice(0, 5)}`;
}

export const plural = (number, noun) => `${exact.format(number)} ${noun}${number === 1 ? '' : 's'}`;
