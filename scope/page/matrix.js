// SPDX-License-Identifier: Apache-2.0

// The page of a matrix: which engines slow whom, with what memory does apart from shared processors.

// What a slowdown is of. Each has a colour, and a shape for who does not see it.
const kCauses = [
  {key: 'total', name: 'In all', kind: 'in-all'},
  {key: 'by_memory', name: 'By memory', kind: 'by-memory'},
  {key: 'by_cpu', name: 'By CPU', kind: 'by-cpu'},
];
const kForestLength = 420; // user units of a drawing
const kForestEdge = 26; // at each end
const kForestStep = 13; // between causes
const kForestHeight = kCauses.length * kForestStep + 9;
const kMostForestRows = 60; // of a victim; the table has all of them
const kFarthest = 2.5; // times the greatest slowdown: intervals beyond are cut

function victimText({victim, level}) {
  return victim === 'latency' ? 'latency' : `${victim}=${level}`;
}

function victimsOf({cells}) {
  return [...new Set(cells.map(victimText))];
}

function isAbove0(slowdown) {
  return (slowdown?.low ?? null) !== null && slowdown.low > 0;
}

// A decimal of a large one means nothing.
function slowdownText(percent) {
  return percentText(percent, Math.abs(percent) < 1000 ? 1 : 0);
}

function slowdownInterval({low, high}) {
  return low === null ? 'no interval' : `${slowdownText(low)} to ${slowdownText(high)}`;
}

// --- the map ---

function mapCell(cell, top) {
  if (!cell?.by_memory) return el('td', {}, absent(cell ? 'no control' : ''));
  const {by_memory: slowdown, total} = cell;
  const made = el('td', {class: isAbove0(slowdown) && 'marked'}, slowdownText(slowdown.percent),
      el('small', {}, slowdownInterval(slowdown)), total ? el('small', {}, `in all ${slowdownText(total.percent)}`) : []);
  if (isAbove0(slowdown)) made.style.setProperty('--share', String(slowdown.percent / top));
  return made;
}

// A row for each mix of aggressors, a column for each victim.
function mapOfVictims(data) {
  const victims = victimsOf(data);
  if (victims.length < 2) return [];
  const top = greatest(data.cells.map(({by_memory: slowdown}) => (isAbove0(slowdown) ? slowdown.percent : 0)));
  const mixes = [...new Set(data.cells.map(({aggressors}) => levelsText(aggressors)))];
  const rows = mixes.map((mix) => el('tr', {}, rowHeading(mix), victims.map((victim) =>
    mapCell(data.cells.find((cell) => victimText(cell) === victim && levelsText(cell.aggressors) === mix), top))));
  return [section('Slowdown by memory', el('figure', {}, table('heat', ['Aggressors', ...victims], [], rows)),
      el('p', {class: 'absent'}, 'A column for each victim. A frame: the interval is above 0; there, darker is slower. ' +
        'Empty: not recorded, as where the victim is an aggressor itself.'))];
}

// --- the intervals ---

// The drawings of a victim have the same scale. An interval that is far longer than any slowdown is cut.
function slowdownScale(cells) {
  const found = cells.flatMap((cell) => kCauses.map(({key}) => cell[key]).filter(Boolean));
  const farthest = Math.max(kMostEnd, kFarthest * greatest(found.map(({percent}) => Math.abs(percent))));
  const reach = (sign) => Math.min(farthest, greatest(found.flatMap(({percent, low, high}) => [percent, low ?? 0, high ?? 0])
      .map((value) => sign * value)));
  const [begin, end] = [-reach(-1), Math.max(1, reach(1))];
  return {begin, end, step: roundedUp((end - begin) / 4)};
}

function forestAt(percent, {begin, end}) {
  const inside = Math.max(begin, Math.min(end, percent));
  return kForestEdge + (inside - begin) / (end - begin) * (kForestLength - 2 * kForestEdge);
}

function forestTicks({begin, end, step}) {
  const first = Math.ceil(begin / step);
  return Array.from({length: Math.floor(end / step) - first + 1}, (_, i) => Number(((first + i) * step).toPrecision(6)));
}

function shapeOf(kind, x, y) {
  if (kind === 'by-memory') return svg('circle', {class: `value ${kind}`, cx: x, cy: y, r: 4});
  const points = kind === 'by-cpu' ? [[-4, -4], [4, -4], [4, 4], [-4, 4]] : [[0, -5], [5, 0], [0, 5], [-5, 0]];
  return svg('polygon', {class: `value ${kind}`, points: points.map(([dx, dy]) => `${x + dx},${y + dy}`).join(' ')});
}

// The end of an interval; an arrow if it is beyond the scale.
function forestLimit(limit, scale, kind, y) {
  const x = forestAt(limit, scale);
  const isBeyond = limit < scale.begin || limit > scale.end;
  const back = x - (isBeyond ? Math.sign(limit) * 7 : 0);
  return svg('polyline', {class: `limit ${kind}`, points: `${back},${y - 4} ${x},${y} ${back},${y + 4}`});
}

function forestMarks({percent, low, high}, scale, kind, y) {
  const marks = low === null ? [] : [
    svg('line', {class: `interval ${kind}`, x1: forestAt(low, scale), x2: forestAt(high, scale), y1: y, y2: y}),
    ...[low, high].map((limit) => forestLimit(limit, scale, kind, y))];
  return [...marks, shapeOf(kind, forestAt(percent, scale), y)];
}

function forestSvg(words, height, parts) {
  return svg('svg', {class: 'bar', role: 'img', 'aria-label': words, viewBox: `0 0 ${kForestLength} ${height}`}, parts);
}

function forestDrawing(cell, scale) {
  const grid = forestTicks(scale).map((percent) => svg('line', {class: percent === 0 ? 'zero' : 'grid',
    x1: forestAt(percent, scale), x2: forestAt(percent, scale), y1: 0, y2: kForestHeight}));
  const drawn = kCauses.map((cause, at) => ({...cause, slowdown: cell[cause.key], y: (at + 0.7) * kForestStep}))
      .filter(({slowdown}) => slowdown);
  const words = drawn.map(({name, slowdown}) => `${name} ${slowdownText(slowdown.percent)}, ${slowdownInterval(slowdown)}`);
  return forestSvg(words.join('; '), kForestHeight,
      [...grid, ...drawn.flatMap(({slowdown, kind, y}) => forestMarks(slowdown, scale, kind, y))]);
}

function forestAxis(scale) {
  const labels = forestTicks(scale).map((percent) => svg('text', {x: forestAt(percent, scale), y: 16, 'text-anchor': 'middle'},
      percentText(percent).replace(' %', '')));
  return forestSvg(`from ${percentText(scale.begin, 0)} to ${percentText(scale.end, 0)}`, 22, labels);
}

function forestTable(cells) {
  const scale = slowdownScale(cells);
  const rows = cells.slice(0, kMostForestRows).map((cell) => el('tr', {}, rowHeading(levelsText(cell.aggressors)),
      el('td', {}, forestDrawing(cell, scale))));
  const axis = el('tr', {}, el('td', {}), el('td', {}, forestAxis(scale)));
  return table('forest', [], [], [axis, ...rows]);
}

function legendOfCauses() {
  const sample = ({kind, name}) => el('span', {}, svg('svg', {class: 'bar', width: 26, height: 14, 'aria-hidden': 'true'},
      svg('line', {class: `interval ${kind}`, x1: 2, x2: 24, y1: 7, y2: 7}), shapeOf(kind, 13, 7)), name);
  return el('p', {class: 'legend'}, kCauses.map(sample));
}

function intervalsSection(data) {
  const parts = victimsOf(data).flatMap((victim) => {
    const cells = data.cells.filter((cell) => victimText(cell) === victim && kCauses.some(({key}) => cell[key]));
    const left = cells.length - kMostForestRows;
    return cells.length === 0 ? [] : [el('h3', {}, victim), forestTable(cells),
      left > 0 ? el('p', {class: 'absent'}, `${left} more are in the table.`) : []];
  });
  if (parts.length === 0) return [];
  return [section('How much slower, with intervals', legendOfCauses(), ...parts,
      el('p', {class: 'absent'}, 'A mark is the slowdown in per cent, a line its interval of 95 %. An arrow goes on beyond the scale. ' +
        'Without a line there is one run a side.'))];
}

// --- the figures ---

function medianOf(values) {
  const sorted = [...values].sort((a, b) => a - b);
  const middle = sorted.length >> 1;
  if (sorted.length === 0) return null;
  return sorted.length % 2 === 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

function slowdownCell(slowdown) {
  return figureCell(slowdown?.percent, (percent) => slowdownText(percent) +
    (slowdown.low === null ? '' : ` (${slowdownInterval(slowdown)})`));
}

function memoryShareCell(share) {
  return figureCell(share?.percent, (percent) => `${percent.toFixed(0)} % (${share.low.toFixed(0)} to ${share.high.toFixed(0)})`);
}

function cellHeadings(cell) {
  return [rowHeading(victimText(cell)), rowHeading(levelsText(cell.aggressors))];
}

function slowdownRow(cell) {
  return el('tr', {}, cellHeadings(cell), kCauses.map(({key}) => slowdownCell(cell[key])), memoryShareCell(cell.memory_share));
}

function valuesRow(cell) {
  const main = ({values}) => figureCell(medianOf(values), (value) =>
    (cell.unit === 'ns' ? `${value.toFixed(0)} ns` : rateText(value)));
  const microseconds = (us) => latencyText(Math.round(us * 1e3));
  const tail = ({p99}) => figureCell(p99?.us, (us) => microseconds(us) +
    (p99.low === null ? '' : ` (${microseconds(p99.low)} to ${microseconds(p99.high)})`));
  const sides = [cell.alone, cell.control, cell.with];
  return el('tr', {}, cellHeadings(cell), sides.map(main), sides.map(tail),
      figureCell(cell.aggressor_cpus, (value) => value.toFixed(2)),
      figureCell(medianOf(cell.control_cpus), (value) => value.toFixed(2)));
}

function cellTable(kind, titles, rows) {
  return table(`figures matrix ${kind}`, ['Victim', 'Aggressors'], titles.map((title) => ({title})), rows);
}

function figuresSection({cells}) {
  if (cells.length === 0) return section('Figures', el('p', {}, 'No run of a victim with aggressors is done yet.'));
  return section('Figures', cellTable('slowdowns', [...kCauses.map(({name}) => name), 'Share of memory'], cells.map(slowdownRow)),
      el('h3', {}, 'What the runs measured'),
      el('p', {class: 'absent'}, 'Medians of the runs: op/s of an engine, ns of the latency of memory. Their 99th percentiles are geometric means, ' +
        'with intervals of 95 %. ' +
        'CPUs: processor time a second.'),
      cellTable('values', ['Alone', 'Control', 'With', 'p99 alone', 'p99 control', 'p99 with', 'CPUs of aggressors', 'of control'],
          cells.map(valuesRow)));
}

function showMatrix(data) {
  const facts = [`matrix of ${data.started}`, counted(data.runs, 'run'), `warm-up ${data.warmup_s} s`,
    ...(data.complete ? [] : ['incomplete']), `seed ${data.seed}`];
  showPage({
    heading: 'stress_scope matrix',
    title: data.folder,
    heads: [el('p', {}, el('strong', {}, data.folder), ` ${facts.join(', ')}`)],
    figures: [],
    sections: [section('What the matrix says', listOf(data.sentences)), ...mapOfVictims(data),
      ...intervalsSection(data), figuresSection(data),
      section('Notes', data.notes.length > 0 ? listOf(data.notes) : el('p', {}, 'None.'))],
    charts: [],
  });
}
