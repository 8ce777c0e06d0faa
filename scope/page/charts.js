// What each chart shows: {id, title, broad, x, y, stacked, stepped, series}. An axis is {title, min, max, log}; a series
// {name, colour, dash, marker, fill, points}, whose points are {x, y}, y null where the line has a gap.

// The colours of Okabe and Ito, which the colour-blind tell apart, without the yellow that white swallows.
const kColours = ['#0072b2', '#d55e00', '#009e73', '#aa4499', '#e69f00', '#56b4e9', '#000000', '#767676'];
// Colour is not the only difference between the lines of two runs.
const kMarkers = ['circle', 'rect', 'triangle', 'rectRot', 'cross', 'star', 'crossRot', 'line'];
const kBinsPerOctave = 8;
const kLeastRange = 5; // of a histogram's axis: wide enough for a number or two

function engineOf(run, name) {
  return run.engines.find((engine) => engine.name === name);
}

function printedOf(run, name) {
  return run.printed.find((printed) => printed.engine === name);
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

// The charts of a report: `runs` and `engines` as in its data, the engines those that are drawn.
class Charts {
  constructor(runs, engines) {
    this.runs = runs;
    this.engines = engines;
    const ends = runs.map((run) => greatest([run.duration_s,
      ...run.engines.map((engine) => greatest(engine.seconds.time_s)),
      ...run.printed.map((printed) => greatest(printed.time_s))]));
    this.endS = Math.ceil(greatest(ends) + 0.2);
  }

  overTime(id, title, yAxis, series) {
    return {id, title, x: {title: 'Time since the start (s)', min: 0, max: this.endS}, y: yAxis, series};
  }

  engineColour(name) {
    return kColours[this.engines.findIndex((engine) => engine.name === name) % kColours.length];
  }

  // One run: the engine's colour. Several: the run's.
  colour(runIndex, engine) {
    return this.runs.length === 1 ? this.engineColour(engine) : kColours[runIndex];
  }

  series(runIndex, engine, what, points, style = {}) {
    const name = this.runs.length === 1 ? what : `${this.runs[runIndex].name}, ${what}`;
    return {name, points, colour: this.colour(runIndex, engine), marker: kMarkers[runIndex], dash: [], ...style};
  }

  ofRun(title, run) {
    return this.runs.length === 1 ? title : `${title}: ${run.name}`;
  }

  // All engines of each run on top of each other; the same scale for every run.
  totals() {
    const charts = [];
    let top = 0;
    this.runs.forEach((run, i) => {
      if (run.gigabytes_per_s === null) return;
      const engines = run.engines.filter((engine) => this.engines.some(({name}) => name === engine.name));
      const bandwidths = engines.map((engine) => new Map(
          wholePoints(engine, 'gigabytes_per_s').map((point) => [point.x, point.y])));
      const times = [...new Set(bandwidths.flatMap((bandwidth) => [...bandwidth.keys()]))].sort((a, b) => a - b);
      for (const x of times) {
        top = Math.max(top, bandwidths.reduce((sum, bandwidth) => sum + (bandwidth.get(x) ?? 0), 0));
      }
      const series = engines.map((engine, at) => ({
        name: engine.name, colour: this.engineColour(engine.name), dash: [], marker: 'circle', fill: true,
        // A stack needs a value of every engine at every time.
        points: times.map((x) => ({x, y: bandwidths[at].has(x) ? bandwidths[at].get(x) : 0})),
      }));
      const title = this.ofRun('Bandwidth of all engines', run);
      charts.push({...this.overTime(`total-${i}`, title, {title: 'Bandwidth (GB/s, stacked)'}, series),
        stacked: true, broad: this.runs.length === 1});
    });
    for (const chart of charts) chart.y.max = top;
    return charts;
  }

  // Rate, bandwidth, latencies, histogram and printed rate of the engine, all runs in each, without the empty ones.
  ofEngine(engine) {
    const measured = this.runs.some((run) => engineOf(run, engine));
    const charts = measured ? [this.rate(engine), this.bandwidth(engine), this.latency(engine), this.histogram(engine)] : [];
    charts.push(this.printed(engine, measured));
    return charts.filter((chart) => chart.series.length > 0);
  }

  // A series for each run that has figures of the engine in `column` of its seconds.
  columnSeries(engine, what, column, perUnit = 1, style = {}) {
    return this.runs.flatMap((run, i) => {
      const found = engineOf(run, engine);
      if (!found) return [];
      const points = wholePoints(found, column).map(({x, y}) => ({x, y: y === null ? null : y * perUnit}));
      return [this.series(i, engine, what, points, style)];
    }).filter(isDrawn);
  }

  rate(engine) {
    return this.overTime(`${engine}-rate`, 'Rate', {title: 'Operations (1/s)'},
        this.columnSeries(engine, 'operations', 'operations_per_s'));
  }

  bandwidth(engine) {
    return this.overTime(`${engine}-bandwidth`, 'Bandwidth', {title: 'Bandwidth (GB/s)'},
        this.columnSeries(engine, 'bandwidth', 'gigabytes_per_s'));
  }

  // The unit that the engine's latencies are shown in, and how many of it a nanosecond is.
  latencyUnit(engine) {
    const middle = greatest(this.runs.map((run) => engineOf(run, engine)?.work.p50_ns ?? 0));
    if (middle >= 1e6) return ['ms', 1e-6];
    return middle >= 1e3 ? ['µs', 1e-3] : ['ns', 1];
  }

  latency(engine) {
    const [unit, perNs] = this.latencyUnit(engine);
    const series = [
      ...this.columnSeries(engine, 'p50', 'p50_ns', perNs),
      ...this.columnSeries(engine, 'p99', 'p99_ns', perNs, {dash: [6, 4]}),
      ...this.columnSeries(engine, 'max', 'max_ns', perNs, {dash: [1, 4]}),
    ];
    const axis = {title: `Latency (${unit})`, log: true};
    return {...this.overTime(`${engine}-latency`, 'Latency of an operation', axis, series), broad: true};
  }

  histogram(engine) {
    const [unit, perNs] = this.latencyUnit(engine);
    let lowest = Infinity;
    let highest = 0;
    const series = this.runs.flatMap((run, i) => {
      const points = shares(engineOf(run, engine)?.histogram, perNs);
      if (points.length === 0) return [];
      lowest = Math.min(lowest, points[0].x);
      highest = Math.max(highest, points[points.length - 1].x * 2 ** (1 / kBinsPerOctave));
      return [this.series(i, engine, 'share', points, {fill: true})];
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
      if (!printed) return [];
      const exact = engineOf(run, engine)?.work.busy_fps ?? 0;
      const line = [{x: 0, y: exact}, {x: this.endS, y: exact}];
      return [this.series(i, engine, 'printed', pointsOf(printed.time_s, printed.fps)),
        ...(exact > 0 ? [this.series(i, engine, 'exact, whole run', line, {dash: [6, 4]})] : [])];
    });
    return this.overTime(`${engine}-printed`, measured ? 'Printed rate beside the exact one' : 'Printed rate',
        {title: 'Rate of a busy thread (fps)'}, series);
  }

  // A chart for each run and source of counters that it recorded.
  counters() {
    return this.runs.flatMap((run, i) => {
      const bySource = new Map();
      for (const counter of run.counters) {
        const axis = `${counter.source} (${counter.unit})`;
        bySource.set(axis, [...(bySource.get(axis) ?? []), counter]);
      }
      return [...bySource].map(([axis, counters], number) => {
        const series = counters.map((counter, at) => ({
          name: counter.name, colour: kColours[at % kColours.length], dash: [],
          marker: kMarkers[at % kMarkers.length], points: pointsOf(counter.time_s, counter.value),
        }));
        return this.overTime(`counter-${i}-${number}`, this.ofRun(counters[0].source, run), {title: axis}, series);
      });
    });
  }
}

// The seconds in which the engine worked throughout.
function wholePoints(engine, column) {
  const seconds = engine.seconds;
  return pointsOf(seconds.time_s, seconds[column]).slice(engine.first_whole, engine.end_whole);
}

// Per cent of the operations in each of equal parts of an octave, with an empty part at both ends, so that the first and
// the last bar are seen whole.
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
