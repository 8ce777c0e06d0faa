// SPDX-License-Identifier: Apache-2.0

// Differences in per cent as drawings in the cells of a table: a dot for the value, a line for its interval, on a band that
// shows the tolerance. All cells of a table have the same scale.

const kBarLength = 220; // user units of a drawing
const kBarHeight = 22;
const kBarEdge = 12; // at each end
const kMostEnd = 100;
const kFewestBands = 2; // the scale shows at least so many times the tolerance

// The least of 1, 2 and 5 times a power of ten that is at least `value`.
function roundedUp(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 5, 10].map((factor) => Number((factor * power).toPrecision(1))).find((round) => round >= value);
}

// Where the scale ends, in per cent in both directions: at the farthest of `values`, but not beyond kMostEnd.
function scaleEnd(values, tolerance) {
  return roundedUp(Math.max(kFewestBands * tolerance, 0.1, Math.min(kMostEnd, greatest(values.map(Math.abs)))));
}

function barAt(percent, end) {
  return kBarLength / 2 + Math.max(-1, Math.min(1, percent / end)) * (kBarLength / 2 - kBarEdge);
}

function barBackground(end, tolerance) {
  const left = barAt(-tolerance, end);
  return [
    svg('rect', {class: 'band', x: left, y: 0, width: barAt(tolerance, end) - left, height: kBarHeight}),
    svg('line', {class: 'zero', x1: barAt(0, end), x2: barAt(0, end), y1: 0, y2: kBarHeight}),
  ];
}

function drawing(words, parts) {
  const size = {viewBox: `0 0 ${kBarLength} ${kBarHeight}`, width: kBarLength, height: kBarHeight};
  return svg('svg', {class: 'bar', role: 'img', 'aria-label': words, ...size}, parts);
}

// The end of an interval; an arrow if it is beyond the scale.
function limitMark(limit, end, kind) {
  const at = barAt(limit, end);
  const back = at - (Math.abs(limit) > end ? Math.sign(limit) * 8 : 0);
  const middle = kBarHeight / 2;
  return svg('polyline', {class: `limit ${kind}`, points: `${back},${middle - 5} ${at},${middle} ${back},${middle + 5}`});
}

// `low` and `high` are null if the interval is not known.
function intervalBar({value, low, high}, {end, tolerance}, kind) {
  const middle = kBarHeight / 2;
  const parts = barBackground(end, tolerance);
  if (low !== null) {
    const across = {x1: barAt(low, end), x2: barAt(high, end), y1: middle, y2: middle};
    parts.push(svg('line', {class: `interval ${kind}`, ...across}), ...[low, high].map((limit) => limitMark(limit, end, kind)));
  }
  if (Math.abs(value) <= end) parts.push(svg('circle', {class: `value ${kind}`, cx: barAt(value, end), cy: middle, r: 4}));
  const limits = low === null ? '' : `, from ${percentText(low, 2)} to ${percentText(high, 2)}`;
  return drawing(percentText(value, 2) + limits, parts);
}

// The scale itself, for the heading of the column.
function intervalScale({end, tolerance}) {
  const label = (percent) => svg('text', {x: barAt(percent, end), y: 15, 'text-anchor': 'middle'},
      percent === 0 ? '0' : percentText(Number(percent.toPrecision(6))));
  return drawing(`from ${percentText(-end)} to ${percentText(end)}`, [-end * 0.8, 0, end * 0.8].map(label));
}
