// SPDX-License-Identifier: Apache-2.0

// The tables and lists of the page. A number's cell stores it in data-value, which sorting uses.

// How figures are shown, by their unit; a count has none.
const kUnitTexts = {
  '': thousands,
  'op/s': rateText,
  'GB/s': (value) => value.toFixed(3),
  'us': (value) => latencyText(Math.round(value * 1e3)),
  'fps': rateText,
};

// `value` is null or undefined if the run lacks the figure.
function figureCell(value, text, doubtful = false) {
  const isPresent = (value ?? null) !== null;
  return el('td', {class: doubtful && 'bad', 'data-value': isPresent && String(value)}, isPresent ? text(value) : absent());
}

// The figures that the meter measured in the work of an engine or of a thread.
function workFigures(data) {
  return data.figures.filter(({measured}) => measured);
}

function workCells(figures, work) {
  return figures.map(({name, unit}) => figureCell(work?.[name], kUnitTexts[unit], name === 'failures' && work?.[name] > 0));
}

function rowHeading(text, attributes = {}) {
  return el('th', {scope: 'row', ...attributes}, text);
}

// Marks the column as the one that the table is sorted by, or turns its direction. Whether values rise now.
function turnHeading(heading) {
  const before = heading.getAttribute('aria-sort');
  const rising = before ? before === 'descending' : heading.classList.contains('words') || 'rising' in heading.dataset;
  for (const other of heading.parentNode.cells) other.removeAttribute('aria-sort');
  heading.setAttribute('aria-sort', rising ? 'ascending' : 'descending');
  return rising;
}

// Sorts the rows by a column. Rows without a value come after the others, and fixed rows come last.
function sortRows(heading) {
  const column = heading.cellIndex;
  const body = heading.closest('table').tBodies[0];
  const isWords = heading.classList.contains('words');
  const rising = turnHeading(heading);
  const valueOf = (row) => (isWords ? row.cells[column].textContent : Number(row.cells[column].dataset.value));
  const hasValue = (row) => isWords || 'value' in row.cells[column].dataset;
  const fixed = [...body.rows].filter((row) => 'fixed' in row.dataset);
  const rest = [...body.rows].filter((row) => !('fixed' in row.dataset));
  const sorted = rest.filter(hasValue).sort((a, b) => {
    const order = isWords ? valueOf(a).localeCompare(valueOf(b)) : valueOf(a) - valueOf(b);
    return rising ? order : -order;
  });
  body.append(...sorted, ...rest.filter((row) => !hasValue(row)), ...fixed);
}

function sortableHeading(title, attributes, sort) {
  const button = el('button', {type: 'button', title: 'Sort'}, title);
  const heading = el('th', {scope: 'col', ...attributes}, button);
  button.addEventListener('click', () => sort(heading));
  return heading;
}

// `words` are the titles of the text columns; `figures` have those of the number columns after them. A table with numbers
// can be sorted. The first click puts the best value of a column on top.
function table(kind, words, figures, rows, sort = sortRows) {
  const wordHeading = (title) => (figures.length > 0 ? sortableHeading(title, {class: 'words'}, sort) :
      el('th', {scope: 'col', class: 'words'}, title));
  const headings = [...words.map(wordHeading), ...figures.map((figure) =>
    sortableHeading(figure.title, {'data-rising': figure.lower_is_better ? '' : null}, sort))];
  const head = headings.length > 0 && el('thead', {}, el('tr', {}, headings));
  const columns = figures.length > 0 && words.length > 1 ? ' two' : '';
  return el('div', {class: 'wide'}, el('table', {class: kind + columns}, head || [], el('tbody', {}, rows)));
}

// The headings of a row: the engine, and the run if there are several.
function workHeadings(runs, run, engine) {
  return [rowHeading(engine), ...(runs.length > 1 ? [rowHeading(run.name)] : [])];
}

function workWords(runs) {
  return runs.length > 1 ? ['Engine', 'Run'] : ['Engine'];
}

// The printed rate stands where the table of figures has it.
function summaryRow(data, run, name, headings) {
  const engine = engineOf(run, name);
  const printed = printedOf(run, name);
  const exact = engine?.work.exact;
  const offBy = exact && printed && printed.median_fps > 0 ? Math.round((printed.median_fps / exact - 1) * 100) : null;
  return [
    ...headings,
    figureCell(engine?.threads.length, String),
    ...data.figures.flatMap((figure) => (figure.measured ? workCells([figure], engine?.work) :
        [figureCell(printed?.median_fps, kUnitTexts[figure.unit], engine?.short_operations)])),
    figureCell(offBy, percentText),
  ];
}

function summaryTable(data, engines) {
  const {runs, figures} = data;
  const rows = engines.flatMap((engine) => runs.map((run, i) =>
    el('tr', {class: i === 0 && 'first'}, summaryRow(data, run, engine.name, workHeadings(runs, run, engine.name)))));
  const at = figures.findIndex(({name}) => name === 'bandwidth');
  for (const run of runs.filter((each) => each.gigabytes_per_s !== null)) {
    rows.push(el('tr', {class: 'first', 'data-fixed': ''}, workHeadings(runs, run, 'all'), el('td', {colspan: at + 1}),
        figureCell(run.gigabytes_per_s, kUnitTexts[figures[at].unit]), el('td', {colspan: figures.length - at})));
  }
  const columns = [{title: 'Threads'}, ...figures, {title: 'Off by'}];
  return table('figures', workWords(runs), columns, rows);
}

// What comparisons and sweeps take of a run. It differs from the figures of the whole run.
function afterWarmupTable(data) {
  const {runs} = data;
  const valueOf = (run, engine, figure) =>
    run.after_warmup.find((each) => each.engine === engine && each.figure === figure)?.value;
  const columns = data.figures.filter(({name}) => runs.some((run) => run.after_warmup.some((each) => each.figure === name)));
  const engines = [...data.engines, {name: 'total'}].filter(({name}) =>
    runs.some((run) => run.after_warmup.some((entry) => entry.engine === name)));
  if (engines.length === 0) return [];
  const rows = engines.flatMap(({name}) => runs.map((run) => el('tr', {},
      workHeadings(runs, run, name === 'total' ? 'all' : name),
      columns.map((figure) => figureCell(valueOf(run, name, figure.name), shortNumber)))));
  const titled = columns.map((figure) => ({...figure, title: `${figure.name} (${figure.unit})`}));
  return [el('h3', {}, `After the warm-up of ${data.warmup_s} s, as comparisons and sweeps take it`),
    table('figures after-warmup', workWords(runs), titled, rows)];
}

function threadTable(data) {
  const {runs} = data;
  const figures = workFigures(data);
  const rows = runs.flatMap((run) => run.engines.flatMap((engine) => engine.threads.map((thread) => el('tr', {},
      workHeadings(runs, run, engine.name), figureCell(thread.thread, String), workCells(figures, thread.work)))));
  if (rows.length === 0) return [];
  return el('details', {}, el('summary', {}, 'Each thread'),
      table('figures threads', workWords(runs), [{title: 'Thread'}, ...figures], rows));
}

// Warnings with a time have the same numbers as on the charts.
function warningList(runs) {
  const withWarnings = runs.filter((run) => run.warnings.length > 0);
  if (withWarnings.length === 0) return el('p', {}, 'None.');
  return el('div', {class: 'warnings'}, withWarnings.flatMap((run) => [
    ...(runs.length > 1 ? [el('h3', {}, run.name)] : []),
    el('ul', {}, run.warnings.map((warning) => el('li', {},
        warning.mark ? [el('span', {class: 'mark'}, warning.mark), ' '] : [], warning.text,
        warning.mark ? absent(` from ${warning.time_s.toFixed(0)} s on`) : []))),
  ]));
}

// The errors of the runs, and how much was looked at. Nothing if nothing was looked for.
function errorParts(runs) {
  const kMostRows = 100;
  const several = runs.length > 1;
  return runs.filter((run) => run.checks.length > 0 || run.error_list.length > 0).flatMap((run) => {
    const cell = (value) => el('td', {}, value === null || value === '' ? absent() : String(value));
    const rows = run.error_list.slice(0, kMostRows).map((error) => el('tr', {class: 'failed'}, rowHeading(error.source),
        ...['time_s', 'thread', 'operation', 'what', 'offset', 'address', 'physical', 'expected', 'found', 'bits', 'note']
            .map((key) => cell(key === 'time_s' ? error.time_s.toFixed(3) : error[key]))));
    const titles = ['Source', 'Time (s)', 'Thread', 'Operation', 'What', 'Offset', 'Address', 'Physical', 'Expected', 'Found',
      'Bits', 'Note'];
    const sum = Object.values(run.errors).reduce((all, count) => all + count, 0);
    return [
      ...(several ? [el('h3', {}, run.name)] : []),
      el('p', {class: sum > 0 && 'failed'}, sum > 0 ? `${thousands(sum)} in all.` : 'None found.'),
      el('ul', {}, run.checks.map((text) => el('li', {}, text))),
      ...(rows.length > 0 ? [table('errors', titles, [], rows)] : []),
    ];
  });
}

// How often the engines missed their deadlines. Nothing if none had one.
function deadlineParts(runs) {
  return runs.filter((run) => run.deadline_texts.length > 0).flatMap((run) => [
    ...(runs.length > 1 ? [el('h3', {}, run.name)] : []),
    el('ul', {}, run.deadline_texts.map((text) => el('li', {}, text))),
  ]);
}

// One row per source, for all runs together.
function counterTable(runs) {
  const sources = [...new Set(runs.flatMap((run) => run.counters.map((entry) => entry.source)))];
  if (sources.length === 0) return el('p', {}, 'None were looked for.');
  const rows = sources.map((source) => el('tr', {}, rowHeading(source), runs.map((run) => {
    const entry = run.counters.find((each) => each.source === source);
    if (!entry) return el('td', {}, absent('not looked for'));
    return el('td', {}, entry.present ? 'recorded' : `absent: ${entry.reason}`);
  })));
  return table('counters', ['Source', ...(runs.length > 1 ? runs.map((run) => run.name) : ['State'])], [], rows);
}

function stateText(run) {
  if (run.complete) return 'complete';
  return run.incomplete_reason ? `incomplete: ${run.incomplete_reason.replaceAll('\n', '; ')}` : 'incomplete';
}

function endText(run) {
  if (run.kind !== 'record') return '';
  return run.signal !== 0 ? `signal ${run.signal}` : `status ${run.exit_status}`;
}

// Title and text of each fact about a run.
const kRunRows = [
  ['Folder', (run) => run.folder],
  ['Label', (run) => run.label || '–'],
  ['Started (UTC)', (run) => run.started],
  ['Duration', (run) => `${run.duration_s.toFixed(1)} s`],
  ['State', stateText],
  ['End of the benchmark', endText],
  ['Configuration', (run) => run.config.path],
  ['Recorded by', (run) => run.tool],
];

function conditionsTable(runs) {
  const rows = [
    ...kRunRows.map(([title, text]) => [title, runs.map(text)]),
    ...runs[0].conditions.map(({title}, i) => [title, runs.map((run) => run.conditions[i].text)]),
  ];
  const lines = rows.map(([title, texts]) => {
    const differs = new Set(texts).size > 1;
    const mark = differs ? [el('span', {title: 'differs'}, '≠'), ' '] : [];
    const heading = rowHeading([...mark, title]);
    return el('tr', {class: differs && 'differs'}, heading,
        texts.map((text) => el('td', {}, text === '' ? absent('not known') : text)));
  });
  return table('conditions', runs.length > 1 ? ['', ...runs.map((run) => run.name)] : [], [], lines);
}

function configurationTexts(runs) {
  return runs.filter((run) => run.config.text !== '').map((run) => el('details', {},
      el('summary', {}, `Configuration file ${run.config.path}${runs.length > 1 ? ` of ${run.name}` : ''}`),
      el('pre', {}, run.config.text)));
}
