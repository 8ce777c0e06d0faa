// SPDX-License-Identifier: Apache-2.0

// The margin map of a sweep over settings of a board: which points pass and which fail, with the performance beside it.

const kMarginKinds = {pass: 'good', fail: 'bad', hang: 'bad', unknown: 'aside'};
const kMostReasonRows = 100;
const kMostNames = 3;

function settingsText(margin, point) {
  return margin.settings.map(({name}) => `${name}=${point.settings[name]}`).join(' ');
}

function marginClasses(margin, index) {
  const point = margin.points[index];
  return [kMarginKinds[point.state], point.inferred && 'inferred', index === margin.chosen && 'marked'].filter(Boolean).join(' ');
}

function performanceText(margin, point) {
  return point.performance === null ? [] : el('small', {}, `${kUnitTexts[margin.figure.unit](point.performance)} ${margin.figure.unit}`);
}

// Two settings: a cell for each point.
function marginMap(margin) {
  const [down, across] = margin.settings;
  const cell = (index) => el('td', {class: marginClasses(margin, index)}, el('strong', {}, margin.points[index].text),
      performanceText(margin, margin.points[index]));
  const rows = down.values.map((value, i) => el('tr', {}, rowHeading(`${down.name}=${value}`),
      across.values.map((_, j) => cell(i * across.values.length + j))));
  return el('figure', {}, table('margin map', ['', ...across.values.map((value) => `${across.name}=${value}`)], [], rows));
}

function marginRow(margin, index) {
  const point = margin.points[index];
  const from = margin.points[margin.chosen].performance;
  const change = index === margin.chosen || point.performance === null || !(from > 0) ? null : (point.performance / from - 1) * 100;
  return el('tr', {}, rowHeading(settingsText(margin, point)),
      el('td', {class: marginClasses(margin, index)}, el('strong', {}, point.text)),
      figureCell(point.runs, String), figureCell(point.performance, kUnitTexts[margin.figure.unit]),
      figureCell(change, (value) => percentText(value, 2)),
      figureCell(point.failure_rate_below, (value) => `below ${shortNumber(value)}`));
}

function marginTable(margin, indices) {
  const {engine, unit} = margin.figure;
  return table('figures margin', ['', 'Result', 'Runs', `${engine} ${unit}`, 'Change', 'Failure rate, 95 %'], [],
      indices.map((index) => marginRow(margin, index)));
}

function reasonRows(margin) {
  return margin.points.flatMap((point) => point.reasons.map((reason) =>
    el('tr', {}, rowHeading(settingsText(margin, point)), el('td', {class: 'words'}, reason))));
}

// What was not judged of which engine, and where.
function notJudgedTexts(margin) {
  const points = new Map();
  for (const point of margin.points) {
    for (const text of point.not_judged) points.set(text, [...(points.get(text) ?? []), settingsText(margin, point)]);
  }
  const passed = margin.points.filter(({runs, failures}) => runs > failures).length;
  const where = (names) => names.length === passed && passed > 1 ? 'all points that passed' :
    names.slice(0, kMostNames).join(', ') + (names.length > kMostNames ? ` and ${counted(names.length - kMostNames, 'more point')}` : '');
  return [...points].map(([text, names]) => `${text}; at ${where(names)}`);
}

function legendOf(margin, hasUnjudged) {
  return (margin.edge ? ' In brackets: follows from other points, if what is farther from the chosen point fails at least as often.' : '') +
    (hasUnjudged ? ' ?: not all results were judged.' : '');
}

function marginSections(margin) {
  const all = margin.points.map((_, index) => index);
  const near = [margin.chosen, ...margin.neighbours];
  const shown = margin.settings.length === 1 ? all : all.filter((index) => margin.points[index].runs > 0);
  const map = margin.settings.length === 2 ? marginMap(margin) : marginTable(margin, shown);
  const reasons = reasonRows(margin);
  const notJudged = notJudgedTexts(margin);
  const chosen = settingsText(margin, margin.points[margin.chosen]);
  return [
    section('Margin', listOf(margin.sentences), map,
        el('p', {class: 'absent'}, `The frame marks ${chosen}. The grid has ${counted(margin.grid_runs, 'run')}, ${margin.runs} with a result.` +
          legendOf(margin, notJudged.length > 0)),
        margin.doubts.length > 0 ? el('div', {class: 'warnings'}, listOf(margin.doubts)) : []),
    ...(margin.settings.length > 1 ? [section('The point and its neighbours', marginTable(margin, near))] : []),
    ...(reasons.length > 0 ? [section('Why runs failed', table('reasons', ['', 'Reason'], [], reasons.slice(0, kMostReasonRows)),
        reasons.length > kMostReasonRows ? el('p', {}, `${reasons.length - kMostReasonRows} more are in the JSON.`) : [])] : []),
    ...(notJudged.length > 0 ? [section('Not judged', el('p', {}, 'Wrong results of these would not have been found.'),
        listOf(notJudged))] : []),
  ];
}
