// SPDX-License-Identifier: Apache-2.0

// The page of curves: latency of memory over bandwidth on common axes, what each curve says, and its points.

const kCurveColours = ['#0072b2', '#d55e00', '#009e73', '#aa4499', ...kMoreColours, '#882255'];
const kTextRows = 8; // so far may the name of a point be away from it; beside the points of another curve it would mislead
const kTails = [{key: 'latency_p99_ns', name: 'p99'}, {key: 'latency_p999_ns', name: 'p99.9'}];

function curveNames({curves}) {
  return curves.map(({folder, mix}) => `${folder} (${mix})`);
}

// A point has its interval in both directions, its name, and a text beside it where one is given and fits.
function curvePoint(point, key, text) {
  return {
    x: point.gb_per_s, y: point[key], name: point.name, text,
    xLow: point.gb_per_s_low, xHigh: point.gb_per_s_high, low: point[`${key}_low`], high: point[`${key}_high`],
  };
}

function curveLine(curve, at, key, style) {
  const points = curve.points.filter((point) => point.gb_per_s !== null && point[key] !== null);
  return {colour: kCurveColours[at % kCurveColours.length], dash: kDashes[at % kDashes.length],
    marker: kMarkers[at % kMarkers.length], weight: kStrong, curve: at,
    points: points.map((point) => curvePoint(point, key, style.labelled && point.name)), ...style};
}

function curveMarks(curves) {
  const several = curves.length > 1;
  const mark = (x, text, at) => ({x, text: several ? `${text} ${at + 1}` : text, curve: at,
    colour: several ? kCurveColours[at % kCurveColours.length] : null});
  return curves.flatMap(({knee, saturation}, at) => [
    ...(knee ? [mark(knee.gb_per_s, 'knee', at)] : []),
    ...(saturation?.reached ? [mark(saturation.gb_per_s, 'saturation', at)] : []),
  ]);
}

function latencyChart(id, title, curves, series) {
  const values = series.flatMap(({points}) => points);
  // Intervals are within the axes, and there is room for texts; but one that is very long does not squeeze the points.
  const end = (value, limit, room) => {
    const most = greatest(values.map((point) => point[value]));
    const farthest = greatest(values.map((point) => point[limit] ?? 0));
    return most > 0 ? Math.max(most, Math.min(farthest, 2 * most)) * room : 1;
  };
  return {id, title, broad: true, tall: true, marks: curveMarks(curves), series: series.filter(isDrawn),
    textRows: curves.length === 1 ? kTextRows : 1,
    x: {title: 'Bandwidth of all engines (GB/s)', min: 0, max: end('x', 'xHigh', 1.15)},
    y: {title: 'Latency of an access to memory (ns)', max: end('y', 'high', 1.1)}};
}

function curvesCharts(data) {
  const {curves} = data;
  const names = curveNames(data);
  const medians = curves.map((curve, at) => curveLine(curve, at, 'latency_p50_ns', {name: names[at], labelled: true}));
  const tails = curves.flatMap((curve, at) => kTails.map(({key, name}, tail) => curveLine(curve, at, key,
      {name: `${names[at]}, ${name}`, weight: kWeights[tail], dash: kDashes[tail]})));
  return [latencyChart('latency', 'Median latency of memory over bandwidth', curves, medians),
    latencyChart('tails', 'Tail of the latency over bandwidth: p99 and p99.9', curves, tails)]
      .filter(({series}) => series.length > 0);
}

function estimateText(from, key) {
  const [value, low, high] = [from[key], from[`${key}_low`], from[`${key}_high`]].map((one) => one ?? null);
  if (value === null) return '–';
  return shortNumber(value) + (low === null ? '' : ` (${shortNumber(low)} to ${shortNumber(high)})`);
}

function estimateCell(from, key) {
  return figureCell(from?.[key], () => estimateText(from, key));
}

function curveRow(curve, name) {
  return el('tr', {}, rowHeading(name), estimateCell(curve.idle, 'latency_p50_ns'), estimateCell(curve.knee, 'gb_per_s'),
      estimateCell(curve.saturation, 'most_gb_per_s'),
      ...(curve.saturation?.reached ? [el('td', {class: 'words'}, curve.saturation.point),
        estimateCell(curve.saturation, 'latency_p50_ns'), estimateCell(curve.saturation, 'latency_p99_ns')] :
        [el('td', {class: 'words'}, 'not reached'), figureCell(null), figureCell(null)]));
}

function answersSection(data) {
  const names = curveNames(data);
  const titles = ['', 'Idle (ns)', 'Knee (GB/s)', 'Most (GB/s)', 'Saturates at', 'There p50 (ns)', 'p99 (ns)'];
  const said = data.curves.flatMap((curve, at) => [
    ...(data.curves.length > 1 ? [el('h3', {}, names[at])] : []),
    listOf([...curve.sentences, ...(curve.latency === '' ? [] : [`The latency is that of ${curve.latency}.`])])]);
  return section('What the curve says', ...said,
      table('figures curves', titles, [], data.curves.map((curve, at) => curveRow(curve, names[at]))));
}

function curvePointRow(point) {
  return el('tr', {}, rowHeading(point.name, {'data-value': point.load}), figureCell(point.runs, String),
      estimateCell(point, 'gb_per_s'), estimateCell(point, 'latency_p50_ns'), estimateCell(point, 'latency_p99_ns'),
      estimateCell(point, 'latency_p999_ns'), figureCell(point.latency_max_ns, shortNumber),
      figureCell(point.interrupted_percent, (percent) => `${percent.toFixed(0)} %`));
}

function curvePointsSection(data) {
  const names = curveNames(data);
  const titles = ['Point', 'Runs', 'GB/s', 'p50 (ns)', 'p99 (ns)', 'p99.9 (ns)', 'Longest (ns)', 'Interrupted'];
  return section('Points', el('p', {class: 'absent'}, 'Means over the repeats, with the interval of 95 %. The longest access is that of all repeats. ' +
    'Interrupted: the share of the bursts in which the probe lost its processor; they are in no figure.'),
      ...data.curves.flatMap((curve, at) => [
        ...(data.curves.length > 1 ? [el('h3', {}, names[at])] : []),
        table('figures points', titles, [], curve.points.map(curvePointRow))]));
}

function curveHead(curve, at, curves) {
  const done = curve.points.reduce((sum, point) => sum + point.runs, 0);
  const facts = [`mix ${curve.mix}`, `curve of ${curve.started}`,
    `${counted(done, 'run')} at ${counted(curve.points.length, 'point')}`, `warm-up ${curve.warmup_s} s`,
    ...(curve.complete ? [] : ['incomplete']), `seed ${curve.seed}`];
  const number = curves.length > 1 ? `${at + 1}: ` : '';
  return el('p', {}, number, el('strong', {}, curve.folder), ` ${facts.join(', ')}`);
}

function showCurves(data) {
  const charts = curvesCharts(data);
  const notes = data.curves.flatMap((curve) => curve.notes.map((note) => (data.curves.length > 1 ? `${curve.folder}: ${note}` : note)));
  showPage({
    heading: 'stress_scope curve',
    title: data.curves.map(({folder}) => folder).join(' | '),
    heads: data.curves.map(curveHead),
    figures: [],
    sections: [...(data.comparison ? comparisonSections(data.comparison, 'Answer', [], 'At') : []),
      answersSection(data), section('Latency over bandwidth', chartFigures(charts, '')), curvePointsSection(data),
      section('Notes', notes.length > 0 ? listOf(notes) : el('p', {}, 'None.'))],
    charts,
  });
}
