// SPDX-License-Identifier: Apache-2.0

// The page of a comparison: the answer, the interval of each figure, what else differs, then the runs on common axes.

// How answers and verdicts look, from the worst to what is not judged.
const kKinds = {
  'worse': 'bad', 'cannot tell': 'unclear', 'not worse': 'same', 'no difference': 'same', 'better': 'good', 'not judged': 'aside',
};

function sideLines({a, b}) {
  return [['A', a], ['B', b]].map(([letter, {name, runs}]) => el('p', {}, `${letter}: ${name} (${counted(runs.length, 'run')})`));
}

// How the verdicts were made, in a sentence or two.
function methodText(comparison) {
  const judged = comparison.figures.filter(({verdict}) => verdict !== 'not judged').length;
  const from = `After the first ${comparison.skip_s} s of each run. `;
  if (Math.min(comparison.a.runs.length, comparison.b.runs.length) < 2) {
    return `${from}No intervals and no verdicts: they need two runs a side or more.`;
  }
  const each = Number((comparison.figure_confidence * 100).toPrecision(3));
  const all = `; those of the ${judged} judged figures together: ${shortNumber(comparison.confidence * 100)} %`;
  const together = judged > 1 ? all : '';
  return `${from}Intervals of ${each} %${together}.`;
}

function answerSection(comparison, title, sides) {
  return section(title, el('p', {class: `answer ${kKinds[comparison.answer]}`}, comparison.sentence), ...sides,
      ...comparison.errors.map((text) => el('p', {}, `Errors: ${text}.`)),
      el('p', {class: 'absent'}, methodText(comparison)));
}

// Larger numbers are not practical, and an exact value would suggest a certainty that is not there.
const kManyRepeats = 9999;

function repeatsText(repeats) {
  return `${repeats > kManyRepeats ? 'more than ' : ''}${thousands(Math.min(repeats, kManyRepeats))} repeats would`;
}

function verdictText(figure) {
  const repeats = figure.verdict === 'cannot tell' && figure.repeats !== null;
  const parts = [figure.verdict, ...(repeats ? [repeatsText(figure.repeats)] : []), figure.note];
  return parts.filter((part) => part !== '').join(': ');
}

// Of the judged figures, or of all if none is judged.
function scaleOf({figures, tolerance_percent: tolerance}) {
  const known = figures.filter((figure) => figure.difference_percent !== null);
  const judged = known.filter(({verdict}) => verdict !== 'not judged');
  const shown = judged.length > 0 ? judged : known;
  const ends = shown.flatMap((figure) => [figure.difference_percent, figure.low_percent ?? 0, figure.high_percent ?? 0]);
  return {end: scaleEnd(ends, tolerance), tolerance};
}

function figureRow(figure, scale) {
  const {difference_percent: value, low_percent: low, high_percent: high} = figure;
  const kind = kKinds[figure.verdict];
  const signed = (percent) => figureCell(percent, (known) => percentText(known, 2));
  const title = figure.figure + (figure.unit ? ` (${figure.unit})` : '');
  return el('tr', {class: kind}, rowHeading(figure.engine), rowHeading(title),
      el('td', {class: 'drawn', 'data-value': value},
          value === null ? absent() : intervalBar({value, low, high}, scale, kind)),
      el('td', {class: `words verdict ${kind}`, 'data-value': Object.keys(kKinds).indexOf(figure.verdict)}, verdictText(figure)),
      signed(value), signed(low), signed(high), figureCell(figure.a, shortNumber), figureCell(figure.b, shortNumber));
}

function verdictTable(comparison, place) {
  const scale = scaleOf(comparison);
  const titles = ['Interval', 'Verdict', 'B − A', 'From', 'To', 'A', 'B'];
  const columns = titles.map((title) => ({title, lower_is_better: title === 'Verdict'})); // the worst first
  const shown = table('figures verdicts', [place, 'Figure'], columns,
      comparison.figures.map((figure) => figureRow(figure, scale)));
  shown.querySelector('thead').append(el('tr', {}, el('th', {}), el('th', {}), el('td', {class: 'drawn'}, intervalScale(scale)),
      el('td', {colspan: columns.length - 1})));
  return shown;
}

function verdictSection(comparison, place) {
  return section('Verdicts', verdictTable(comparison, place),
      el('p', {class: 'absent'}, 'A dot is the difference of B from A in per cent of A, a line its interval. ' +
        `The band is the tolerance, ±${comparison.tolerance_percent} %. An arrow goes on beyond the scale.`));
}

function listOf(texts) {
  return el('ul', {}, texts.map((text) => el('li', {}, text)));
}

// What no rate shows: troubles, notes on single runs, and conditions that differ.
function findingSection({findings, notes, different}) {
  const worse = findings.filter((finding) => finding.worse).map(({text}) => text);
  const rest = [...findings.filter((finding) => !finding.worse).map(({text}) => text), ...notes];
  const rows = different.map(({name, a, b}) => el('tr', {}, rowHeading(name), el('td', {}, a), el('td', {}, b)));
  const parts = [
    ...(worse.length > 0 ? [el('h3', {}, 'B is worse'), el('div', {class: 'warnings'}, listOf(worse))] : []),
    ...(rest.length > 0 ? [el('h3', {}, 'Notes'), listOf(rest)] : []),
    ...(rows.length > 0 ? [el('h3', {}, 'Conditions that differ'), table('conditions', ['', 'A', 'B'], [], rows)] : []),
  ];
  return section('Findings', ...(parts.length > 0 ? parts : [el('p', {}, 'None.')]));
}

// The sections of a comparison without its runs. `sides` name A and B, `place` what figures belong to.
function comparisonSections(comparison, title, sides = [], place = 'Engine') {
  return [answerSection(comparison, title, sides), verdictSection(comparison, place), findingSection(comparison)];
}

function more(title, ...content) {
  return el('details', {}, el('summary', {}, title), ...content);
}

function runsSection(data, engines, totals) {
  const {runs} = data.report;
  const all = data.a.runs.length + data.b.runs.length;
  const which = runs.length < all ? `The first ${runs.length} of ${all} runs are drawn. ` : '';
  return section('The runs', el('p', {class: 'absent'}, `${which}Lines of A are solid, those of B are dashed.`),
      chartFigures(totals, ''), more('The whole runs', summaryTable(data.report, engines), ...afterWarmupTable(data.report)),
      more('Warnings', warningList(runs)), more('Conditions', conditionsTable(runs), counterTable(runs)));
}

function showComparison(data) {
  const {report} = data;
  numberWarnings(report.runs);
  const engines = report.engines.filter((engine) => engine.load);
  const charts = new Charts(report, engines);
  const totals = charts.totals();
  const ofEngines = engines.map((engine) => charts.ofEngine(engine.name));
  const latency = charts.latency();
  showPage({
    heading: 'stress_scope comparison',
    title: `${data.answer}: ${data.a.name} | ${data.b.name}`,
    heads: sideLines(data),
    figures: report.figures,
    sections: [...comparisonSections(data, 'Answer'), runsSection(data, engines, totals),
      ...engines.map((engine, i) => engineSection(report.runs, engine, ofEngines[i])),
      ...latencySections(report.runs, latency)],
    charts: [...totals, ...ofEngines.flat(), ...latency],
  });
}
