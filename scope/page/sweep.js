// SPDX-License-Identifier: Apache-2.0

// The page of a sweep: where the bandwidth saturates, its map over the levels, and the figures of each point.

const kTotalName = 'total';
const kSaturatedPercent = 5; // below the best

function valuesOf(point, engine, figure) {
  return point.figures.find((each) => each.engine === engine && each.figure === figure);
}

function bandwidthOf(point, engine) {
  return valuesOf(point, engine, 'bandwidth')?.median ?? null;
}

function levelsText(levels) {
  return Object.entries(levels).map(([name, level]) => `${name}=${level}`).join(' ');
}

function isSame(levels, others) {
  return Object.entries(levels).every(([name, level]) => others[name] === level);
}

// Total bandwidth first. Engines whose section was not swept have a map, but do not saturate.
function saturationsOf(sweep) {
  const total = sweep.saturation ? [{engine: kTotalName, ...sweep.saturation}] : [];
  return [...total, ...sweep.saturations];
}

function saturationRow(sweep, found, scale) {
  const pointAt = (levels) => sweep.points.find((point) => isSame(levels, point.levels));
  const valueAt = (levels) => bandwidthOf(pointAt(levels), found.engine);
  const {from_best_percent: value, low_percent: low, high_percent: high} = found;
  const unknown = isSame(found.lowest, found.best) ? 'it is the best' : 'not known';
  const kind = low < -kSaturatedPercent ? 'unclear' : 'good';
  return el('tr', {}, rowHeading(found.engine),
      el('td', {class: 'words'}, found.reached ? levelsText(found.lowest) : 'not reached'),
      figureCell(found.reached ? valueAt(found.lowest) : null, kUnitTexts['GB/s']),
      el('td', {class: 'words'}, levelsText(found.best)), figureCell(valueAt(found.best), kUnitTexts['GB/s']),
      el('td', {class: 'drawn'}, value !== null ? intervalBar({value, low, high}, scale, kind) : absent(unknown)));
}

function saturationSection(sweep) {
  const found = saturationsOf(sweep);
  if (found.length === 0) return section('Saturation', el('p', {}, 'No bandwidth was recorded, so there is none.'));
  const limits = found.flatMap((each) => [each.low_percent ?? 0, each.high_percent ?? 0]);
  const scale = {end: scaleEnd(limits, kSaturatedPercent), tolerance: kSaturatedPercent};
  const titles = ['', 'Saturates at', 'GB/s', 'Best at', 'GB/s', 'Difference from the best'];
  return section('Saturation', listOf(found.map(({sentence}) => sentence)),
      table('figures saturations', titles, [], found.map((each) => saturationRow(sweep, each, scale))),
      el('p', {class: 'absent'}, `The band is ${kSaturatedPercent} %, the line the interval of 95 % over the repeats. ` +
        'With one run at a point it is not known.'));
}

// One swept section: the bandwidth over its levels. The dots are the runs, the lines go through their medians.
function curveCharts(sweep, engines) {
  const [[axis, levels]] = Object.entries(sweep.grid);
  const total = engines.length > 1 ? [[kTotalName, kTotalColour]] : []; // that of one engine is the engine's
  const names = [...engines.map(({name, colour}) => [name, colour || kMoreColours[0]]), ...total];
  const runsAt = (point, name) => valuesOf(point, name, 'bandwidth')?.values ?? [];
  const lines = names.map(([name, colour]) => ({
    name, group: name, colour, dash: name === kTotalName ? kDashes[1] : [], marker: 'circle', weight: kStrong,
    points: sweep.points.map((point) => ({x: point.levels[axis], y: bandwidthOf(point, name)})),
  })).filter(isDrawn);
  const dots = lines.map((line) => ({
    ...line, name: `${line.name}, a run`, weight: kMiddling, loose: true,
    points: sweep.points.flatMap((point) => runsAt(point, line.name).map((y) => ({x: point.levels[axis], y}))),
  }));
  if (lines.length === 0) return [];
  const beside = levels.length === 1 ? 1 : 0; // an axis needs a length
  const marks = sweep.saturation?.reached ? [{x: sweep.saturation.lowest[axis], text: 'saturates'}] : [];
  return [{id: 'curve', title: `Bandwidth over the level of ${axis}`, broad: true, marks,
    x: {title: `Level of ${axis} (threads)`, min: levels[0] - beside, max: levels[levels.length - 1] + beside, whole: true},
    y: {title: 'Bandwidth (GB/s)'}, series: [...lines, ...dots]}];
}

// Two swept sections: a cell for each point, darker with more bandwidth.
function heatMap(sweep, engine, title, found) {
  const [[down, rows], [across, columns]] = Object.entries(sweep.grid);
  const pointAt = (row, column) => sweep.points.find(({levels}) => levels[down] === row && levels[across] === column);
  const top = greatest(sweep.points.map((point) => bandwidthOf(point, engine)));
  const wordsOf = ({levels}) => [...(found?.reached && isSame(found.lowest, levels) ? ['saturates'] : []),
    ...(found && isSame(found.best, levels) ? ['best'] : [])];
  const cell = (point) => {
    const value = bandwidthOf(point, engine);
    const words = wordsOf(point);
    const made = el('td', {class: words.length > 0 && 'marked'}, value === null ? absent() : kUnitTexts['GB/s'](value),
        words.map((word) => el('small', {}, word)));
    if (value !== null && top > 0) made.style.setProperty('--share', String(value / top));
    return made;
  };
  const body = rows.map((row) => el('tr', {}, rowHeading(`${down}=${row}`),
      columns.map((column) => cell(pointAt(row, column)))));
  return el('figure', {}, el('figcaption', {}, title),
      table('heat', ['', ...columns.map((column) => `${across}=${column}`)], [], body));
}

function mapSection(sweep, engines, curves) {
  const title = 'Bandwidth (GB/s)';
  if (Object.keys(sweep.grid).length === 1 && curves.length > 0) return [section(title, chartFigures(curves, ''))];
  const measured = [{name: kTotalName, title: 'All engines'}, ...(engines.length > 1 ? engines : [])]
      .filter(({name}) => sweep.points.some((point) => bandwidthOf(point, name) !== null));
  if (Object.keys(sweep.grid).length !== 2 || measured.length === 0) return [];
  const found = saturationsOf(sweep);
  return [section(title, el('div', {class: 'charts'}, measured.map(({name, title: words}) =>
    heatMap(sweep, name, words, found.find(({engine}) => engine === name)))))];
}

// Lowest and highest run of the point, beside the median.
function spanText({median, values}) {
  const [low, middle, high] = [Math.min(...values), median, Math.max(...values)].map(shortNumber);
  return low === high ? middle : `${middle} (${low} to ${high})`;
}

// Exact rate and bandwidth of the engine; the printed rate if it has no exact one.
function pointColumns(sweep, engine) {
  const unitOf = (figure) => sweep.points.map((point) => valuesOf(point, engine, figure)).find((each) => each)?.unit;
  const columns = (figures) => figures.filter(unitOf).map((figure) => ({engine, figure, title: `${engine} ${unitOf(figure)}`}));
  const exact = columns(['ops', 'bandwidth']);
  return exact.length > 0 ? exact : columns(['printed']);
}

function pointSection(sweep) {
  const settings = sweep.margin?.settings.map(({name}) => name) ?? [];
  const axes = [...Object.keys(sweep.grid), ...settings];
  const columns = [...sweep.engines.map(({name}) => name), kTotalName].flatMap((engine) => pointColumns(sweep, engine));
  const levelCell = ([axis, level]) =>
    (axis === axes[0] ? rowHeading(String(level), {'data-value': level}) : figureCell(level, String));
  const valueCell = (found) => figureCell(found?.median, () => spanText(found));
  // The search for an edge leaves most points out.
  const points = sweep.points.filter(({runs}) => runs > 0 || !sweep.margin);
  const placeOf = (point) => [...Object.entries(point.levels), ...settings.map((name) => [name, point.settings[name]])];
  const rows = points.map((point) => el('tr', {}, placeOf(point).map(levelCell),
      figureCell(point.runs, String), columns.map(({engine, figure}) => valueCell(valuesOf(point, engine, figure)))));
  const titled = [...axes, 'Runs'].map((title) => ({title, lower_is_better: true}));
  return section('Points', el('p', {class: 'absent'},
      `Medians of the runs after a warm-up of ${sweep.warmup_s} s, with the lowest and the highest run.`),
      table('figures points', [], [...titled, ...columns], rows));
}

function ofTwoPoints(comparison) {
  return comparisonSections(comparison, 'Comparison of the two points', sideLines(comparison));
}

function showSweep(sweep) {
  const engines = sweep.engines.filter((engine) => engine.load);
  const curves = sweep.margin ? [] : curveCharts(sweep, engines);
  const done = sweep.points.reduce((sum, point) => sum + point.runs, 0);
  const facts = [`sweep of ${sweep.started}`, `${counted(done, 'run')} at ${counted(sweep.points.length, 'point')}`,
    ...(sweep.complete ? [] : ['incomplete']), `seed ${sweep.seed}`];
  showPage({
    heading: 'stress_scope sweep',
    title: sweep.folder,
    heads: [el('p', {}, el('strong', {}, sweep.folder), ` ${facts.join(', ')}`)],
    figures: [],
    sections: [...(sweep.margin ? marginSections(sweep.margin) : [saturationSection(sweep), ...mapSection(sweep, engines, curves)]),
      pointSection(sweep),
      section('Notes', sweep.notes.length > 0 ? listOf(sweep.notes) : el('p', {}, 'None.')),
      ...(sweep.comparison ? ofTwoPoints(sweep.comparison) : [])],
    charts: Object.keys(sweep.grid).length === 1 ? curves : [],
  });
}
