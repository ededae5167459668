// A line graph of the history, without axes. Its title describes it.

const kWidth = 90;
const kHeight = 22;
const kSvg = 'http://www.w3.org/2000/svg';

function place(values, highest) {
  const width = kWidth / Math.max(values.length - 1, 1);
  return values.map((value, i) => value === null ? null : [
    (i * width).toFixed(1), (kHeight - 1 - (kHeight - 3) * value / highest).toFixed(1)]);
}

// The line is interrupted where there is no value; a single value is a dot.
function linePath(points) {
  let path = '';
  points.forEach((point, i) => {
    if (!point) return;
    path += points[i - 1] ? `L${point}` : `M${point}`;
    if (!points[i - 1] && !points[i + 1]) path += 'h.1';
  });
  return path;
}

function barPath(points) {
  return points.map(([x, y], i) => points[i] && Number(y) < kHeight - 1
    ? `M${x},${kHeight - 1}V${y}` : '').join('');
}

export class Sparkline {
  constructor(kind) {
    this.kind = kind;
    this.svg = document.createElementNS(kSvg, 'svg');
    this.svg.setAttribute('viewBox', `0 0 ${kWidth} ${kHeight}`);
    this.svg.setAttribute('preserveAspectRatio', 'none');
    this.svg.setAttribute('role', 'img');
    this.svg.setAttribute('class', `spark ${kind}`);
    this.title = this.svg.appendChild(document.createElementNS(kSvg, 'title'));
    this.base = this.svg.appendChild(document.createElementNS(kSvg, 'path'));
    this.base.setAttribute('class', 'base');
    this.base.setAttribute('d', `M0,${kHeight - 1}H${kWidth}`);
    this.area = this.svg.appendChild(document.createElementNS(kSvg, 'path'));
    this.area.setAttribute('class', 'area');
    this.line = this.svg.appendChild(document.createElementNS(kSvg, 'path'));
    this.line.setAttribute('class', 'line');
  }

  // `highest` is the value at full height.
  draw(values, highest, title) {
    const points = place(values, highest || 1);
    const line = this.kind === 'errors' ? barPath(points) : linePath(points);
    this.line.setAttribute('d', values.some((value) => value > 0) ? line : '');
    this.area.setAttribute('d', this.kind === 'requests' && values.length > 0
      ? `${line}V${kHeight - 1}H0Z` : '');
    this.title.textContent = title;
    this.svg.setAttribute('aria-label', title);
  }
}
