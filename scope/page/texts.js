// SPDX-License-Identifier: Apache-2.0

// Where texts on a chart stand, so that none lies on another one. Boxes and lines are in pixels.

const kMarkRow = 14; // the height of a mark's text
const kMarkGap = 3; // between the line of a mark and its text
const kPointGap = 5; // between the middle of a point and its text
const kTextRim = 2; // around the text of a point

function markFont() {
  return `bold 12px ${Chart.defaults.font.family}`;
}

function pointFont() {
  return `${Chart.defaults.font.size - 1}px ${Chart.defaults.font.family}`;
}

function overlap(one, other) {
  return one.left < other.right && other.left < one.right && one.top < other.bottom && other.top < one.bottom;
}

function isWithin(box, area) {
  return box.left >= area.left && box.right <= area.right && box.top >= area.top && box.bottom <= area.bottom;
}

// Whether the straight line goes through the box.
function crosses({x1, y1, x2, y2}, {left, right, top, bottom}) {
  let [from, to] = [0, 1]; // the part of the line that is inside
  for (const [begin, way, low, high] of [[x1, x2 - x1, left, right], [y1, y2 - y1, top, bottom]]) {
    if (way === 0 && (begin <= low || begin >= high)) return false;
    if (way === 0) continue;
    const ends = [(low - begin) / way, (high - begin) / way];
    from = Math.max(from, Math.min(...ends));
    to = Math.min(to, Math.max(...ends));
  }
  return from < to;
}

// The lines of a chart that are not hidden, with the points that are drawn.
function shownSets(drawn) {
  return drawn.data.datasets.map((set, at) => ({set, elements: drawn.getDatasetMeta(at).data}))
      .filter((_, at) => drawn.isDatasetVisible(at));
}

// The lines of the intervals of all points, in both directions.
function intervalLines(drawn) {
  const {x, y} = drawn.scales;
  const line = (colour, fromX, fromY, toX, toY) => ({colour, x1: x.getPixelForValue(fromX), y1: y.getPixelForValue(fromY),
    x2: x.getPixelForValue(toX), y2: y.getPixelForValue(toY)});
  return shownSets(drawn).flatMap(({set}) => set.data.flatMap((point) => [
    ...((point.low ?? null) === null ? [] : [line(set.borderColor, point.x, point.low, point.x, point.high)]),
    ...((point.xLow ?? null) === null ? [] : [line(set.borderColor, point.xLow, point.y, point.xHigh, point.y)])]));
}

// Where marks have their lines and texts: {text, colour, line, box}. A text is at the right of its line, else at the left, in the
// first row in which no other text and no other line is. A line begins beside its text, so it can be below others. Where there is
// no room, a mark has a line alone; what it means is told elsewhere, too.
function placeMarks(drawn, marks) {
  const {ctx, chartArea: area, scales} = drawn;
  // Those of a curve are hidden with it.
  const isShown = ({curve}) => curve === undefined || shownSets(drawn).some(({set}) => set.curve === curve);
  const found = marks.filter(isShown).map(({x, text, colour}) => ({at: scales.x.getPixelForValue(x), text, colour}))
      .sort((a, b) => b.at - a.at); // the last one has the least room
  const rows = Array.from({length: Math.floor((area.bottom - area.top) / kMarkRow)}, (_, row) => area.top + row * kMarkRow);
  const placed = [];
  ctx.save();
  ctx.font = markFont();
  for (const {at, text, colour} of found) {
    const width = ctx.measureText(text).width;
    const lineFrom = (top) => ({x1: at, y1: top, x2: at, y2: area.bottom});
    const choice = [at + kMarkGap, at - kMarkGap - width]
        .flatMap((left) => rows.map((top) => ({line: lineFrom(top), box: {left, right: left + width, top, bottom: top + kMarkRow}})))
        .find(({line, box}) => isWithin(box, area) && !placed.some((one) => crosses(one.line, box) ||
            (one.box && (overlap(one.box, box) || crosses(line, one.box)))));
    placed.push({text, colour, ...(choice ?? {line: lineFrom(area.top), box: null})});
  }
  ctx.restore();
  return placed;
}

// Places of a text above and below a point, to the right, to the left and in the middle, the nearest first. From those that are
// farther away a line leads to the point.
function placesBeside({x, y}, width, height, rows) {
  const place = (row, side, left) => {
    const top = side < 0 ? y - kPointGap - (row + 1) * height : y + kPointGap + row * height;
    const box = {left, right: left + width, top, bottom: top + height};
    return {box, leader: row === 0 ? null : {x1: x, y1: y + side * kPointGap,
      x2: Math.max(box.left, Math.min(box.right, x)), y2: side < 0 ? box.bottom : box.top}};
  };
  const lefts = [x + kPointGap, x - kPointGap - width, x - width / 2];
  return Array.from({length: rows}, (_, row) => [-1, 1].flatMap((side) => lefts.map((left) => place(row, side, left)))).flat();
}

// What the text of a point must not lie on.
function obstaclesOf(drawn, sets, marked) {
  const pointsOf = ({elements}) => elements.filter(({skip}) => !skip);
  const aroundPoint = ({x, y}) => ({left: x - kMarkerReach, right: x + kMarkerReach, top: y - kMarkerReach, bottom: y + kMarkerReach});
  const between = (points) => points.slice(1).map(({x, y}, at) => ({x1: points[at].x, y1: points[at].y, x2: x, y2: y}));
  return {boxes: [...marked.flatMap(({box}) => box ?? []), ...sets.flatMap(pointsOf).map(aroundPoint)],
    lines: [...marked.map(({line}) => line), ...intervalLines(drawn), ...sets.flatMap((set) => between(pointsOf(set)))]};
}

// Where the texts of points stand: {text, colour, box, leader}. One that finds no place within so many rows is left out.
function placePointTexts(drawn, marks, rows) {
  const sets = shownSets(drawn);
  const found = sets.flatMap(({set, elements}) => set.data.flatMap(({text}, at) =>
    (text ? [{text, colour: set.borderColor, point: elements[at]}] : [])));
  if (found.length === 0) return [];
  const {ctx, chartArea} = drawn;
  const {boxes, lines} = obstaclesOf(drawn, sets, placeMarks(drawn, marks));
  const isFree = ({box, leader}) => isWithin(box, chartArea) && !boxes.some((one) => overlap(one, box)) &&
    !lines.some((one) => crosses(one, box)) && !(leader && boxes.some((one) => crosses(leader, one)));
  const placed = [];
  ctx.save();
  ctx.font = pointFont();
  // From the right: texts stand to the right, so that lines of those behind pass beside them.
  for (const {text, colour, point} of found.sort((a, b) => b.point.x - a.point.x)) {
    const width = ctx.measureText(text).width + 2 * kTextRim;
    const choice = placesBeside(point, width, Chart.defaults.font.size + kTextRim, rows).find(isFree);
    if (!choice) continue;
    placed.push({text, colour, ...choice});
    boxes.push(choice.box);
    if (choice.leader) lines.push(choice.leader);
  }
  ctx.restore();
  return placed;
}
