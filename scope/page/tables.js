// SPDX-License-Identifier: Apache-2.0

// The tables and lists of the page. A number's cell stores it in data-value, which sorting uses.

// Title, key in the data, and function that formats the value.
const kWorkColumns = [
  ['Operations', 'operations', thousands],
  ['ops/s', 'operations_per_s', rateText],
  ['GB/s', 'gigabytes_per_s', (value) => value.toFixed(3)],
  ['p50', 'p50_ns', latencyText],
  ['p99', 'p99_ns', latencyText],
  ['max', 'max_ns', latencyText],
  ['Failures', 'failures', thousands],
];
const kWorkTitles = kWorkColumns.map(([title]) => title);

// `value` is null or undefined if the run lacks the figure.
function figureCell(value, text, doubtful = false) {
  const isPresent = (value ?? null) !== null;
  return el('td', {class: doubtful && 'bad', 'data-value': isPresent && String(value)}, isPresent ? text(value) : absent());
}

function workCells(work) {
  return kWorkColumns.map(([, key, text]) => {
    const value = work?.[key];
    if (key === 'failures') return figureCell(value, text, value > 0);
    return figureCell(key.endsWith('_ns') ? value || null : value, text);
  });
}

function rowHeading(text, attributes = {}) {
  return el('th', {scope: 'row', ...attributes}, text);
}

// Sorts the rows by a column. Rows without a value come after the others, and fixed rows come last.
function sortRows(heading) {
  const column = heading.cellIndex;
  const body = heading.closest('table').tBodies[0];
  const isWords = heading.classList.contains('words');
  const before = heading.getAttribute('aria-sort');
  const rising = before ? before === 'descending' : isWords;
  for (const other of heading.parentNode.cells) other.removeAttribute('aria-sort');
  heading.setAttribute('aria-sort', rising ? 'ascending' : 'descending');
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

function sortableHeading(title, attributes) {
  const button = el('button', {type: 'button', title: 'Sort'}, title);
  const heading = el('th', {scope: 'col', ...attributes}, button);
  button.addEventListener('click', () => sortRows(heading));
  return heading;
}

// `words` and `figures` are the titles of the text columns and of the number columns after them. A table with numbers
// can be sorted.
function table(kind, words, figures, rows) {
  const wordHeading = (title) => (figures.length > 0 ? sortableHeading(title, {class: 'words'}) :
      el('th', {scope: 'col', class: 'words'}, title));
  const headings = [...words.map(wordHeading), ...figures.map((title) => sortableHeading(title, {}))];
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

function summaryRow(run, name, headings) {
  const engine = engineOf(run, name);
  const printed = printedOf(run, name);
  const exact = engine?.work.busy_fps || null;
  const offBy = exact && printed && printed.median_fps > 0 ? Math.round((printed.median_fps / exact - 1) * 100) : null;
  return [
    ...headings,
    figureCell(engine?.threads.length, String),
    ...workCells(engine?.work),
    figureCell(printed?.median_fps, rateText, engine?.short_operations),
    figureCell(exact, rateText),
    figureCell(offBy, percentText),
  ];
}

function summaryTable(runs, engines) {
  const rows = engines.flatMap((engine) => runs.map((run, i) =>
    el('tr', {class: i === 0 && 'first'}, summaryRow(run, engine.name, workHeadings(runs, run, engine.name)))));
  for (const run of runs.filter((each) => each.gigabytes_per_s !== null)) {
    rows.push(el('tr', {class: 'first', 'data-fixed': ''}, workHeadings(runs, run, 'all'), el('td', {colspan: 3}),
        figureCell(run.gigabytes_per_s, (value) => value.toFixed(3)), el('td', {colspan: 7})));
  }
  return table('figures', workWords(runs), ['Threads', ...kWorkTitles, 'Printed fps', 'Exact fps', 'Off by'], rows);
}

// The columns of the medians: the figures in the order of the runs' data.
function medianColumns(runs) {
  const titles = new Map();
  for (const {figure, unit} of runs.flatMap((run) => run.medians)) titles.set(figure, `${figure} (${unit})`);
  return [...titles];
}

// Medians over the seconds after the warm-up. They differ from the figures of the whole run.
function medianTable(data) {
  const {runs} = data;
  const columns = medianColumns(runs);
  const engines = [...data.engines, {name: 'total'}].filter(({name}) =>
    runs.some((run) => run.medians.some((entry) => entry.engine === name)));
  if (engines.length === 0) return [];
  const rows = engines.flatMap(({name}) => runs.map((run) => el('tr', {},
      workHeadings(runs, run, name === 'total' ? 'all' : name),
      columns.map(([figure]) => figureCell(
          run.medians.find((each) => each.engine === name && each.figure === figure)?.median, shortNumber)))));
  return [el('h3', {}, `Medians of the seconds after the warm-up of ${data.warmup_s} s, as compare takes them`),
    table('figures medians', workWords(runs), columns.map(([, title]) => title), rows)];
}

function threadTable(runs) {
  const rows = runs.flatMap((run) => run.engines.flatMap((engine) => engine.threads.map((thread) => el('tr', {},
      workHeadings(runs, run, engine.name), figureCell(thread.thread, String), workCells(thread.work),
      figureCell(thread.work.busy_fps || null, rateText)))));
  if (rows.length === 0) return [];
  return el('details', {}, el('summary', {}, 'Each thread'),
      table('figures threads', workWords(runs), ['Thread', ...kWorkTitles, 'Exact fps'], rows));
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
  return run.incomplete_reason ? `incomplete: ${run.incomplete_reason}` : 'incomplete';
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
