// SPDX-License-Identifier: Apache-2.0

// What each chart shows: {id, title, broad, tall, x, y, stacked, stepped, warmupS, marks, textRows, series, beneath}. An axis is
// {title, min, max, log, whole, free}; a series {name, group, colour, weight, dash, marker, fill, loose, points}, whose points
// are {x, y}, y null where the line has a gap; a mark {x, text}. `beneath` are low charts with the same horizontal axis.

// Each engine has its colour. Runs, or the sides of a comparison, differ in dashes and markers, figures in line weight.
const kMoreColours = ['#e69f00', '#56b4e9', '#767676']; // for engines that are not in the program's table
const kCounterColours = ['#4477aa', '#ee6677', '#228833', '#aa3377', '#ccbb44', '#66ccee', '#60656b', '#994455'];
const kCountedUnits = ['errors', 'events']; // counted since the machine's start
const kStripSources = ['load', 'pressure']; // drawn beneath the curves of a run
const kSides = ['A', 'B'];
const kTotalColour = '#60656b';
const kDashes = [[], [7, 4], [2, 3], [10, 3, 2, 3], [14, 5], [5, 2], [10, 3, 2, 3, 2, 3], [1, 5]];
const kMarkers = ['circle', 'rect', 'triangle', 'rectRot', 'cross', 'star', 'crossRot', 'line'];
const kStrong = {width: 2.5, opacity: 1};
const kMiddling = {width: 1.75, opacity: 0.75};
const kFaint = {width: 1.25, opacity: 0.5};
const kWeights = [kStrong, kMiddling, kFaint]; // of the figures of a chart
// The charts of an engine's seconds. The data say which figures each one shows.
const kSecondCharts = {
  rate: {title: 'Rate', axis: 'Operations (1/s)', log: false},
  bandwidth: {title: 'Bandwidth', axis: 'Bandwidth (GB/s)', log: false},
  latency: {title: 'Latency of an operation', axis: 'Latency (UNIT)', log: true},
};
const kBinsPerOctave = 8;
const kLeastRange = 5; // of a histogram's axis, so that one or two numbers fit

function engineOf(run, name) {
  return run.engines.find((engine) => engine.name === name);
}

function printedOf(run, name) {
  return run.printed.find((printed) => printed.engine === name);
}

// Why an engine of the run's configuration did no work; empty if it worked.
function failureOf(run, name) {
  const engine = engineOf(run, name);
  if (engine && engine.work.operations > 0) return '';
  if (engine) return `no operation succeeded, ${thousands(engine.work.failures)} failed`;
  const level = run.config.levels[name] ?? 0;
  return level > 0 && run.meter ? `not one operation was begun, though the level is ${level}` : '';
}

function greatest(values) {
  return values.reduce((most, value) => Math.max(most, value), 0);
}

function pointsOf(times, values) {
  return times.map((x, i) => ({x, y: values[i]}));
}

function isDrawn(series) {
  return series.points.some((point) => point.y !== null);
}

// Numbers the warnings that have a time. The list and the charts show the number.
function numberWarnings(runs) {
  let number = 0;
  for (const warning of runs.flatMap((run) => run.warnings)) {
    if (warning.time_s !== null) warning.mark = String(++number);
  }
}

// The charts of a report's data. Only the given engines are drawn.
class Charts {
  constructor({runs, figures, warmup_s: warmupS}, engines) {
    this.runs = runs;
    this.figures = figures;
    this.warmupS = warmupS;
    this.engines = engines;
    const ends = runs.map((run) => greatest([run.duration_s,
      ...run.engines.map((engine) => greatest(engine.seconds.time_s)),
      ...run.printed.map((printed) => greatest(printed.time_s))]));
    this.endS = Math.ceil(greatest(ends) + 0.2);
  }

  overTime(id, title, yAxis, series) {
    const x = {title: 'Time since the start (s)', min: 0, max: this.endS};
    return {id, title, x, y: yAxis, series, warmupS: this.warmupS};
  }

  engineColour(name) {
    const unknown = this.engines.filter((engine) => !engine.colour);
    const known = this.engines.find((engine) => engine.name === name && engine.colour);
    if (known) return known.colour;
    return kMoreColours[unknown.findIndex((engine) => engine.name === name) % kMoreColours.length];
  }

  // The marks on a chart of `runs`: the warnings for which `belongs` is true.
  marks(runs, belongs) {
    return runs.flatMap((run) => run.warnings).filter((warning) => warning.mark && belongs(warning))
        .map((warning) => ({x: warning.time_s, text: warning.mark}));
  }

  // A line of the run. `what` names it if the run has several lines in the chart. The runs of a side look alike.
  line(runIndex, colour, what, points, style = {}) {
    const run = this.runs[runIndex];
    const named = (name) => [name, ...(what ? [what] : [])].join(', ');
    const side = kSides.indexOf(run.side);
    const at = side < 0 ? runIndex : side;
    const name = this.runs.length > 1 ? named(run.name) : what;
    const line = {name, points, colour, dash: kDashes[at], marker: kMarkers[at], weight: kStrong, ...style};
    if (side < 0) return line;
    const isOneOfMany = this.runs.length > kSides.length;
    return {...line, group: named(run.side), marker: !isOneOfMany && line.marker,
      weight: {...line.weight, width: isOneOfMany ? kFaint.width : line.weight.width}};
  }

  ofRun(title, run) {
    return this.runs.length === 1 ? title : `${title}: ${run.name}`;
  }

  // The bandwidth of all engines: one chart that compares the runs, and one per run, all with the same scale. Beneath each is
  // what else the machine did. The runs of a comparison have no charts of their own.
  totals() {
    const stacks = this.runs.map((run) => this.stack(run));
    const sums = stacks.map((stack) => sumOf(stack));
    const top = greatest(sums.flatMap((points) => points.map((point) => point.y)));
    const charts = this.runs.flatMap((run, i) => {
      const title = this.ofRun('Bandwidth of all engines', run);
      const axis = {title: 'Bandwidth (GB/s, stacked)', max: top};
      const stack = {...this.overTime(`total-${i}`, title, axis, stacks[i]), stacked: true, marks: this.marks([run], () => true)};
      const own = run.gigabytes_per_s === null ? [] : [stack];
      return withBeneath([...own, ...this.strips(i)], this.runs.length === 1);
    });
    if (this.runs.length === 1) return charts;
    const lines = sums.map((points, i) => this.line(i, kTotalColour, '', points)).filter(isDrawn);
    const axis = {title: 'Bandwidth (GB/s)', max: top};
    const common = {...this.overTime('totals', 'Bandwidth of all engines together', axis, lines),
      marks: this.marks(this.runs, () => true)};
    const compared = withBeneath([...(lines.length > 1 ? [common] : []), ...this.commonLoad()], true);
    return this.runs.some((run) => run.side) ? compared : [...compared, ...charts];
  }

  // A low chart, for which `title` is enough.
  strip(id, title, yAxis, series, runs) {
    const chart = this.overTime(id, title, yAxis, series.filter(isDrawn));
    return chart.series.length === 0 ? [] : [{...chart, marks: this.marks(runs, (warning) => warning.engine === '')}];
  }

  // What else the machine did during a run, as far as it was recorded. Errors have the temperature beneath them.
  strips(runIndex) {
    const run = this.runs[runIndex];
    const thermal = run.error_list.length > 0 ? countersOf(run, 'thermal') : [];
    const lines = (source) => countersOf(run, source).map(({name, time_s: times, value}, at) =>
      stripLine(name, at, pointsOf(times, value)));
    const titled = (title) => (run.gigabytes_per_s === null ? this.ofRun(title, run) : title);
    return [
      ...this.strip(`load-${runIndex}`, titled('Processor time of other programs and of the host'), {title: 'CPUs', max: 1},
          lines('load'), [run]),
      ...this.strip(`pressure-${runIndex}`, titled('Time in which a thread waited for a processor, memory or a disk'),
          {title: '%', max: 10}, lines('pressure'), [run]),
      ...this.strip(`errors-${runIndex}`, titled('Errors so far, as errors.csv lists them'), {title: 'errors', max: 1}, errorLines(run), [run])
          .map((chart) => ({...chart, stepped: true})),
      ...this.strip(`temperature-${runIndex}`, titled('Temperature of the coolest and of the hottest zone'),
          {title: '°C', free: true}, extremes(thermal, 'coolest', 'hottest'), [run]),
      ...this.strip(`frequency-${runIndex}`, titled('Frequency of the slowest and of the fastest CPU'),
          {title: 'MHz', free: true}, extremes(countersOf(run, 'cpufreq'), 'slowest', 'fastest'), [run]),
    ];
  }

  // The processor time of others and of the host together, for all runs.
  commonLoad() {
    const loadOf = (run) =>
      sumOf(countersOf(run, 'load').map(({time_s: times, value}) => ({points: pointsOf(times, value)})));
    const lines = this.runs.map((run, i) => this.line(i, kCounterColours[0], '', loadOf(run)));
    const title = 'Processor time of other programs and of the host, together';
    return this.strip('loads', title, {title: 'CPUs', max: 1}, lines, this.runs);
  }

  // The engines of a run, with a point for every whole second of any of them. Before its first second of work and after its
  // last one an engine has the value 0. The sum is unknown, and all have a gap, where an engine lacks a second in between,
  // and in the second in which it began or ended, of which it worked a part.
  stack(run) {
    const engines = run.engines.filter((engine) => this.engines.some(({name}) => name === engine.name));
    const lines = engines.map((engine) => wholePoints(engine, 'bandwidth'));
    const times = [...new Set(lines.flatMap((points) => points.map(({x}) => x)))].sort((a, b) => a - b);
    const values = engines.map(({seconds}, i) => {
      const points = lines[i];
      const byTime = new Map(seconds.time_s.map((x, at) => [x, seconds.bandwidth[at]]));
      const isWhole = (x) => points.length > 0 && x >= points[0].x && x <= points[points.length - 1].x;
      const outside = (x) => (byTime.get(x) > 0 ? null : 0);
      return times.map((x) => (isWhole(x) ? byTime.get(x) ?? null : outside(x)));
    });
    const isGap = times.map((_, at) => values.some((column) => column[at] === null));
    return engines.map((engine, i) => ({
      name: engine.name, colour: this.engineColour(engine.name), dash: [], marker: 'circle', weight: kStrong, fill: true,
      points: times.map((x, at) => ({x, y: isGap[at] ? null : values[i][at]})),
    }));
  }

  // Rate, bandwidth, latencies, histogram and printed rate of the engine, for all runs. Empty charts are left out.
  ofEngine(engine) {
    const measured = this.runs.some((run) => engineOf(run, engine) && failureOf(run, engine) === '');
    const charts = measured ? [...Object.keys(kSecondCharts).map((id) => this.ofSeconds(engine, id)), this.histogram(engine)] : [];
    charts.push(this.printed(engine, measured));
    const marks = this.marks(this.runs, (warning) => warning.engine === engine);
    return charts.filter((chart) => chart.series.length > 0)
        .map((chart) => ({...chart, marks: chart.warmupS === undefined ? [] : marks}));
  }

  // A line for each run that has values of the engine's figure in its seconds.
  figureLines(engine, figure, what, perUnit, style) {
    return this.runs.flatMap((run, i) => {
      const found = engineOf(run, engine);
      if (!found || failureOf(run, engine) !== '') return [];
      const points = wholePoints(found, figure).map(({x, y}) => ({x, y: y === null ? null : y * perUnit}));
      return [this.line(i, this.engineColour(engine), what, points, style)];
    }).filter(isDrawn);
  }

  // The figures that the data assign to the chart `id`. If there are several, their names are in the legend.
  ofSeconds(engine, id) {
    const {title, axis, log} = kSecondCharts[id];
    const [unit, perUs] = log ? this.latencyUnit(engine) : ['', 1];
    const figures = this.figures.filter(({chart}) => chart === id);
    const series = figures.flatMap((figure, i) => this.figureLines(engine, figure.name,
        figures.length > 1 ? figure.title : '', perUs, {weight: kWeights[i]}));
    return {...this.overTime(`${engine}-${id}`, title, {title: axis.replace('UNIT', unit), log}, series), broad: log};
  }

  // The unit that fits the engine's latencies, and the factor from microseconds.
  latencyUnit(engine) {
    const middle = greatest(this.runs.map((run) => engineOf(run, engine)?.work.p50 ?? 0));
    if (middle >= 1e3) return ['ms', 1e-3];
    return middle >= 1 ? ['µs', 1] : ['ns', 1e3];
  }

  histogram(engine) {
    const [unit, perUs] = this.latencyUnit(engine);
    let lowest = Infinity;
    let highest = 0;
    const series = this.runs.flatMap((run, i) => {
      const points = shares(engineOf(run, engine)?.histogram, perUs / 1e3);
      if (points.length === 0) return [];
      lowest = Math.min(lowest, points[0].x);
      highest = Math.max(highest, points[points.length - 1].x * 2 ** (1 / kBinsPerOctave));
      return [this.line(i, this.engineColour(engine), '', points, {fill: this.runs.length === 1})];
    });
    const widen = Math.max(1, Math.sqrt(kLeastRange * lowest / highest));
    return {
      id: `${engine}-histogram`, title: 'Latency histogram', stepped: true, series,
      x: {title: `Latency (${unit}, logarithmic)`, log: true, min: lowest / widen, max: highest * widen},
      y: {title: 'Share of operations (%)'},
    };
  }

  printed(engine, measured) {
    const series = this.runs.flatMap((run, i) => {
      const printed = printedOf(run, engine);
      if (!printed || failureOf(run, engine) !== '') return [];
      const exact = engineOf(run, engine)?.work.exact ?? 0;
      const line = [{x: 0, y: exact}, {x: this.endS, y: exact}];
      const colour = this.engineColour(engine);
      return [this.line(i, colour, 'printed', pointsOf(printed.time_s, printed.fps)),
        ...(exact > 0 ? [this.line(i, colour, 'exact, whole run', line, {weight: kFaint, marker: false})] : [])];
    });
    return this.overTime(`${engine}-printed`, measured ? 'Printed rate beside the exact one' : 'Printed rate',
        {title: 'Rate of a busy thread (fps)'}, series);
  }

  // The latency of memory in each second, and before the run over parts of the memory.
  latency() {
    const overTime = this.runs.flatMap((run, i) => kLatencyLines.map(([column, title], at) => {
      const {time_s: times, accesses, [column]: values} = run.latency_seconds;
      const points = times.map((x, second) => ({x, y: accesses[second] > 0 ? values[second] : null}));
      return this.line(i, kCounterColours[at], title, points);
    })).filter(isDrawn);
    const growth = this.runs.flatMap((run, i) => {
      const points = run.latency.growth.map(({bytes, p50_ns: y}) => ({x: bytes / 2 ** 20, y}));
      return points.length === 0 ? [] : [this.line(i, kCounterColours[0], '', points)];
    });
    const sizes = growth.flatMap(({points}) => points.map(({x}) => x));
    const seconds = {...this.overTime('memory-latency', 'Latency of an access', {title: 'Latency (ns)', log: true}, overTime),
      broad: true, marks: this.marks(this.runs, (warning) => warning.engine === '')};
    const parts = {id: 'memory-growth', title: 'Median before the run, over parts of the memory', series: growth,
      x: {title: 'Memory (MiB, logarithmic)', log: true, min: Math.min(...sizes) / 1.25, max: Math.max(...sizes) * 1.25},
      y: {title: 'Latency (ns)', min: 0}, marks: []};
    return [seconds, parts].filter(({series}) => series.length > 0);
  }

  // A chart for each run and each of its sources of counters that is not drawn beneath the run's curves.
  counters() {
    return this.runs.flatMap((run, i) => {
      const bySource = new Map();
      for (const counter of run.counter_series.filter(({source}) => !kStripSources.includes(source))) {
        const axis = `${counter.source} (${counter.unit})`;
        bySource.set(axis, [...(bySource.get(axis) ?? []), counter]);
      }
      return [...bySource].map(([axis, counters], number) => {
        const counted = kCountedUnits.includes(counters[0].unit);
        const series = counters.map((counter, at) => ({
          name: counter.name, colour: kCounterColours[at % kCounterColours.length], weight: kStrong,
          dash: kDashes[i], marker: kMarkers[at % kMarkers.length],
          points: pointsOf(counter.time_s, counter.value.map((value) => value - (counted ? counter.value[0] : 0))),
        }));
        const axisTitle = counted ? `${axis}, since the run's start` : axis;
        return {...this.overTime(`counter-${i}-${number}`, this.ofRun(counters[0].source, run), {title: axisTitle}, series),
          stepped: counted, marks: this.marks([run], (warning) => warning.engine === '')};
      });
    });
  }
}

// [column of latency.csv, title] of the lines of the chart of latencies.
const kLatencyLines = [['p50_ns', 'p50'], ['p99_ns', 'p99'], ['p999_ns', 'p99.9'], ['max_ns', 'max']];

// One chart with the others beneath it; none if there is no chart.
function withBeneath([chart, ...beneath], broad) {
  return chart ? [{...chart, broad, beneath}] : [];
}

function countersOf(run, source) {
  return run.counter_series.filter((counter) => counter.source === source);
}

// How many errors each source had so far. The list of a run with very many is cut.
function errorLines(run) {
  const sources = [...new Set(run.error_list.map(({source}) => source))];
  return sources.map((source, at) => {
    const points = [{x: 0, y: 0}];
    for (const error of run.error_list.filter((one) => one.source === source)) {
      points.push({x: error.time_s, y: points[points.length - 1].y + error.errors});
    }
    const last = points[points.length - 1];
    return stripLine(source, at, [...points, {x: Math.max(run.duration_s, last.x), y: last.y}]);
  });
}

function stripLine(name, at, points) {
  const colour = kCounterColours[at % kCounterColours.length];
  return {name, colour, dash: [], marker: false, weight: kStrong, points};
}

// The least and the greatest of several counters in each second.
function extremes(counters, least, most) {
  const byTime = new Map();
  for (const {time_s: times, value} of counters) {
    times.forEach((x, i) => byTime.set(x, [...(byTime.get(x) ?? []), value[i]]));
  }
  const sorted = [...byTime].sort(([a], [b]) => a - b);
  return [[least, Math.min], [most, Math.max]].map(([name, pick], at) =>
    stripLine(name, at, sorted.map(([x, values]) => ({x, y: pick(...values)}))));
}

// The sum of series at the times of the first: null where one has a gap.
function sumOf(stack) {
  const byTime = stack.map((series) => new Map(series.points.map(({x, y}) => [x, y])));
  return (stack[0]?.points ?? []).map(({x}) => {
    const values = byTime.map((valueAt) => valueAt.get(x) ?? null);
    return {x, y: values.includes(null) ? null : values.reduce((sum, value) => sum + value, 0)};
  });
}

// The points of the engine's whole seconds.
function wholePoints(engine, column) {
  const seconds = engine.seconds;
  return pointsOf(seconds.time_s, seconds[column]).slice(engine.first_whole, engine.end_whole);
}

// The operations in per cent per bin; an octave has kBinsPerOctave bins. An empty bin at each end keeps the outer bars
// inside the chart.
function shares(histogram, perNs) {
  const bins = new Map();
  let whole = 0;
  (histogram?.operations ?? []).forEach((operations, i) => {
    const middle = Math.max(1, (histogram.low_ns[i] + histogram.high_ns[i]) / 2);
    const bin = Math.floor(Math.log2(middle) * kBinsPerOctave);
    bins.set(bin, (bins.get(bin) ?? 0) + operations);
    whole += operations;
  });
  if (whole === 0) return [];
  const points = [];
  for (let bin = Math.min(...bins.keys()) - 1; bin <= Math.max(...bins.keys()) + 1; ++bin) {
    points.push({x: 2 ** (bin / kBinsPerOctave) * perNs, y: (bins.get(bin) ?? 0) / whole * 100});
  }
  return points;
}
