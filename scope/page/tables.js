// The tables and lists of the page. A row of a table is an array of cells; null is a figure that a run does not have.

const kWorkColumns = [
  ['Operations', (work) => thousands(work.operations)],
  ['ops/s', (work) => rateText(work.operations_per_s)],
  ['GB/s', (work) => work.gigabytes_per_s?.toFixed(3)],
  ['p50', (work) => work.p50_ns && latencyText(work.p50_ns)],
  ['p99', (work) => work.p99_ns && latencyText(work.p99_ns)],
  ['max', (work) => work.max_ns && latencyText(work.max_ns)],
  ['Failures', (work) => thousands(work.failures), (work) => work.failures > 0],
];

function cell(content, doubtful) {
  return el('td', {class: doubtful && 'bad'}, content || absent());
}

function workCells(work) {
  return kWorkColumns.map(([, text, doubtful]) => cell(work && text(work), work && doubtful && doubtful(work)));
}

function rowHeading(text, attributes = {}) {
  return el('th', {scope: 'row', ...attributes}, text);
}

// `words` and `figures`: the titles of the columns that are read as words, and of those with numbers after them.
function table(kind, words, figures, rows) {
  const headings = [
    ...words.map((title) => el('th', {scope: 'col', class: 'words'}, title)),
    ...figures.map((title) => el('th', {scope: 'col'}, title)),
  ];
  const head = headings.length > 0 && el('thead', {}, el('tr', {}, headings));
  return el('div', {class: 'wide'}, el('table', {class: kind}, head || [], el('tbody', {}, rows)));
}

function summaryRow(run, name, headings) {
  const engine = engineOf(run, name);
  const printed = printedOf(run, name);
  const exact = engine && engine.work.busy_fps > 0 ? engine.work.busy_fps : null;
  const offBy = exact && printed && printed.median_fps > 0 ? (printed.median_fps / exact - 1) * 100 : null;
  return [
    ...headings,
    cell(engine && String(engine.threads.length)),
    ...workCells(engine && engine.work),
    cell(printed && rateText(printed.median_fps), engine && engine.short_operations),
    cell(exact && rateText(exact)),
    cell(offBy !== null && percentText(Math.round(offBy))),
  ];
}

function summaryTable(runs, engines) {
  const several = runs.length > 1;
  const runHeading = (run) => (several ? [rowHeading(run.name)] : []);
  const rows = engines.flatMap((engine) => runs.map((run, i) => {
    const group = el('th', {scope: 'rowgroup', rowspan: several && runs.length}, engine.name);
    const headings = [...(i === 0 ? [group] : []), ...runHeading(run)];
    return el('tr', {class: i === 0 && 'first'}, summaryRow(run, engine.name, headings));
  }));
  for (const run of runs.filter((each) => each.gigabytes_per_s !== null)) {
    rows.push(el('tr', {class: 'first'}, rowHeading('all'), runHeading(run), el('td', {colspan: 3}),
        cell(run.gigabytes_per_s.toFixed(3)), el('td', {colspan: 7})));
  }
  const figures = kWorkColumns.map(([title]) => title);
  return table('figures', several ? ['Engine', 'Run'] : ['Engine'],
      ['Threads', ...figures, 'Printed fps', 'Exact fps', 'Off by'], rows);
}

// The columns of the medians: the figures, in the order in which the runs have them.
function medianColumns(runs) {
  const titles = new Map();
  for (const {figure, unit} of runs.flatMap((run) => run.medians)) titles.set(figure, `${figure} (${unit})`);
  return [...titles];
}

// The same figures of the seconds after the warm-up, which differ from those of the whole run.
function medianTable(data) {
  const {runs} = data;
  const several = runs.length > 1;
  const columns = medianColumns(runs);
  const engines = [...data.engines, {name: 'total'}].filter(({name}) =>
    runs.some((run) => run.medians.some((entry) => entry.engine === name)));
  if (engines.length === 0) return [];
  const rows = engines.flatMap(({name}) => runs.map((run) => el('tr', {},
      rowHeading(name === 'total' ? 'all' : name), several ? rowHeading(run.name) : [],
      columns.map(([figure]) => {
        const entry = run.medians.find((each) => each.engine === name && each.figure === figure);
        return cell(entry && shortNumber(entry.median));
      }))));
  return [el('h3', {}, `Medians of the seconds after the warm-up of ${data.warmup_s} s, as compare takes them`),
    table('figures medians', several ? ['Engine', 'Run'] : ['Engine'], columns.map(([, title]) => title), rows)];
}

function threadTable(runs) {
  const several = runs.length > 1;
  const rows = runs.flatMap((run) => run.engines.flatMap((engine) => engine.threads.map((thread) => el('tr', {},
      several ? rowHeading(run.name) : [], rowHeading(engine.name), cell(String(thread.thread)),
      workCells(thread.work), cell(thread.work.busy_fps > 0 && rateText(thread.work.busy_fps))))));
  if (rows.length === 0) return [];
  const figures = kWorkColumns.map(([title]) => title);
  return el('details', {}, el('summary', {}, 'Each thread'),
      table('figures', several ? ['Run', 'Engine'] : ['Engine'], ['Thread', ...figures, 'Exact fps'], rows));
}

// Warnings that have a time are numbered as on the charts.
function warningList(runs) {
  const told = runs.filter((run) => run.warnings.length > 0);
  if (told.length === 0) return el('p', {}, 'None.');
  return el('div', {class: 'warnings'}, told.flatMap((run) => [
    ...(runs.length > 1 ? [el('h3', {}, run.name)] : []),
    el('ul', {}, run.warnings.map((warning) => el('li', {},
        warning.mark ? [el('span', {class: 'mark'}, warning.mark), ' '] : [], warning.text,
        warning.mark ? absent(` from ${warning.time_s.toFixed(0)} s on`) : []))),
  ]));
}

// One row a source, however many runs there are.
function counterTable(runs) {
  const sources = [...new Set(runs.flatMap((run) => run.counter_sources.map((entry) => entry.source)))];
  if (sources.length === 0) return el('p', {}, 'None were looked for.');
  const rows = sources.map((source) => el('tr', {}, rowHeading(source), runs.map((run) => {
    const entry = run.counter_sources.find((each) => each.source === source);
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

// Title and text of what a run says of itself.
const kRunRows = [
  ['Folder', (run) => run.folder],
  ['Label', (run) => run.label || '–'],
  ['Started (UTC)', (run) => run.started],
  ['Duration', (run) => `${run.duration_s.toFixed(1)} s`],
  ['State', stateText],
  ['End of the benchmark', endText],
  ['Configuration', (run) => run.config.path],
  ['Levels', (run) => Object.entries(run.config.levels).map(([engine, level]) => `${engine} ${level}`).join(', ')],
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
