// SPDX-License-Identifier: Apache-2.0

// The page of runs.

function section(title, ...content) {
  return el('section', {}, el('h2', {}, title), ...content);
}

function runHead(run) {
  const facts = [`${run.kind} of ${run.started}`, `${run.duration_s.toFixed(1)} s`];
  if (!run.complete) facts.push('incomplete');
  for (const [key, unit] of [['cpu_model', ''], ['build_type', ' build']]) {
    const text = run.conditions.find((condition) => condition.key === key)?.text;
    if (text) facts.push(text + unit);
  }
  return el('p', {}, el('strong', {}, run.name), ` ${facts.join(', ')}`);
}

function engineSection(runs, engine, charts) {
  const failures = runs.filter((run) => failureOf(run, engine.name) !== '').map((run) => el('p', {class: 'failed'},
      `${runs.length > 1 ? `${run.name}: ` : ''}${failureOf(run, engine.name)}.`));
  return section(engine.title, ...failures, chartFigures(charts, `${engine.title}. `));
}

function summarySection(data, engines, totals) {
  const parts = engines.length === 0 ?
      [el('p', {}, 'Nothing was recorded: neither an operation nor a rate line.')] :
      [el('h3', {}, 'The whole run'), summaryTable(data, engines), threadTable(data), ...afterWarmupTable(data)].flat();
  for (const run of data.runs.filter((each) => !each.meter)) {
    parts.push(el('p', {class: 'absent'},
        `${run.name}: recorded without the meter, so there are no operations, bytes and latencies.`));
  }
  return section('Summary', ...parts, chartFigures(totals, ''));
}

// The latency of memory, where a probe measured it. Its charts are the first element of `charts`.
function latencySections(runs, charts) {
  const measured = runs.filter((run) => run.latency_texts.length > 0);
  if (measured.length === 0) return [];
  const texts = measured.flatMap((run) => [...(runs.length > 1 ? [el('h3', {}, run.name)] : []),
    el('ul', {}, run.latency_texts.map((text) => el('li', {}, text)))]);
  return [section('Latency of memory', ...texts, chartFigures(charts, 'Latency of memory. '))];
}

function showReport(data) {
  const engines = data.engines.filter((engine) => engine.load);
  numberWarnings(data.runs);
  const charts = new Charts(data, engines);
  const totals = charts.totals();
  const ofEngines = engines.map((engine) => charts.ofEngine(engine.name));
  const latency = charts.latency();
  const counters = charts.counters();
  const errors = errorParts(data.runs);
  const deadlines = deadlineParts(data.runs);

  showPage({
    heading: 'stress_scope report',
    title: data.runs.map((run) => run.name).join(' | '),
    heads: data.runs.map(runHead),
    figures: data.figures,
    sections: [
      ...(errors.length > 0 ? [section('Errors', ...errors)] : []),
      ...(deadlines.length > 0 ? [section('Deadlines', ...deadlines)] : []),
      section('Warnings', warningList(data.runs)),
      summarySection(data, engines, totals),
      ...engines.map((engine, i) => engineSection(data.runs, engine, ofEngines[i])),
      ...latencySections(data.runs, latency),
      section('Counters of the machine', chartFigures(counters, 'Counters. '), counterTable(data.runs)),
      section('Conditions', conditionsTable(data.runs), configurationTexts(data.runs)),
    ],
    charts: [...totals, ...ofEngines.flat(), ...latency, ...counters],
  });
}
